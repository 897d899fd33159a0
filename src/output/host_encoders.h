#pragma once

// The H.264 video encoders the running host offers, their presets, and the settings the
// vertical stream's video encoder is made with.

#include "base/settings.h"

#include <obs.hpp>

#include <string>
#include <vector>

namespace cv {

struct HostChoice {
	std::string value; // an encoder's id, a preset's value
	std::string name;  // as the host's own settings show it
};

// Not deprecated and not internal, in the host's order.
std::vector<HostChoice> host_h264_encoders();
// The presets the encoder's own properties offer; empty when it has none.
std::vector<HostChoice> encoder_presets(const std::string &id);

// CBR at the bitrate, the keyframe interval, and the preset when it is the encoder's
// (`preset_applies`); x264 otherwise as the host streams with it (its preset's lookahead
// and B-frames), unless low latency is asked for.
OBSDataAutoRelease video_encoder_settings(const std::string &id, const OutputConfig &config, bool preset_applies);

} // namespace cv
