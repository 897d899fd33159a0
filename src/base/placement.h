#pragma once

#include "scene_layout.h"

#include <array>
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

// Cover with a focus and a zoom: the cover scale times `zoom`, placed so that the
// source's point (focus_x, focus_y) (fractions of its size) sits at the canvas's centre,
// as far as the source still covers the whole canvas.
CoverPlacement focused_cover(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			     uint32_t source_height, double focus_x, double focus_y, double zoom);

// The focus a drag by (dx, dy) canvas pixels leaves, the picture following the pointer:
// taken from the focus the canvas shows (the asked one as far as it can be reached), in
// [0, 1].
struct Focus {
	double x = 0.5;
	double y = 0.5;
};
Focus dragged_focus(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width, uint32_t source_height,
		    const SceneLayout &layout, double dx, double dy);

// The whole source as large as fits, centred.
CoverPlacement fit_placement(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			     uint32_t source_height);

// A region of the source scaled to cover a part of the canvas: the largest piece of the
// region, centred in it, with the part's aspect, cut out of the source by whole pixels
// (crop from each edge), then scaled (a little differently on each axis where the whole
// pixels need it) and put at the part's corner. A region reaching outside the source is
// held inside it first.
struct RegionPlacement {
	uint32_t crop_left = 0;
	uint32_t crop_top = 0;
	uint32_t crop_right = 0;
	uint32_t crop_bottom = 0;
	float scale_x = 1.0f;
	float scale_y = 1.0f;
	float x = 0.0f;
	float y = 0.0f;
};
struct Part {
	uint32_t x = 0;
	uint32_t y = 0;
	uint32_t width = 0;
	uint32_t height = 0;
};
RegionPlacement region_cover(uint32_t source_width, uint32_t source_height, const Region &region, const Part &part);

// A placement of a source on the canvas with what lies outside the canvas cropped off by
// whole pixels (kept a pixel larger where a pixel is cut), so that the host draws only what
// shows. The same picture as the placement itself.
RegionPlacement visible_part(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			     uint32_t source_height, const CoverPlacement &placement);

// A stack's two parts: the top one `split` of the canvas height (whole pixels), the
// bottom one the rest.
std::array<Part, 2> stack_parts(uint32_t canvas_width, uint32_t canvas_height, double split);

// Where phone apps draw over a vertical video (their header, the column of buttons on
// the right, the caption and profile line at the bottom), as fractions of the canvas.
struct Zone {
	float x = 0.0f;
	float y = 0.0f;
	float width = 0.0f;
	float height = 0.0f;
};
std::array<Zone, 3> safe_area_zones();

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
