#include "base/canvas_format.h"
#include "base/placement.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

TEST(Placement, CanvasFormatsThatHandEditedFilesCanHold)
{
	const struct {
		uint32_t width, height, fps_num, fps_den;
		bool usable;
	} cases[] = {
		{1080, 1920, 30, 1, true},         {720, 1280, 30000, 1001, true},   {16384, 16384, 1000, 1, true},
		{1080, 1920, 1, 1000, true},       {0, 1920, 30, 1, false},          {1080, 0, 30, 1, false},
		{1080, 1920, 0, 1, false},         {1080, 1920, 30, 0, false},       {uint32_t(-5), 1920, 30, 1, false},
		{1080, 16385, 30, 1, false},       {1080, 1920, 1001, 1, false},     {1080, 1920, 1, 1001, false},
		{1080, 1920, ~0u, 4294967, false}, {1080, 1920, ~0u, 4294968, true}, {1080, 1920, 4294968, ~0u, true},
	};
	for (const auto &c : cases)
		EXPECT_EQ(cv::canvas_format_problem(c.width, c.height, c.fps_num, c.fps_den).empty(), c.usable)
			<< c.width << "x" << c.height << " @ " << c.fps_num << "/" << c.fps_den;
}

// A source covers the whole 1080 x 1920 canvas, centred, the overflow cut on one axis.
TEST(Placement, SourcesCoverTheCanvas)
{
	const struct {
		uint32_t width, height;
		float scale, x, y;
	} cases[] = {
		{1920, 1080, 1920.0f / 1080.0f, -1166.6667f, 0.0f}, // cut left and right
		{1080, 1920, 1.0f, 0.0f, 0.0f},
		{540, 1200, 2.0f, 0.0f, -240.0f}, // taller: cut top and bottom
		{0, 0, 1.0f, 540.0f, 960.0f},     // no size: left as it is, centred
		{100, 0, 1.0f, 490.0f, 960.0f},
	};
	for (const auto &c : cases) {
		const cv::CoverPlacement p = cv::cover_placement(1080, 1920, c.width, c.height);
		EXPECT_NEAR(p.scale, c.scale, 1e-4) << c.width << "x" << c.height;
		EXPECT_NEAR(p.x, c.x, 1e-2) << c.width << "x" << c.height;
		EXPECT_NEAR(p.y, c.y, 1e-2) << c.width << "x" << c.height;
	}
}

// The canvas as large as fits in the preview, centred, computed as the preview draws it.
TEST(Placement, PreviewLetterboxesTheCanvas)
{
	const struct {
		uint32_t display_w, display_h, canvas_w, canvas_h, x, y, w, h;
	} cases[] = {
		{500, 500, 1080, 1920, 109, 0, 281, 499}, // 0.26041666 * 1920 truncates to 499
		{1080, 1920, 1080, 1920, 0, 0, 1080, 1920},
		{270, 1000, 1080, 1920, 0, 260, 270, 480},
		{500, 500, 0, 1920, 0, 0, 0, 0},
		{500, 500, 1080, 0, 0, 0, 0, 0},
	};
	for (const auto &c : cases) {
		const cv::PreviewViewport v = cv::preview_viewport(c.display_w, c.display_h, c.canvas_w, c.canvas_h);
		EXPECT_EQ(std::tie(v.x, v.y, v.width, v.height), std::tie(c.x, c.y, c.w, c.h)) << "row " << &c - cases;
	}
	EXPECT_EQ(cv::preview_width_limit(320), 180);
	EXPECT_EQ(cv::preview_width_limit(2147483647), 1207959551) << "no overflow";
}

// The point in focus sits at the canvas's centre as far as no empty edge shows, zoomed;
// a drag moves the picture with the pointer, from the focus the canvas shows.
TEST(Placement, FocusZoomAndDrag)
{
	const struct {
		double focus_x, focus_y, zoom;
		float scale, x, y;
	} cases[] = {
		{0.5, 0.5, 1, 1920.0f / 1080.0f, -1166.67f, 0.0f},
		{0.0, 0.5, 1, 1920.0f / 1080.0f, 0.0f, 0.0f},          // left edge: held at the scene's edge
		{1.0, 0.5, 1, 1920.0f / 1080.0f, -2333.33f, 0.0f},     // right edge
		{0.5, 0.0, 2, 3840.0f / 1080.0f, -2873.33f, 0.0f},     // top edge, zoomed
		{0.5, 1.0, 2, 3840.0f / 1080.0f, -2873.33f, -1920.0f}, // bottom edge
		{0.9, 0.1, 9, 7680.0f / 1080.0f, -11748.0f, 0.0f},     // zoom held at 4
	};
	for (const auto &c : cases) {
		const cv::CoverPlacement p = cv::focused_cover(1080, 1920, 1920, 1080, c.focus_x, c.focus_y, c.zoom);
		EXPECT_NEAR(p.scale, c.scale, 1e-3) << c.focus_x << "," << c.focus_y;
		EXPECT_NEAR(p.x, c.x, 0.5) << c.focus_x << "," << c.focus_y;
		EXPECT_NEAR(p.y, c.y, 0.5) << c.focus_x << "," << c.focus_y;
	}
	// Cut to what shows: the same picture, drawn from a part of the source no larger than
	// the canvas (at zoom 1, the middle 607 of 1920 columns).
	const cv::CoverPlacement middle = cv::focused_cover(1080, 1920, 1920, 1080, 0.5, 0.5, 1);
	const cv::RegionPlacement shown = cv::visible_part(1080, 1920, 1920, 1080, middle);
	EXPECT_EQ(std::tie(shown.crop_left, shown.crop_right, shown.crop_top, shown.crop_bottom),
		  std::make_tuple(656u, 656u, 0u, 0u));
	EXPECT_NEAR(shown.x, middle.x + 656 * middle.scale, 1e-2);

	cv::SceneLayout layout;
	// 100 canvas pixels right shows what was 100 / 1.78 scene pixels further left.
	layout.focus_y = 0.3;
	cv::Focus moved = cv::dragged_focus(1080, 1920, 1920, 1080, layout, 100, 40);
	EXPECT_NEAR(moved.x, 0.5 - 100 / (1920 * 1920.0 / 1080), 1e-6);
	EXPECT_EQ(moved.y, 0.3) << "no room to move up or down: kept";
	// From a focus past what can be shown, a drag starts where the picture is.
	layout.focus_x = 0.0;
	moved = cv::dragged_focus(1080, 1920, 1920, 1080, layout, -10, 0);
	EXPECT_NEAR(moved.x, (540.0 + 10) / 3413.33, 1e-4);
	EXPECT_EQ(cv::dragged_focus(1080, 1920, 1920, 1080, layout, 1e6, -1e6).x, 0.0);
}

// A region cut out by whole pixels with the part's aspect, centred in it, and scaled to
// cover the part; a region reaching past the scene is held inside it.
TEST(Placement, StackRegionsCoverTheirParts)
{
	const auto parts = cv::stack_parts(1080, 1920, 0.3);
	EXPECT_EQ(parts[0].height, 576u);
	EXPECT_EQ(parts[1].y, 576u);
	EXPECT_EQ(parts[1].height, 1344u);
	EXPECT_EQ(cv::stack_parts(1080, 1920, 0.05)[0].height, 384u) << "held at 0.2";

	const struct {
		cv::Region region;
		uint32_t left, top, right, bottom;
	} cases[] = {
		// 960 x 540 is wider than 1080:960, so it loses width on both sides.
		{{960, 540, 960, 540}, 1136, 540, 176, 0},
		// Taller than the part: loses height, top and bottom.
		{{0, 0, 300, 1080}, 0, 407, 1620, 407},
		// Reaching past the right and bottom edges.
		{{1800, 1000, 500, 500}, 1815, 1000, 15, 0},
	};
	for (const auto &c : cases) {
		const cv::RegionPlacement p = cv::region_cover(1920, 1080, c.region, {0, 960, 1080, 960});
		EXPECT_EQ(std::tie(p.crop_left, p.crop_top, p.crop_right, p.crop_bottom),
			  std::tie(c.left, c.top, c.right, c.bottom))
			<< c.region.x << "," << c.region.y;
		const uint32_t width = 1920 - p.crop_left - p.crop_right, height = 1080 - p.crop_top - p.crop_bottom;
		EXPECT_NEAR(p.scale_x * float(width), 1080.0f, 1e-2);
		EXPECT_NEAR(p.scale_y * float(height), 960.0f, 1e-2);
		EXPECT_EQ(p.y, 960.0f);
	}
}

// What a client or a hand-edited file may give: each value out of its range, a malformed
// colour, a region outside the scene is refused by name, and read from a file replaced
// by its default.
TEST(Placement, LayoutValuesAreCheckedAndSanitized)
{
	const struct {
		void (*edit)(cv::SceneLayout &);
		cv::ErrorCode code;
		const char *detail;
	} cases[] = {
		{[](cv::SceneLayout &) {}, cv::ErrorCode::None, ""},
		{[](cv::SceneLayout &l) { l.focus_x = -0.1; }, cv::ErrorCode::OutOfRange, "focusX [0, 1]"},
		{[](cv::SceneLayout &l) { l.focus_y = std::nan(""); }, cv::ErrorCode::OutOfRange, "focusY [0, 1]"},
		{[](cv::SceneLayout &l) { l.zoom = 4.01; }, cv::ErrorCode::OutOfRange, "zoom [1, 4]"},
		{[](cv::SceneLayout &l) { l.split = 0.9; }, cv::ErrorCode::OutOfRange, "split [0.2, 0.8]"},
		{[](cv::SceneLayout &l) { l.background = "#12345"; }, cv::ErrorCode::BadColour, "#12345"},
		{[](cv::SceneLayout &l) { l.background = "#12345g"; }, cv::ErrorCode::BadColour, "#12345g"},
		{[](cv::SceneLayout &l) { l.background = "#a0B0c0"; }, cv::ErrorCode::None, ""},
		{[](cv::SceneLayout &l) {
			 l.top = {1000, 0, 921, 100};
		 },
		 cv::ErrorCode::RegionOutsideScene, "top"},
		{[](cv::SceneLayout &l) {
			 l.bottom = {0, -1, 10, 10};
		 },
		 cv::ErrorCode::RegionOutsideScene, "bottom"},
		{[](cv::SceneLayout &l) {
			 l.bottom = {0, 0, 0.5, 10};
		 },
		 cv::ErrorCode::RegionOutsideScene, "bottom"},
		{[](cv::SceneLayout &l) {
			 l.top = {0, 0, 1920, 1080};
		 },
		 cv::ErrorCode::None, ""},
	};
	for (const auto &c : cases) {
		cv::SceneLayout layout;
		c.edit(layout);
		const cv::Error error = cv::layout_problem(layout, 1920, 1080);
		EXPECT_EQ(error.code, c.code) << c.detail;
		EXPECT_EQ(error.detail, c.detail);
		const cv::SceneLayout clean = cv::sanitized(layout);
		if (error && error.code != cv::ErrorCode::RegionOutsideScene) {
			EXPECT_EQ(cv::layout_problem(clean, 1920, 1080), cv::Error()) << c.detail;
		}
	}
	EXPECT_EQ(cv::parse_colour("#a0B0c0"), 0xA0B0C0u);
	EXPECT_EQ(cv::colour_text(0xA0B0C0), "#A0B0C0");
}
