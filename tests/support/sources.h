#pragma once

#include <obs.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Host sources and scenes for tests, built the way a user builds them, and what a view
// shows.
namespace cvtest {

// A solid colour source (0xRRGGBB) of the given size.
OBSSourceAutoRelease make_colour(const std::string &name, uint32_t rgb, uint32_t width, uint32_t height);

// A public host scene of the host canvas's size, made of equally wide vertical bands of
// the given colours, left to right.
OBSSceneAutoRelease make_band_scene(const std::string &name, const std::vector<uint32_t> &colours);
// The same with rows of cells, top to bottom.
OBSSceneAutoRelease make_grid_scene(const std::string &name, const std::vector<std::vector<uint32_t>> &rows);

struct Image {
	uint32_t width = 0;
	uint32_t height = 0;
	std::vector<uint8_t> rgba;
	uint32_t rgb(uint32_t x, uint32_t y) const; // 0xRRGGBB
};

// Renders what `draw` draws at the given size and reads it back.
Image render(const std::function<void()> &draw, uint32_t width, uint32_t height);

// Whether two colours are the same but for compression and rounding.
bool close_to(uint32_t seen, uint32_t expected);

} // namespace cvtest
