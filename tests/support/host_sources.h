#pragma once

#include <obs.hpp>

#include <cstdint>
#include <string>
#include <vector>

// Host sources and scenes for tests, built the way a user builds them.
namespace cvtest {

// A solid colour source (0xRRGGBB) of the given size.
OBSSourceAutoRelease make_colour(const std::string &name, uint32_t rgb, uint32_t width, uint32_t height);

// A source with audio (a media source without a file), whose mixer tracks can be set.
OBSSourceAutoRelease make_audio_source(const std::string &name);

// A public host scene (listed like the user's own scenes) of the host canvas's size,
// made of equally wide vertical bands of the given colours, left to right.
OBSSceneAutoRelease make_band_scene(const std::string &name, const std::vector<uint32_t> &colours);
// The same with three bands.
OBSSceneAutoRelease make_three_band_scene(const std::string &name, uint32_t left, uint32_t middle, uint32_t right);

// The items of a scene, in order (borrowed).
std::vector<obs_sceneitem_t *> scene_items(obs_scene_t *scene);

// Whether the last reference to a source is gone, allowing the graphics thread a
// moment to drop one it may hold while it renders.
bool source_released(obs_weak_source_t *weak);

struct Image {
	uint32_t width = 0;
	uint32_t height = 0;
	std::vector<uint8_t> rgba;
	// 0xRRGGBB of one pixel.
	uint32_t rgb(uint32_t x, uint32_t y) const;
};

// Renders a view at the given size into a staging surface and reads it back.
Image render_view(obs_view_t *view, uint32_t width, uint32_t height);

} // namespace cvtest
