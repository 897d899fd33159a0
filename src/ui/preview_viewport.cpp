#include "preview_viewport.h"

#include <algorithm>

namespace cv {

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
