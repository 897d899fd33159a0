#include "canvas/cover_placement.h"

#include <gtest/gtest.h>

using cv::cover_placement;

TEST(CoverPlacement, LandscapeSourceOnPortraitCanvasIsCutAtBothSides)
{
	const auto p = cover_placement(1080, 1920, 1920, 1080);
	EXPECT_NEAR(p.scale, 1920.0f / 1080.0f, 1e-5);
	EXPECT_NEAR(p.x, -1166.6667f, 1e-2);
	EXPECT_FLOAT_EQ(p.y, 0.0f);
	// The scaled source reaches exactly from one edge past the other, symmetrically.
	EXPECT_NEAR(p.x + 1920 * p.scale, 1080.0f - p.x, 1e-2);
}

TEST(CoverPlacement, MatchingAndPortraitSources)
{
	const auto same = cover_placement(1080, 1920, 1080, 1920);
	EXPECT_FLOAT_EQ(same.scale, 1.0f);
	EXPECT_FLOAT_EQ(same.x, 0.0f);
	EXPECT_FLOAT_EQ(same.y, 0.0f);

	// Taller than the canvas: width decides, top and bottom are cut.
	const auto tall = cover_placement(1080, 1920, 540, 1200);
	EXPECT_FLOAT_EQ(tall.scale, 2.0f);
	EXPECT_FLOAT_EQ(tall.x, 0.0f);
	EXPECT_FLOAT_EQ(tall.y, -240.0f);

	// Smaller sources are scaled up to cover.
	const auto small = cover_placement(720, 1280, 320, 180);
	EXPECT_NEAR(small.scale, 1280.0f / 180.0f, 1e-4);
	EXPECT_LE(small.x, 0.0f);
	EXPECT_FLOAT_EQ(small.y, 0.0f);
}

TEST(CoverPlacement, ZeroSizedSourceKeepsScaleOne)
{
	const auto p = cover_placement(1080, 1920, 0, 0);
	EXPECT_FLOAT_EQ(p.scale, 1.0f);
	EXPECT_FLOAT_EQ(p.x, 540.0f);
	EXPECT_FLOAT_EQ(p.y, 960.0f);
	const auto half = cover_placement(1080, 1920, 100, 0);
	EXPECT_FLOAT_EQ(half.scale, 1.0f);
	EXPECT_FLOAT_EQ(half.x, 490.0f);
}
