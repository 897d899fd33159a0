#include "shared_encoders.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>

namespace cv {

namespace {

constexpr const char *kX264Options = "bframes=0:aud=1:repeat-headers=1";
constexpr int kAudioKbps = 160;

std::atomic<uint64_t> name_counter{0};

bool is_x264(const char *id)
{
	return strcmp(id, "obs_x264") == 0 || strcmp(id, "x264") == 0;
}

OBSEncoderAutoRelease make_video_encoder(const char *id, const OutputConfig &config, video_t *video)
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_int(settings, "bitrate", config.bitrate_kbps);
	obs_data_set_string(settings, "rate_control", "CBR");
	obs_data_set_int(settings, "keyint_sec", 2);
	// Hardware encoders keep their own defaults for everything else.
	if (is_x264(id)) {
		obs_data_set_string(settings, "preset", config.encoder_preset.c_str());
		obs_data_set_string(settings, "profile", "high");
		obs_data_set_string(settings, "x264opts", kX264Options);
		obs_data_set_string(settings, "tune", "zerolatency");
	}
	OBSEncoderAutoRelease encoder =
		obs_video_encoder_create(id, make_unique_name("cv_video_enc").c_str(), settings, nullptr);
	if (encoder)
		obs_encoder_set_video(encoder, video);
	else
		log_warning("Failed to create video encoder candidate: %s", id);
	return encoder;
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

SharedEncoders::SharedEncoders(VerticalCanvas *canvas, const OutputConfig &config) : canvas_(canvas), config_(config) {}

void SharedEncoders::update_config(const OutputConfig &config)
{
	config_ = config;
}

bool SharedEncoders::start(obs_output_t *output)
{
	// Outputs that have stopped no longer hold the encode.
	users_.erase(std::remove_if(users_.begin(), users_.end(),
				    [](const OBSWeakOutputAutoRelease &weak) {
					    OBSOutputAutoRelease user = obs_weak_output_get_output(weak);
					    return !user || !obs_output_active(user);
				    }),
		     users_.end());
	if (video_ && !users_.empty()) {
		attach(output);
		if (!obs_output_start(output))
			return false;
		users_.emplace_back(obs_output_get_weak_output(output));
		return true;
	}
	for (const char *id : encoder_candidates(config_.preferred_encoder)) {
		// An encoder this host does not have would only fail later, after a connection.
		if (!obs_get_encoder_codec(id) || !create(id))
			continue;
		attach(output);
		if (obs_output_start(output)) {
			encoder_id_ = id;
			users_.emplace_back(obs_output_get_weak_output(output));
			log_info("Vertical encode started with encoder: %s", id);
			return true;
		}
		const char *error = obs_output_get_last_error(output);
		log_warning("Encoder %s failed to start output: %s", id, error ? error : "unknown");
	}
	video_ = nullptr;
	audio_ = nullptr;
	encoder_id_.clear();
	log_error("No encoder could start successfully");
	return false;
}

bool SharedEncoders::create(const char *id)
{
	audio_ = nullptr;
	video_ = make_video_encoder(id, config_, canvas_->video());
	if (!video_)
		return false;
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_int(settings, "bitrate", kAudioKbps);
	audio_ = obs_audio_encoder_create("ffmpeg_aac", make_unique_name("cv_audio_enc").c_str(), settings,
					  canvas_->audio_mix(), nullptr);
	if (!audio_) {
		log_error("Failed to create the ffmpeg_aac encoder");
		video_ = nullptr;
		return false;
	}
	obs_encoder_set_audio(audio_, canvas_->audio());
	return true;
}

void SharedEncoders::attach(obs_output_t *output)
{
	obs_output_set_video_encoder(output, video_);
	obs_output_set_audio_encoder(output, audio_, 0);
}

} // namespace cv
