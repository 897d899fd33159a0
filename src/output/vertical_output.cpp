#include "vertical_output.h"

#include "canvas/vertical_canvas.h"
#include "base/log.h"
#include "stream/mux_output.h"
#include "stream/stream_url.h"

#include <atomic>
#include <cstring>
#include <ctime>

namespace cv {

namespace {

constexpr const char *kDefaultStopMessage = "Vertical output failed to connect.\nCheck your RTMP URL and stream key.";
constexpr const char *kX264Options = "bframes=0:aud=1:repeat-headers=1";

std::atomic<uint64_t> name_counter{0};

const char *or_unknown(const std::string &text)
{
	return text.empty() ? "unknown" : text.c_str();
}

bool is_x264(const char *id)
{
	return strcmp(id, "obs_x264") == 0 || strcmp(id, "x264") == 0;
}

} // namespace

std::string make_unique_name(const char *base)
{
	const long long seconds = static_cast<long long>(time(nullptr));
	const uint64_t count = name_counter.fetch_add(1);
	return std::string(base) + "_" + std::to_string(seconds) + "_" + std::to_string(count);
}

const std::vector<const char *> &encoder_candidates(const std::string &preferred_encoder)
{
	// The NVENC and QSV rows hold only the software encoders on purpose.
	static const std::vector<const char *> software = {"obs_x264", "x264"};
	static const std::vector<const char *> amf = {"h264_amf", "obs_x264", "x264"};
	static const std::vector<const char *> automatic = {"jim_nvenc",    "jim_nvenc_h264", "h264_amf", "obs_qsv11",
							    "obs_qsv11_v2", "obs_x264",       "x264"};
	if (preferred_encoder == "x264" || preferred_encoder == "nvenc" || preferred_encoder == "qsv")
		return software;
	if (preferred_encoder == "amf")
		return amf;
	return automatic;
}

VerticalOutput::VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config, StreamErrorHandler on_error)
	: canvas_(canvas),
	  url_(config.url),
	  key_(config.key),
	  bitrate_kbps_(config.bitrate_kbps),
	  encoder_preset_(config.encoder_preset),
	  preferred_encoder_(config.preferred_encoder),
	  on_error_(std::move(on_error))
{
}

VerticalOutput::~VerticalOutput()
{
	if (!initialised_)
		return;
	release_all();
	initialised_ = false;
	log_debug("VerticalOutput destroyed");
}

bool VerticalOutput::init()
{
	if (initialised_) {
		log_warning("VerticalOutput already initialised");
		return true;
	}
	if (!canvas_ || !canvas_->initialised()) {
		log_error("VerticalOutput::init — canvas not ready");
		return false;
	}
	initialised_ = true;
	log_debug("VerticalOutput initialised (runtime encoder fallback enabled)");
	return true;
}

bool VerticalOutput::start()
{
	if (!initialised_) {
		log_error("VerticalOutput::start — not initialised");
		return false;
	}
	if (output_ && obs_output_active(output_)) {
		log_warning("VerticalOutput::start — already active (%s)", or_unknown(active_encoder_));
		return true;
	}
	if (url_.empty()) {
		log_error("Vertical output start failed: RTMP URL is empty. Configure it in Tools → Corvane Vertical "
			  "Streaming Settings.");
		return false;
	}
	return start_with_fallback();
}

bool VerticalOutput::start_with_fallback()
{
	for (const char *id : encoder_candidates(preferred_encoder_)) {
		// An encoder this host does not have would only fail later, after a connection.
		if (!obs_get_encoder_codec(id))
			continue;
		release_all();
		log_debug("Trying vertical output encoder: %s", id);
		if (!create_video_encoder(id))
			continue;
		if (!create_audio_encoders() || !create_output()) {
			release_all();
			continue;
		}

		video_t *video = canvas_->video();
		log_debug("pre-start: encoder=%s video_t=%p audio_t=%p video_enc=%p audio_enc0=%p audio_tracks=%zu "
			  "output=%p",
			  id, static_cast<void *>(video), static_cast<void *>(canvas_->audio()),
			  static_cast<void *>(video_encoder_.Get()), static_cast<void *>(audio_encoders_[0].Get()),
			  audio_encoder_count_, static_cast<void *>(output_.Get()));
		if (video)
			log_debug("video_output: width=%u height=%u", video_output_get_width(video),
				  video_output_get_height(video));
		// The address as the log may show it: no key, no SRT secret.
		log_info("Vertical output starting: %s", mask_url_for_log(url_, key_).c_str());

		if (obs_output_start(output_)) {
			active_encoder_ = id;
			log_info("Vertical output started with encoder: %s", id);
			return true;
		}
		const char *error = obs_output_get_last_error(output_);
		log_warning("Encoder %s failed to start output: %s", id, error ? error : "unknown");
		release_all();
	}
	log_error("No encoder could start successfully");
	return false;
}

void VerticalOutput::stop()
{
	if (output_ && obs_output_active(output_)) {
		obs_output_stop(output_);
		log_info("Vertical output stop requested (%s)", or_unknown(active_encoder_));
	} else {
		log_debug("VerticalOutput::stop — not active, nothing to do");
	}
}

bool VerticalOutput::is_active()
{
	return output_ && obs_output_active(output_);
}

void VerticalOutput::update_config(const OutputConfig &config)
{
	url_ = config.url;
	key_ = config.key;
	bitrate_kbps_ = config.bitrate_kbps;
	encoder_preset_ = config.encoder_preset;
	preferred_encoder_ = config.preferred_encoder;
	log_info("VerticalOutput config updated (url: %s, preferred_encoder: %s)", mask_url_for_log(url_, key_).c_str(),
		 preferred_encoder_.c_str());
}

bool VerticalOutput::create_video_encoder(const char *id)
{
	OBSDataAutoRelease settings = obs_data_create();
	if (!settings)
		return false;
	obs_data_set_int(settings, "bitrate", bitrate_kbps_);
	obs_data_set_string(settings, "rate_control", "CBR");
	obs_data_set_int(settings, "keyint_sec", 2);
	// Hardware encoders keep their own defaults for everything else.
	if (is_x264(id)) {
		obs_data_set_string(settings, "preset", encoder_preset_.c_str());
		obs_data_set_string(settings, "profile", "high");
		obs_data_set_string(settings, "x264opts", kX264Options);
		obs_data_set_string(settings, "tune", "zerolatency");
	}

	OBSEncoderAutoRelease encoder =
		obs_video_encoder_create(id, make_unique_name("cv_video_enc").c_str(), settings, nullptr);
	if (!encoder) {
		log_warning("Failed to create video encoder candidate: %s", id);
		return false;
	}
	obs_encoder_set_video(encoder, canvas_->video());
	video_encoder_ = std::move(encoder);
	return true;
}

bool VerticalOutput::create_audio_encoders()
{
	for (OBSEncoderAutoRelease &encoder : audio_encoders_)
		encoder = nullptr;
	audio_encoder_count_ = 0;

	for (size_t i = 0; i < kAudioTrackCount; i++) {
		OBSDataAutoRelease settings = obs_data_create();
		if (!settings) {
			log_error("Failed to create audio settings for track %zu", i);
			return false;
		}
		obs_data_set_int(settings, "bitrate", 160);
		const std::string name = make_unique_name(("cv_audio_enc_" + std::to_string(i)).c_str());
		OBSEncoderAutoRelease encoder =
			obs_audio_encoder_create("ffmpeg_aac", name.c_str(), settings, i, nullptr);
		if (!encoder) {
			log_error("Failed to create ffmpeg_aac encoder for track %zu", i);
			for (OBSEncoderAutoRelease &made : audio_encoders_)
				made = nullptr;
			audio_encoder_count_ = 0;
			return false;
		}
		obs_encoder_set_audio(encoder, obs_get_audio());
		audio_encoders_[i] = std::move(encoder);
		audio_encoder_count_++;
	}
	log_debug("Created %zu audio encoders for output tracks 0..%zu", audio_encoder_count_,
		  audio_encoder_count_ - 1);
	return true;
}

bool VerticalOutput::create_output()
{
	OBSDataAutoRelease settings = obs_data_create();
	if (!settings)
		return false;
	obs_data_set_string(settings, "server", url_.c_str());
	obs_data_set_string(settings, "key", key_.c_str());
	obs_data_set_int(settings, "fps_num", canvas_->fps_num());
	obs_data_set_int(settings, "fps_den", canvas_->fps_den());

	OBSOutputAutoRelease output =
		obs_output_create(kMuxOutputId, make_unique_name("cv_mux_output").c_str(), settings, nullptr);
	if (!output) {
		log_error("obs_output_create(%s) failed", kMuxOutputId);
		return false;
	}
	obs_output_set_video_encoder(output, video_encoder_);
	for (size_t i = 0; i < kAudioTrackCount; i++) {
		if (audio_encoders_[i])
			obs_output_set_audio_encoder(output, audio_encoders_[i], i);
	}
	output_ = std::move(output);
	stop_signal_.Connect(obs_output_get_signal_handler(output_), "stop", on_output_stop, this);
	log_debug("Output created with %zu attached audio tracks", audio_encoder_count_);
	return true;
}

void VerticalOutput::release_all()
{
	if (output_) {
		if (obs_output_active(output_))
			obs_output_stop(output_);
		stop_signal_.Disconnect();
		output_ = nullptr;
	}
	for (OBSEncoderAutoRelease &encoder : audio_encoders_)
		encoder = nullptr;
	audio_encoder_count_ = 0;
	video_encoder_ = nullptr;
	active_encoder_.clear();
}

// Runs on whichever thread libobs emits "stop" from. The handler and the output are set
// before the output can stop, and the connection goes before either does.
void VerticalOutput::on_output_stop(void *data, calldata_t *calldata)
{
	auto *self = static_cast<VerticalOutput *>(data);
	long long code = 0;
	calldata_get_int(calldata, "code", &code);
	if ((code != OBS_OUTPUT_ERROR && code != OBS_OUTPUT_ENCODE_ERROR) || !self->on_error_)
		return;
	const char *error = obs_output_get_last_error(static_cast<obs_output_t *>(calldata_ptr(calldata, "output")));
	self->on_error_(error && *error ? error : kDefaultStopMessage);
}

} // namespace cv
