#pragma once

#include "base/settings.h"

#include <obs.hpp>

#include <string>
#include <vector>

namespace cv {

class VerticalCanvas;

// "<base>_<seconds since the epoch>_<process-wide counter>": names of libobs objects
// that stay distinct even when made within the same second.
std::string make_unique_name(const char *base);

// The encoder ids tried, in order, for a preferred encoder.
const std::vector<const char *> &encoder_candidates(const std::string &preferred_encoder);

// The one encode of the vertical canvas that every vertical output shares: a video
// encoder on the canvas and an AAC encoder on the canvas's audio. An output that starts
// while another one runs joins the running encoders; the first one to start gets new
// encoders, made with the newest settings, trying the encoder candidates in turn until
// one of them gets it running. The host's UI thread alone calls it.
class SharedEncoders {
public:
	SharedEncoders(VerticalCanvas *canvas, const OutputConfig &config);

	// Takes effect when no output runs.
	void update_config(const OutputConfig &config);
	// Starts `output` with the encoders; false when none of them gets it running.
	bool start(obs_output_t *output);
	// The encoder id in use ("" before a start).
	const std::string &encoder_id() const { return encoder_id_; }
	obs_encoder_t *video() const { return video_; }
	obs_encoder_t *audio() const { return audio_; }

private:
	bool create(const char *id);
	void attach(obs_output_t *output);

	VerticalCanvas *canvas_;
	OutputConfig config_;
	OBSEncoderAutoRelease video_;
	OBSEncoderAutoRelease audio_;
	std::string encoder_id_;
	std::vector<OBSWeakOutputAutoRelease> users_;
};

} // namespace cv
