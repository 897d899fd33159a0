#include "vertical_output.h"

#include "canvas/vertical_canvas.h"
#include "core/plugin_log.h"

namespace cv {

namespace {

const char *or_unknown(const std::string &text)
{
	return text.empty() ? "unknown" : text.c_str();
}

} // namespace

VerticalOutput::VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config)
	: canvas_(canvas),
	  url_(config.url),
	  key_(config.key),
	  bitrate_kbps_(config.bitrate_kbps),
	  encoder_preset_(config.encoder_preset),
	  preferred_encoder_(config.preferred_encoder)
{
}

VerticalOutput::~VerticalOutput()
{
	std::lock_guard lock(mutex_);
	if (!initialised_)
		return;
	release_all();
	initialised_ = false;
	blog(LOG_INFO, "[%s] VerticalOutput destroyed", kLogTag);
}

bool VerticalOutput::init()
{
	std::lock_guard lock(mutex_);
	if (initialised_) {
		blog(LOG_WARNING, "[%s] VerticalOutput already initialised", kLogTag);
		return true;
	}
	if (!canvas_ || !canvas_->initialised()) {
		blog(LOG_ERROR, "[%s] VerticalOutput::init — canvas not ready", kLogTag);
		return false;
	}
	initialised_ = true;
	blog(LOG_INFO, "[%s] VerticalOutput initialised (runtime encoder fallback enabled)", kLogTag);
	return true;
}

void VerticalOutput::stop()
{
	std::lock_guard lock(mutex_);
	if (output_ && obs_output_active(output_)) {
		obs_output_stop(output_);
		blog(LOG_INFO, "[%s] Vertical output stop requested (%s)", kLogTag, or_unknown(active_encoder_));
	} else {
		blog(LOG_INFO, "[%s] VerticalOutput::stop — not active, nothing to do", kLogTag);
	}
}

bool VerticalOutput::is_active()
{
	std::lock_guard lock(mutex_);
	return output_ && obs_output_active(output_);
}

void VerticalOutput::update_config(const OutputConfig &config)
{
	std::lock_guard lock(mutex_);
	url_ = config.url;
	key_ = config.key;
	bitrate_kbps_ = config.bitrate_kbps;
	encoder_preset_ = config.encoder_preset;
	preferred_encoder_ = config.preferred_encoder;
	blog(LOG_INFO, "[%s] VerticalOutput config updated (url: %s, preferred_encoder: %s)", kLogTag, url_.c_str(),
	     preferred_encoder_.c_str());
}

void VerticalOutput::release_all()
{
	if (output_) {
		if (obs_output_active(output_))
			obs_output_stop(output_);
		output_ = nullptr;
	}
	for (OBSEncoderAutoRelease &encoder : audio_encoders_)
		encoder = nullptr;
	audio_encoder_count_ = 0;
	video_encoder_ = nullptr;
	active_encoder_.clear();
}

} // namespace cv
