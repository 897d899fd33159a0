#include "canvas_format.h"

namespace cv {

std::string canvas_format_problem(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den)
{
	if (width == 0 || height == 0)
		return "width and height must not be zero";
	if (width > kMaxCanvasSide || height > kMaxCanvasSide)
		return "width and height must not exceed " + std::to_string(kMaxCanvasSide) + " pixels";
	if (fps_num == 0 || fps_den == 0)
		return "frame rate numerator and denominator must not be zero";
	// Compared in 64 bits: fps_num / fps_den must lie between 1/1000 and 1000 frames per second.
	if (uint64_t(fps_num) > uint64_t(fps_den) * kMaxCanvasFps)
		return "frame rate must not exceed " + std::to_string(kMaxCanvasFps) + " fps";
	if (uint64_t(fps_den) > uint64_t(fps_num) * kMaxCanvasFps)
		return "frame rate must be at least one frame every " + std::to_string(kMaxCanvasFps) + " seconds";
	return {};
}

} // namespace cv
