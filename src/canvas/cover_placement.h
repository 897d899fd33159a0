#pragma once

#include <cstdint>

namespace cv {

// Where a source goes on the canvas so that it covers the whole canvas: one scale for
// both axes (the larger of the two ratios) and a top-left corner that centres it. The
// overflow on one axis is cut off by the canvas edges, never letterboxed.
struct CoverPlacement {
	float scale = 1.0f;
	float x = 0.0f;
	float y = 0.0f;
};

// A source with a zero side keeps scale 1 and is centred as it is.
CoverPlacement cover_placement(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			       uint32_t source_height);

} // namespace cv
