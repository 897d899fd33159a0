#include "ui/preview_viewport.h"

#include <gtest/gtest.h>

namespace {

struct ViewportCase {
	uint32_t cx, cy, w, h;
	uint32_t x, y, vw, vh;
};

} // namespace

TEST(PreviewViewport, FitsTheCanvasCentredInSinglePrecision)
{
	const ViewportCase cases[] = {
		{500, 500, 1080, 1920, 109, 0, 281, 499}, // 0.26041666 * 1920 truncates to 499
		{1080, 1920, 1080, 1920, 0, 0, 1080, 1920}, {400, 300, 1080, 1920, 116, 0, 168, 300},
		{270, 1000, 1080, 1920, 0, 260, 270, 480},  {500, 500, 0, 1920, 0, 0, 0, 0},
	};
	for (const ViewportCase &c : cases) {
		const cv::PreviewViewport v = cv::preview_viewport(c.cx, c.cy, c.w, c.h);
		EXPECT_EQ(v.x, c.x) << c.cx << "x" << c.cy;
		EXPECT_EQ(v.y, c.y) << c.cx << "x" << c.cy;
		EXPECT_EQ(v.width, c.vw) << c.cx << "x" << c.cy;
		EXPECT_EQ(v.height, c.vh) << c.cx << "x" << c.cy;
	}
}

TEST(PreviewViewport, WidthLimitIsNineSixteenthsOfTheHeight)
{
	EXPECT_EQ(cv::preview_width_limit(320), 180);
	EXPECT_EQ(cv::preview_width_limit(240), 135);
	EXPECT_EQ(cv::preview_width_limit(17), 9);
	EXPECT_EQ(cv::preview_width_limit(0), 0);
	EXPECT_EQ(cv::preview_width_limit(16777215), 9437183);
}
