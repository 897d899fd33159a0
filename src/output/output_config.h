#pragma once

#include <cstdint>
#include <string>

namespace cv {

// What the vertical output is built from (read from the profile's settings).
struct OutputConfig {
	std::string url;
	std::string key;
	uint32_t bitrate_kbps = 4000;
	std::string encoder_preset = "veryfast";
	std::string preferred_encoder = "auto";
};

} // namespace cv
