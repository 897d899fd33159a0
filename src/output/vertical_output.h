#pragma once

#include "output_config.h"

#include <obs.hpp>

#include <array>
#include <cstddef>
#include <mutex>
#include <string>

namespace cv {

class VerticalCanvas;

inline constexpr size_t kAudioTrackCount = 6;

// The vertical stream: one video encoder on the canvas, six AAC encoders on the
// host's audio tracks and one instance of the plug-in's own muxing output.
class VerticalOutput {
public:
	VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config);
	~VerticalOutput();

	VerticalOutput(const VerticalOutput &) = delete;
	VerticalOutput &operator=(const VerticalOutput &) = delete;

	bool init();
	void stop();
	bool is_active();
	void update_config(const OutputConfig &config);

private:
	void release_all();

	VerticalCanvas *canvas_;
	std::string url_;
	std::string key_;
	uint32_t bitrate_kbps_;
	std::string encoder_preset_;
	std::string preferred_encoder_;
	OBSEncoderAutoRelease video_encoder_;
	std::array<OBSEncoderAutoRelease, kAudioTrackCount> audio_encoders_;
	size_t audio_encoder_count_ = 0;
	OBSOutputAutoRelease output_;
	std::string active_encoder_;
	bool initialised_ = false;
	std::mutex mutex_;
};

} // namespace cv
