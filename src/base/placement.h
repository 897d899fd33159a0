#pragma once

#include <cstdint>

// Placement maths: where a source goes on the canvas, and the canvas in a preview.
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

// Where the canvas goes inside a preview display: as large as fits while keeping its
// aspect, centred (letterboxed or pillarboxed).
struct PreviewViewport {
	uint32_t x = 0;
	uint32_t y = 0;
	uint32_t width = 0;
	uint32_t height = 0;
};

// Computed in single precision and truncated, as the preview draws it: a 500 x 500
// display with a 1080 x 1920 canvas gives 281 x 499 at (109, 0). A canvas with a zero
// side gives an empty viewport.
PreviewViewport preview_viewport(uint32_t display_width, uint32_t display_height, uint32_t canvas_width,
				 uint32_t canvas_height);

// The widest the preview may be at a given height: 9:16 of it, truncated.
int preview_width_limit(int height);

} // namespace cv
