#include "base/canvas_format.h"
#include "base/placement.h"

#include <gtest/gtest.h>

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
