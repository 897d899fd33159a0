#pragma once

#include <cstdint>
#include <string>

namespace cv {

// The video bitrates offered, in kbit/s. A hand-edited value outside is brought into
// this range: some of the host's encoders refuse to start without a bitrate.
inline constexpr uint32_t kMinVideoKbps = 500;
inline constexpr uint32_t kMaxVideoKbps = 51000;

// What the vertical output is built from (read from the profile's settings).
struct OutputConfig {
	std::string url;
	std::string key;
	uint32_t bitrate_kbps = 4000;
	std::string encoder_preset = "veryfast";
	std::string preferred_encoder = "auto";
};

} // namespace cv
