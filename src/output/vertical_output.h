#pragma once

#include "base/settings.h"

#include <obs.hpp>

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace cv {

class VerticalCanvas;

inline constexpr size_t kAudioTrackCount = 6;

// "<base>_<seconds since the epoch>_<process-wide counter>": names of libobs objects
// that stay distinct even when made within the same second.
std::string make_unique_name(const char *base);

// The encoder ids tried, in order, for a preferred encoder.
const std::vector<const char *> &encoder_candidates(const std::string &preferred_encoder);

// What a stream that stopped with an error has to say, in words for the user; called on
// whichever thread the host reports the stop from.
using StreamErrorHandler = std::function<void(const std::string &message)>;

// The vertical stream: one video encoder on the canvas, six AAC encoders on the
// host's audio tracks and one instance of the plug-in's own muxing output. Encoders
// and output are made per start attempt, trying the encoder candidates in turn until
// one of them gets the output running. The host's UI thread alone calls it.
class VerticalOutput {
public:
	VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config, StreamErrorHandler on_error = {});
	~VerticalOutput();

	VerticalOutput(const VerticalOutput &) = delete;
	VerticalOutput &operator=(const VerticalOutput &) = delete;

	bool init();
	// True when the output runs (or already ran).
	bool start();
	void stop();
	bool is_active();
	// Takes effect at the next start; a running stream is left as it is.
	void update_config(const OutputConfig &config);

private:
	bool start_with_fallback();
	bool create_video_encoder(const char *id);
	bool create_audio_encoders();
	bool create_output();
	void release_all();
	static void on_output_stop(void *data, calldata_t *calldata);

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
	OBSSignal stop_signal_;
	StreamErrorHandler on_error_;
	std::string active_encoder_;
	bool initialised_ = false;
};

} // namespace cv
