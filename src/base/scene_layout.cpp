#include "scene_layout.h"

#include <cctype>
#include <cmath>
#include <cstdio>

namespace cv {

namespace {

bool within(double value, double low, double high)
{
	return std::isfinite(value) && value >= low && value <= high;
}

std::string range(const char *field, const char *low, const char *high)
{
	return std::string(field) + " [" + low + ", " + high + "]";
}

bool region_fits(const Region &region, uint32_t scene_width, uint32_t scene_height)
{
	if (!std::isfinite(region.x) || !std::isfinite(region.y) || !std::isfinite(region.width) ||
	    !std::isfinite(region.height) || region.width < 1 || region.height < 1 || region.x < 0 || region.y < 0)
		return false;
	if (!scene_width || !scene_height)
		return true;
	return region.x + region.width <= scene_width && region.y + region.height <= scene_height;
}

} // namespace

const char *layout_name(LayoutKind kind)
{
	switch (kind) {
	case LayoutKind::Fit:
		return "fit";
	case LayoutKind::Stack:
		return "stack";
	case LayoutKind::Cover:
		break;
	}
	return "cover";
}

std::optional<LayoutKind> layout_kind(const std::string &name)
{
	for (LayoutKind kind : {LayoutKind::Cover, LayoutKind::Fit, LayoutKind::Stack})
		if (name == layout_name(kind))
			return kind;
	return std::nullopt;
}

std::optional<uint32_t> parse_colour(const std::string &text)
{
	if (text.size() != 7 || text[0] != '#')
		return std::nullopt;
	uint32_t rgb = 0;
	for (size_t i = 1; i < text.size(); i++) {
		const auto c = static_cast<unsigned char>(text[i]);
		if (!std::isxdigit(c))
			return std::nullopt;
		rgb = rgb << 4 | uint32_t(std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10);
	}
	return rgb;
}

std::string colour_text(uint32_t rgb)
{
	char text[8];
	std::snprintf(text, sizeof(text), "#%06X", rgb & 0xFFFFFF);
	return text;
}

Region default_top_region(uint32_t scene_width, uint32_t scene_height)
{
	return {0, 0, double(scene_width / 2), double(scene_height)};
}

Region default_bottom_region(uint32_t scene_width, uint32_t scene_height)
{
	return {double(scene_width / 2), 0, double(scene_width - scene_width / 2), double(scene_height)};
}

Region top_region(const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height)
{
	return layout.top.empty() ? default_top_region(scene_width, scene_height) : layout.top;
}

Region bottom_region(const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height)
{
	return layout.bottom.empty() ? default_bottom_region(scene_width, scene_height) : layout.bottom;
}

Error layout_problem(const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height)
{
	if (!within(layout.focus_x, 0, 1))
		return {ErrorCode::OutOfRange, range("focusX", "0", "1")};
	if (!within(layout.focus_y, 0, 1))
		return {ErrorCode::OutOfRange, range("focusY", "0", "1")};
	if (!within(layout.zoom, kMinZoom, kMaxZoom))
		return {ErrorCode::OutOfRange, range("zoom", "1", "4")};
	if (!within(layout.split, kMinSplit, kMaxSplit))
		return {ErrorCode::OutOfRange, range("split", "0.2", "0.8")};
	if (layout.background != kBlurBackground && !parse_colour(layout.background))
		return {ErrorCode::BadColour, layout.background};
	// An empty region is the default one; anything else has to lie inside the scene.
	if (!(layout.top == Region{}) && !region_fits(layout.top, scene_width, scene_height))
		return {ErrorCode::RegionOutsideScene, "top"};
	if (!(layout.bottom == Region{}) && !region_fits(layout.bottom, scene_width, scene_height))
		return {ErrorCode::RegionOutsideScene, "bottom"};
	return {};
}

SceneLayout sanitized(const SceneLayout &layout)
{
	const SceneLayout defaults;
	SceneLayout clean = layout;
	if (!within(clean.focus_x, 0, 1))
		clean.focus_x = defaults.focus_x;
	if (!within(clean.focus_y, 0, 1))
		clean.focus_y = defaults.focus_y;
	if (!within(clean.zoom, kMinZoom, kMaxZoom))
		clean.zoom = defaults.zoom;
	if (!within(clean.split, kMinSplit, kMaxSplit))
		clean.split = defaults.split;
	if (clean.background != kBlurBackground && !parse_colour(clean.background))
		clean.background = defaults.background;
	for (Region *region : {&clean.top, &clean.bottom})
		if (!region_fits(*region, 0, 0))
			*region = Region{};
	return clean;
}

} // namespace cv
