#include "sources.h"

#include <graphics/vec4.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace cvtest {

OBSSourceAutoRelease make_colour(const std::string &name, uint32_t rgb, uint32_t width, uint32_t height)
{
	OBSDataAutoRelease settings = obs_data_create();
	// The host stores colours as 0xAABBGGRR.
	const uint32_t abgr = 0xFF000000u | ((rgb & 0xFF) << 16) | (rgb & 0xFF00) | ((rgb >> 16) & 0xFF);
	obs_data_set_int(settings, "color", abgr);
	obs_data_set_int(settings, "width", width);
	obs_data_set_int(settings, "height", height);
	return obs_source_create("color_source_v3", name.c_str(), settings, nullptr);
}

OBSSceneAutoRelease make_grid_scene(const std::string &name, const std::vector<std::vector<uint32_t>> &rows)
{
	obs_video_info ovi = {};
	obs_get_video_info(&ovi);
	OBSSceneAutoRelease scene = obs_scene_create(name.c_str());
	// Equal parts, the last one taking what the division leaves.
	auto part = [](uint32_t whole, size_t count, size_t i) {
		const uint32_t size = whole / uint32_t(count);
		return std::pair<uint32_t, uint32_t>(uint32_t(i) * size,
						     i + 1 < count ? size : whole - uint32_t(i) * size);
	};
	for (size_t r = 0; r < rows.size(); r++) {
		const auto [y, height] = part(ovi.base_height, rows.size(), r);
		for (size_t c = 0; c < rows[r].size(); c++) {
			const auto [x, width] = part(ovi.base_width, rows[r].size(), c);
			OBSSourceAutoRelease cell =
				make_colour(name + " cell " + std::to_string(r) + "," + std::to_string(c), rows[r][c],
					    width, height);
			obs_sceneitem_t *item = obs_scene_add(scene, cell);
			vec2 pos;
			vec2_set(&pos, float(x), float(y));
			obs_sceneitem_set_pos(item, &pos);
		}
	}
	return scene;
}

OBSSceneAutoRelease make_band_scene(const std::string &name, const std::vector<uint32_t> &colours)
{
	return make_grid_scene(name, {colours});
}

uint32_t Image::rgb(uint32_t x, uint32_t y) const
{
	const uint8_t *p = &rgba[(size_t(y) * width + x) * 4];
	return (uint32_t(p[0]) << 16) | (uint32_t(p[1]) << 8) | p[2];
}

Image render(const std::function<void()> &draw, uint32_t width, uint32_t height)
{
	Image image;
	obs_enter_graphics();
	gs_texrender_t *texrender = gs_texrender_create(GS_RGBA, GS_ZS_NONE);
	gs_stagesurf_t *stage = gs_stagesurface_create(width, height, GS_RGBA);
	if (gs_texrender_begin(texrender, width, height)) {
		vec4 clear;
		vec4_zero(&clear);
		gs_clear(GS_CLEAR_COLOR, &clear, 0.0f, 0);
		gs_ortho(0.0f, float(width), 0.0f, float(height), -100.0f, 100.0f);
		gs_blend_state_push();
		gs_blend_function(GS_BLEND_ONE, GS_BLEND_ZERO);
		draw();
		gs_blend_state_pop();
		gs_texrender_end(texrender);

		gs_stage_texture(stage, gs_texrender_get_texture(texrender));
		uint8_t *data = nullptr;
		uint32_t linesize = 0;
		if (gs_stagesurface_map(stage, &data, &linesize)) {
			image.width = width;
			image.height = height;
			image.rgba.resize(size_t(width) * height * 4);
			for (uint32_t y = 0; y < height; y++)
				memcpy(&image.rgba[size_t(y) * width * 4], data + size_t(y) * linesize,
				       size_t(width) * 4);
			gs_stagesurface_unmap(stage);
		}
	}
	gs_stagesurface_destroy(stage);
	gs_texrender_destroy(texrender);
	obs_leave_graphics();
	return image;
}

bool close_to(uint32_t seen, uint32_t expected)
{
	for (int shift : {0, 8, 16})
		if (std::abs(int((seen >> shift) & 0xFF) - int((expected >> shift) & 0xFF)) > 48)
			return false;
	return true;
}

} // namespace cvtest
