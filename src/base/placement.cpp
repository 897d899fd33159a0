#include "placement.h"

#include <algorithm>

namespace cv {

CoverPlacement cover_placement(uint32_t canvas_width, uint32_t canvas_height, uint32_t source_width,
			       uint32_t source_height)
{
	CoverPlacement placement;
	if (source_width && source_height)
		placement.scale = std::max(float(canvas_height) / float(source_height),
					   float(canvas_width) / float(source_width));
	placement.x = (float(canvas_width) - float(source_width) * placement.scale) * 0.5f;
	placement.y = (float(canvas_height) - float(source_height) * placement.scale) * 0.5f;
	return placement;
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
