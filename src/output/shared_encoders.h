#pragma once

#include "base/errors.h"
#include "base/settings.h"

#include <obs.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cv {

// "<base>_<seconds since the epoch>_<process-wide counter>": names of libobs objects
// that stay distinct even when made within the same second.
std::string make_unique_name(const char *base);

// Waits until a stopping output is no longer active (and so has let go of its encoders);
// false on timeout. For the job thread, never the UI's.
bool wait_stopped(obs_output_t *output, std::chrono::milliseconds timeout);

class VerticalCanvas;

// What the encoders are made on besides the canvas's video: its rate and audio as the UI
// thread saw them when it asked for a start.
struct CanvasFeed {
	uint32_t fps_num = 30;
	uint32_t fps_den = 1;
	audio_t *audio = nullptr;
	size_t audio_mix = 0;
	std::shared_ptr<const void> keep_audio_open; // held as long as an encoder on `audio` exists
};

// The encode of the vertical canvas that its outputs share: a video encoder on the
// canvas and an AAC encoder on its audio. An output that starts while another one runs
// joins the running encoders; the first one gets new encoders, made with the newest
// settings: the chosen encoder, then the host's hardware encoders, then x264, in turn
// until one of them gets it running. A
// paused encode (the recording's, alone) is never joined: a new one is made beside it.
// Encoders go as soon as no running output uses them, and the canvas's video with the
// last of them. The plug-in's job thread alone calls it.
class SharedEncoders {
public:
	SharedEncoders(VerticalCanvas *canvas, const OutputConfig &config);
	~SharedEncoders();

	// Takes effect for the next encoders made.
	void update_config(const OutputConfig &config);
	// Starts `output` with the encoders; the reason when none of them gets it running.
	Error start(obs_output_t *output, const CanvasFeed &feed);
	// Lets go of encoders that no active output uses. The canvas's video stays: it is let
	// go of on the thread that resets the host's video.
	void release_unused();
	// Whether `output` is the only one on its encoders (so pausing them pauses it alone).
	bool alone(obs_output_t *output) const;
	// Whether any encoders exist.
	bool holding() const { return !encodes_.empty(); }
	// The video encoder id of the newest encode ("" before a start).
	const std::string &encoder_id() const { return encoder_id_; }

	struct Encode;

private:
	std::unique_ptr<Encode> create(const std::string &id, const CanvasFeed &feed);

	VerticalCanvas *canvas_;
	OutputConfig config_;
	std::vector<std::unique_ptr<Encode>> encodes_;
	std::string encoder_id_;
};

} // namespace cv
