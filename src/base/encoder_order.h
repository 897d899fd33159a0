#pragma once

// Which video encoders the vertical stream tries, in which order: host-free, so that the
// rules are tested without a host or a device.

#include <string>
#include <vector>

namespace cv {

// The id that stands for "let the plug-in choose".
inline constexpr const char *kAutomaticEncoder = "auto";
// The host's x264 encoder: there on every host, the last resort.
inline constexpr const char *kX264Encoder = "obs_x264";

// Whether an encoder id is one of the host's hardware encoders (NVIDIA, AMD, Intel, or the
// VA-API of any vendor), and its rank among them: NVENC first, then AMF, QSV and VA-API,
// encoders fed with the canvas's own textures before those that copy frames to the CPU.
// -1 for a software encoder.
int hardware_rank(const std::string &id);

// The ids to try, from the H.264 encoders the running host offers: the chosen one first
// (unless "auto" or not offered), then its hardware encoders in rank order, then x264.
std::vector<std::string> encoder_order(const std::string &chosen, const std::vector<std::string> &offered);

} // namespace cv
