#pragma once

// Draws a private scene of the vertical canvas straight into a part of the current render
// target, at that part's size: each item's source at its place, cut to its crop by a
// scissor. The host draws a scene inside a scene through a picture of it at the inner
// scene's own size, which for a small preview costs many times the pixels shown; drawn
// this way, what a simple scene costs is the pixels shown.

#include "base/placement.h"

#include <obs.h>

#include <cstdint>

namespace cv {

// Where the canvas goes on the render target, in the target's pixels.
struct ScaledTarget {
	PreviewViewport viewport;
	uint32_t canvas_width = 0;
	uint32_t canvas_height = 0;
};

// Graphics thread, with the canvas's projection set on the viewport. The scene's items
// are as the canvas places them: top-left aligned, scaled, not rotated.
void draw_scene_scaled(obs_scene_t *scene, const ScaledTarget &target);

} // namespace cv
