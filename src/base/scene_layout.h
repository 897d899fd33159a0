#pragma once

// How a vertical scene frames its host scene on the canvas, and how the canvas moves
// from one vertical scene to the next. Plain records with their rules; the canvas
// builds the picture from them.

#include "errors.h"

#include <cstdint>
#include <optional>
#include <string>

namespace cv {

enum class LayoutKind {
	// The host scene scaled to cover the canvas: the point (focus_x, focus_y) of it at
	// the canvas's centre as far as no empty edge shows, `zoom` times closer.
	Cover,
	// The whole host scene, as wide (or high) as the canvas, centred on `background`.
	Fit,
	// Two regions of the host scene above each other, each covering its part.
	Stack,
};

// A rectangle of the host scene, in its own pixels.
struct Region {
	double x = 0;
	double y = 0;
	double width = 0;
	double height = 0;
	bool operator==(const Region &other) const
	{
		return x == other.x && y == other.y && width == other.width && height == other.height;
	}
	bool empty() const { return width <= 0 || height <= 0; }
};

inline constexpr double kMinZoom = 1.0;
inline constexpr double kMaxZoom = 4.0;
inline constexpr double kMinSplit = 0.2;
inline constexpr double kMaxSplit = 0.8;
inline constexpr const char *kBlurBackground = "blur";

struct SceneLayout {
	LayoutKind kind = LayoutKind::Cover;
	double focus_x = 0.5;
	double focus_y = 0.5;
	double zoom = 1.0;
	// "blur", or a colour "#RRGGBB".
	std::string background = kBlurBackground;
	// Empty regions stand for their defaults, which depend on the host scene's size.
	Region top;
	Region bottom;
	double split = 0.5;

	bool operator==(const SceneLayout &other) const
	{
		return kind == other.kind && focus_x == other.focus_x && focus_y == other.focus_y &&
		       zoom == other.zoom && background == other.background && top == other.top &&
		       bottom == other.bottom && split == other.split;
	}
	bool operator!=(const SceneLayout &other) const { return !(*this == other); }
};

// "cover", "fit", "stack".
const char *layout_name(LayoutKind kind);
std::optional<LayoutKind> layout_kind(const std::string &name);

// "#RRGGBB" (either case) as 0xRRGGBB; nothing for anything else.
std::optional<uint32_t> parse_colour(const std::string &text);
std::string colour_text(uint32_t rgb);

// The regions a stack shows before any was drawn: the host scene's left and right halves.
Region default_top_region(uint32_t scene_width, uint32_t scene_height);
Region default_bottom_region(uint32_t scene_width, uint32_t scene_height);
// The layout's regions, its empty ones replaced by their defaults.
Region top_region(const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height);
Region bottom_region(const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height);

// Why a layout cannot be used: a number out of its range or not a number at all, a
// malformed background, a region outside a host scene of that size (not checked with a
// zero size) or without area. Fields of other layouts are checked too: they are kept.
Error layout_problem(const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height);
// A layout read from a hand-edited file: every value that cannot be used replaced by its
// default. Regions are left to the canvas, which knows the scene's size.
SceneLayout sanitized(const SceneLayout &layout);

// What the canvas does when its scene changes: one of the host's transition types, by id.
inline constexpr uint32_t kMinTransitionMs = 50;
inline constexpr uint32_t kMaxTransitionMs = 20000;
inline constexpr const char *kCutTransition = "cut_transition";

struct TransitionSettings {
	std::string kind = "fade_transition";
	uint32_t duration_ms = 300;
	bool operator==(const TransitionSettings &other) const
	{
		return kind == other.kind && duration_ms == other.duration_ms;
	}
};

} // namespace cv
