#pragma once

#include <cstdint>
#include <string>

namespace cv {

// Largest canvas side the host's renderer is asked for.
inline constexpr uint32_t kMaxCanvasSide = 16384;
// Highest frame rate accepted (frames per second).
inline constexpr uint32_t kMaxCanvasFps = 1000;

// Settings files can be edited by hand, so the format is checked before the host
// sees it. Returns an empty string when the format is usable, otherwise a sentence
// saying what is wrong with it.
std::string canvas_format_problem(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den);

} // namespace cv
