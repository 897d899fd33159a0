#pragma once

// The "fit" layout's picture: a private source of the plug-in's own, as large as the
// canvas, that draws either one colour or a blurred, darkened copy of the host scene
// covering the canvas, and over it the whole host scene, as wide (or high) as the canvas.
// The blur runs on a copy an eighth of the canvas's width and height (a shader in the
// plug-in's data); the scene is drawn straight at its fitted size. It holds the host
// scene only weakly.

#include <obs.hpp>

#include <cstdint>

namespace cv {

inline constexpr const char *kBackdropSourceId = "cv_vertical_backdrop";

// A new backdrop, showing black until set.
OBSSourceAutoRelease make_backdrop();
// `host` null or `blur` false: the colour (0xRRGGBB) alone.
void set_backdrop(obs_source_t *backdrop, obs_source_t *host, bool blur, uint32_t rgb, uint32_t canvas_width,
		  uint32_t canvas_height);

} // namespace cv
