#include "cover_placement.h"

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

} // namespace cv
