#include "base/canvas_format.h"
#include "base/placement.h"

#include <gtest/gtest.h>

#include <vector>

TEST(Placement, CanvasFormatsThatHandEditedFilesCanHold)
{
	const struct {
		uint32_t width, height, fps_num, fps_den;
		bool usable;
	} cases[] = {
		{1080, 1920, 30, 1, true},           {720, 1280, 30000, 1001, true}, {16384, 16384, 1000, 1, true},
		{1080, 1920, 1, 1000, true},         {0, 1920, 30, 1, false},        {1080, 0, 30, 1, false},
		{1080, 1920, 0, 1, false},           {1080, 1920, 30, 0, false},     {uint32_t(-5), 1920, 30, 1, false},
		{1080, 16385, 30, 1, false},         {1080, 1920, 1001, 1, false},   {1080, 1920, 1, 1001, false},
		{1080, 1920, 4294967295u, 4294967, false},
	};
	for (const auto &c : cases)
		EXPECT_EQ(cv::canvas_format_problem(c.width, c.height, c.fps_num, c.fps_den).empty(), c.usable)
			<< c.width << "x" << c.height << " @ " << c.fps_num << "/" << c.fps_den;
}

// A source covers the whole canvas, centred, the overflow cut on one axis.
TEST(Placement, SourcesCoverTheCanvas)
{
	const struct {
		uint32_t canvas_width, canvas_height, source_width, source_height;
		float scale, x, y;
	} cases[] = {
		{1080, 1920, 1920, 1080, 1920.0f / 1080.0f, -1166.6667f, 0.0f}, // cut left and right
		{1080, 1920, 1080, 1920, 1.0f, 0.0f, 0.0f},
		{1080, 1920, 540, 1200, 2.0f, 0.0f, -240.0f}, // taller: cut top and bottom
		{1080, 1920, 0, 0, 1.0f, 540.0f, 960.0f},      // no size: left as it is, centred
		{1080, 1920, 100, 0, 1.0f, 490.0f, 960.0f},
	};
	for (const auto &c : cases) {
		const cv::CoverPlacement p =
			cv::cover_placement(c.canvas_width, c.canvas_height, c.source_width, c.source_height);
		EXPECT_NEAR(p.scale, c.scale, 1e-4) << c.source_width << "x" << c.source_height;
		EXPECT_NEAR(p.x, c.x, 1e-2) << c.source_width << "x" << c.source_height;
		EXPECT_NEAR(p.y, c.y, 1e-2) << c.source_width << "x" << c.source_height;
	}
}

// The canvas as large as fits in the preview, centred, computed as the preview draws it.
TEST(Placement, PreviewLetterboxesTheCanvas)
{
	const struct {
		uint32_t display_width, display_height, canvas_width, canvas_height, x, y, width, height;
	} cases[] = {
		{500, 500, 1080, 1920, 109, 0, 281, 499}, // 0.26041666 * 1920 truncates to 499
		{1080, 1920, 1080, 1920, 0, 0, 1080, 1920},
		{270, 1000, 1080, 1920, 0, 260, 270, 480},
		{500, 500, 0, 1920, 0, 0, 0, 0},
	};
	for (const auto &c : cases) {
		const cv::PreviewViewport v =
			cv::preview_viewport(c.display_width, c.display_height, c.canvas_width, c.canvas_height);
		EXPECT_EQ((std::vector<uint32_t>{v.x, v.y, v.width, v.height}),
			  (std::vector<uint32_t>{c.x, c.y, c.width, c.height}))
			<< c.display_width << "x" << c.display_height;
	}
	EXPECT_EQ(cv::preview_width_limit(320), 180);
	EXPECT_EQ(cv::preview_width_limit(16777215), 9437183) << "no overflow";
}
