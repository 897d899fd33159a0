#include "scaled_draw.h"

#include <graphics/graphics.h>

#include <algorithm>
#include <cmath>

namespace cv {

namespace {

bool draw_item(obs_scene_t *, obs_sceneitem_t *item, void *param)
{
	const ScaledTarget &map = *static_cast<const ScaledTarget *>(param);
	obs_source_t *source = obs_sceneitem_get_source(item);
	const uint32_t width = obs_source_get_width(source), height = obs_source_get_height(source);
	if (!obs_sceneitem_visible(item) || !width || !height)
		return true;
	vec2 pos, scale;
	obs_sceneitem_get_pos(item, &pos);
	obs_sceneitem_get_scale(item, &scale);
	obs_sceneitem_crop crop = {};
	obs_sceneitem_get_crop(item, &crop);
	const float shown_width = float(int(width) - crop.left - crop.right) * scale.x;
	const float shown_height = float(int(height) - crop.top - crop.bottom) * scale.y;
	if (shown_width <= 0.0f || shown_height <= 0.0f)
		return true;
	// The shown part in the target's pixels. On a display (no render target) GL counts a
	// scissor's rows from the bottom, which libobs turns around for viewports only.
	const float fx = float(map.viewport.width) / float(map.canvas_width);
	const float fy = float(map.viewport.height) / float(map.canvas_height);
	const float left = std::max(float(map.viewport.x) + pos.x * fx, float(map.viewport.x));
	const float top = std::max(float(map.viewport.y) + pos.y * fy, float(map.viewport.y));
	const float right = std::min(float(map.viewport.x) + (pos.x + shown_width) * fx,
				     float(map.viewport.x + map.viewport.width));
	const float bottom = std::min(float(map.viewport.y) + (pos.y + shown_height) * fy,
				      float(map.viewport.y + map.viewport.height));
	if (right - left < 0.5f || bottom - top < 0.5f)
		return true;
	gs_rect rect;
	rect.x = int(std::lround(left));
	rect.cx = std::max(int(std::lround(right)) - rect.x, 1);
	rect.cy = std::max(int(std::lround(bottom)) - int(std::lround(top)), 1);
	rect.y = int(std::lround(top));
	if (!gs_get_render_target()) {
		uint32_t display_width = 0, display_height = 0;
		gs_get_size(&display_width, &display_height);
		rect.y = int(display_height) - rect.y - rect.cy;
	}
	gs_set_scissor_rect(&rect);
	gs_matrix_push();
	gs_matrix_translate3f(pos.x - float(crop.left) * scale.x, pos.y - float(crop.top) * scale.y, 0.0f);
	gs_matrix_scale3f(scale.x, scale.y, 1.0f);
	obs_source_video_render(source);
	gs_matrix_pop();
	gs_set_scissor_rect(nullptr);
	return true;
}

} // namespace

void draw_scene_scaled(obs_scene_t *scene, const ScaledTarget &target)
{
	if (!scene || !target.canvas_width || !target.canvas_height || !target.viewport.width ||
	    !target.viewport.height)
		return;
	obs_scene_enum_items(scene, draw_item, const_cast<ScaledTarget *>(&target));
}

} // namespace cv
