#include "pipeline.h"

#include "sources.h"
#include "wait.h"

#include "canvas/vertical_canvas.h"
#include "stream/mux_output.h"

#include <cstring>

namespace cvtest {

std::vector<obs_output_t *> mux_outputs()
{
	std::vector<obs_output_t *> outputs;
	obs_enum_outputs(
		[](void *param, obs_output_t *output) {
			if (strcmp(obs_output_get_id(output), cv::kMuxOutputId) == 0)
				static_cast<std::vector<obs_output_t *> *>(param)->push_back(output);
			return true;
		},
		&outputs);
	return outputs;
}

cv::SessionStats first_mux_stats()
{
	const std::vector<obs_output_t *> outputs = mux_outputs();
	return outputs.empty() ? cv::SessionStats{} : cv::mux_output_stats(outputs[0]);
}

bool wait_mux_connected(int timeout_ms)
{
	return wait_until([] { return first_mux_stats().connected; }, timeout_ms);
}

MuxPipeline::MuxPipeline(const PipelineOptions &options) : options_(options)
{
	canvas_ = std::make_unique<cv::VerticalCanvas>(
		cv::CanvasConfig{options.width, options.height, options.fps_num, options.fps_den, true});
	canvas_->init();
	scene_ = make_band_scene("Pipeline Show", {0xFF0000, 0x00FF00, 0x0000FF});
	canvas_->assign_scene_source("Scene 1", "Pipeline Show");
}

MuxPipeline::~MuxPipeline()
{
	if (output_ && obs_output_active(output_))
		obs_output_stop(output_);
	wait_inactive(10000);
	stop_signal_.Disconnect();
	output_ = nullptr;
	audio_.clear();
	video_ = nullptr;
	canvas_.reset();
	if (scene_)
		obs_source_remove(obs_scene_get_source(scene_));
	scene_ = nullptr;
}

bool MuxPipeline::create(const std::string &server, const std::string &key)
{
	OBSDataAutoRelease video_settings = obs_data_create();
	obs_data_set_int(video_settings, "bitrate", options_.video_kbps);
	obs_data_set_string(video_settings, "rate_control", "CBR");
	obs_data_set_int(video_settings, "keyint_sec", options_.keyint_sec);
	obs_data_set_string(video_settings, "preset", "ultrafast");
	obs_data_set_string(video_settings, "profile", "high");
	// Low latency tuning leaves B-frames out whatever is asked for.
	obs_data_set_string(video_settings, "tune", options_.bframes ? "" : "zerolatency");
	const std::string x264opts = "bframes=" + std::to_string(options_.bframes) + ":aud=1:repeat-headers=1";
	obs_data_set_string(video_settings, "x264opts", x264opts.c_str());
	video_ = obs_video_encoder_create("obs_x264", "test video", video_settings, nullptr);
	if (!video_)
		return false;
	obs_encoder_set_video(video_, canvas_->fresh_video());

	for (size_t i = 0; i < options_.audio_tracks; i++) {
		OBSDataAutoRelease audio_settings = obs_data_create();
		obs_data_set_int(audio_settings, "bitrate", 160);
		OBSEncoderAutoRelease audio = obs_audio_encoder_create(
			"ffmpeg_aac", ("test audio " + std::to_string(i)).c_str(), audio_settings, i, nullptr);
		if (!audio)
			return false;
		obs_encoder_set_audio(audio, obs_get_audio());
		audio_.push_back(std::move(audio));
	}

	OBSDataAutoRelease output_settings = obs_data_create();
	obs_data_set_string(output_settings, "server", server.c_str());
	obs_data_set_string(output_settings, "key", key.c_str());
	obs_data_set_int(output_settings, "fps_num", options_.fps_num);
	obs_data_set_int(output_settings, "fps_den", options_.fps_den);
	const char *output_id = options_.output_id ? options_.output_id : cv::kMuxOutputId;
	output_ = obs_output_create(output_id, "test mux", output_settings, nullptr);
	if (!output_)
		return false;
	obs_output_set_video_encoder(output_, video_);
	for (size_t i = 0; i < audio_.size(); i++)
		obs_output_set_audio_encoder(output_, audio_[i], i);
	stop_signal_.Connect(obs_output_get_signal_handler(output_), "stop", on_stop, this);
	return true;
}

void MuxPipeline::stop()
{
	obs_output_stop(output_);
	wait_inactive(10000);
}

bool MuxPipeline::wait_inactive(int timeout_ms)
{
	return !output_ || wait_until([this] { return !obs_output_active(output_); }, timeout_ms);
}

cv::SessionStats MuxPipeline::stats() const
{
	// A benchmark's timed type hands the plug-in's own data through.
	return cv::mux_data_stats(output_ ? obs_obj_get_data(output_) : nullptr);
}

bool MuxPipeline::wait_connected(int timeout_ms) const
{
	return wait_until([this] { return stats().connected; }, timeout_ms);
}

std::vector<long long> MuxPipeline::stop_codes() const
{
	std::lock_guard lock(codes_mutex_);
	return codes_;
}

void MuxPipeline::on_stop(void *param, calldata_t *data)
{
	auto *self = static_cast<MuxPipeline *>(param);
	std::lock_guard lock(self->codes_mutex_);
	self->codes_.push_back(calldata_int(data, "code"));
}

} // namespace cvtest
