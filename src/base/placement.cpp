#include "placement.h"

#include <algorithm>
#include <cmath>

namespace cv {

namespace {

// The source scaled by the larger (`cover`) or smaller of the two ratios, centred.
CoverPlacement centred(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width, uint32_t source_height,
		       bool cover)
{
	CoverPlacement placement;
	if (source_width && source_height) {
		const float across = float(canvas_width) / float(source_width);
		const float down = float(canvas_height) / float(source_height);
		placement.scale = cover ? std::max(down, across) : std::min(down, across);
	}
	placement.x = (float(canvas_width) - float(source_width) * placement.scale) * 0.5f;
	placement.y = (float(canvas_height) - float(source_height) * placement.scale) * 0.5f;
	return placement;
}

} // namespace

CoverPlacement cover_placement(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			       uint32_t source_height)
{
	return centred(canvas_width, canvas_height, source_width, source_height, true);
}

CoverPlacement focused_cover(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			     uint32_t source_height, double focus_x, double focus_y, double zoom)
{
	CoverPlacement placement = cover_placement(canvas_width, canvas_height, source_width, source_height);
	if (!source_width || !source_height)
		return placement;
	placement.scale *= float(std::clamp(zoom, kMinZoom, kMaxZoom));
	auto axis = [](uint32_t canvas, uint32_t source, float scale, double focus) {
		const float scaled = float(source) * scale;
		const float at = float(canvas) * 0.5f - float(std::clamp(focus, 0.0, 1.0)) * scaled;
		// Never an empty edge: the picture's far edge stays at or beyond the canvas's.
		return std::clamp(at, std::min(float(canvas) - scaled, 0.0f), 0.0f);
	};
	placement.x = axis(canvas_width, source_width, placement.scale, focus_x);
	placement.y = axis(canvas_height, source_height, placement.scale, focus_y);
	return placement;
}

Focus dragged_focus(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width, uint32_t source_height,
		    const SceneLayout &layout, double dx, double dy)
{
	Focus focus{layout.focus_x, layout.focus_y};
	if (!source_width || !source_height)
		return focus;
	const CoverPlacement shown = focused_cover(canvas_width, canvas_height, source_width, source_height,
						   layout.focus_x, layout.focus_y, layout.zoom);
	// The point at the canvas's centre now, moved against the drag; on an axis where the
	// picture cannot move (it just covers the canvas), the focus stays as it was.
	auto axis = [](double canvas, double scaled, double at, double delta, double asked) {
		if (scaled <= canvas + 0.5)
			return asked;
		return std::clamp((canvas * 0.5 - at - delta) / scaled, 0.0, 1.0);
	};
	focus.x = axis(canvas_width, double(source_width) * shown.scale, shown.x, dx, layout.focus_x);
	focus.y = axis(canvas_height, double(source_height) * shown.scale, shown.y, dy, layout.focus_y);
	return focus;
}

CoverPlacement fit_placement(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			     uint32_t source_height)
{
	return centred(canvas_width, canvas_height, source_width, source_height, false);
}

RegionPlacement region_cover(uint32_t source_width, uint32_t source_height, const Region &region, const Part &part)
{
	RegionPlacement placement;
	placement.x = float(part.x);
	placement.y = float(part.y);
	if (!source_width || !source_height || !part.width || !part.height)
		return placement;
	// Held inside the source, at least a pixel.
	const double sw = source_width, sh = source_height;
	const double left = std::clamp(region.x, 0.0, sw - 1), top = std::clamp(region.y, 0.0, sh - 1);
	double width = std::clamp(region.width, 1.0, sw - left);
	double height = std::clamp(region.height, 1.0, sh - top);
	// The part's aspect, centred in the region.
	const double aspect = double(part.width) / double(part.height);
	double x = left, y = top;
	if (width / height > aspect) {
		const double narrower = height * aspect;
		x += (width - narrower) * 0.5;
		width = narrower;
	} else {
		const double lower = width / aspect;
		y += (height - lower) * 0.5;
		height = lower;
	}
	const auto x0 = uint32_t(std::lround(x)), y0 = uint32_t(std::lround(y));
	const auto x1 = std::max(uint32_t(std::lround(x + width)), x0 + 1);
	const auto y1 = std::max(uint32_t(std::lround(y + height)), y0 + 1);
	placement.crop_left = x0;
	placement.crop_top = y0;
	placement.crop_right = source_width - std::min(x1, source_width);
	placement.crop_bottom = source_height - std::min(y1, source_height);
	placement.scale_x = float(part.width) / float(source_width - placement.crop_left - placement.crop_right);
	placement.scale_y = float(part.height) / float(source_height - placement.crop_top - placement.crop_bottom);
	return placement;
}

RegionPlacement visible_part(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			     uint32_t source_height, const CoverPlacement &placement)
{
	RegionPlacement part;
	part.scale_x = part.scale_y = placement.scale;
	part.x = placement.x;
	part.y = placement.y;
	if (!source_width || !source_height || placement.scale <= 0.0f)
		return part;
	auto axis = [&](uint32_t canvas, uint32_t source, float at, uint32_t *near, uint32_t *far, float *moved) {
		const double first = std::floor(std::max(0.0, -double(at) / placement.scale));
		const double last = std::ceil(std::min(double(source), (double(canvas) - at) / placement.scale));
		if (last <= first + 1)
			return;
		*near = uint32_t(first);
		*far = source - uint32_t(last);
		*moved = at + float(first) * placement.scale;
	};
	axis(canvas_width, source_width, placement.x, &part.crop_left, &part.crop_right, &part.x);
	axis(canvas_height, source_height, placement.y, &part.crop_top, &part.crop_bottom, &part.y);
	return part;
}

std::array<Part, 2> stack_parts(uint32_t canvas_width, uint32_t canvas_height, double split)
{
	const auto top = uint32_t(std::lround(double(canvas_height) * std::clamp(split, kMinSplit, kMaxSplit)));
	return {Part{0, 0, canvas_width, top}, Part{0, top, canvas_width, canvas_height - top}};
}

std::array<Zone, 3> safe_area_zones()
{
	return {Zone{0.0f, 0.0f, 1.0f, 0.1f}, Zone{0.86f, 0.4f, 0.14f, 0.4f}, Zone{0.0f, 0.8f, 1.0f, 0.2f}};
}

PreviewViewport preview_viewport(uint32_t display_width, uint32_t display_height, uint32_t canvas_width,
				 uint32_t canvas_height)
{
	PreviewViewport viewport;
	if (!canvas_width || !canvas_height)
		return viewport;
	const float scale =
		std::min(float(display_width) / float(canvas_width), float(display_height) / float(canvas_height));
	viewport.width = uint32_t(scale * float(canvas_width));
	viewport.height = uint32_t(scale * float(canvas_height));
	viewport.x = (display_width - viewport.width) >> 1;
	viewport.y = (display_height - viewport.height) >> 1;
	return viewport;
}

int preview_width_limit(int height)
{
	return int(int64_t(height) * 9 / 16);
}

} // namespace cv
