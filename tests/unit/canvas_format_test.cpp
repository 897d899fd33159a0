#include "canvas/canvas_format.h"

#include <gtest/gtest.h>

using cv::canvas_format_problem;

TEST(CanvasFormat, AcceptsUsualFormats)
{
	EXPECT_EQ(canvas_format_problem(1080, 1920, 30, 1), "");
	EXPECT_EQ(canvas_format_problem(720, 1280, 30000, 1001), "");
	EXPECT_EQ(canvas_format_problem(16, 16, 1, 1), "");
	EXPECT_EQ(canvas_format_problem(16384, 16384, 1000, 1), "");
	EXPECT_EQ(canvas_format_problem(1080, 1920, 1, 1000), "");
}

TEST(CanvasFormat, RejectsWhatHandEditedFilesCanHold)
{
	// Zero sizes and rates (also what a non-numeric value reads as).
	EXPECT_NE(canvas_format_problem(0, 1920, 30, 1), "");
	EXPECT_NE(canvas_format_problem(1080, 0, 30, 1), "");
	EXPECT_NE(canvas_format_problem(1080, 1920, 0, 1), "");
	EXPECT_NE(canvas_format_problem(1080, 1920, 30, 0), "");
	// A negative number wraps to a huge unsigned one.
	EXPECT_NE(canvas_format_problem(uint32_t(-5), 1920, 30, 1), "");
	EXPECT_NE(canvas_format_problem(1080, 16385, 30, 1), "");
	EXPECT_NE(canvas_format_problem(1080, 1920, 1001, 1), "");
	EXPECT_NE(canvas_format_problem(1080, 1920, 1, 1001), "");
	// Just past either limit.
	EXPECT_NE(canvas_format_problem(1080, 1920, 4294967295u, 4294967), "");
	EXPECT_NE(canvas_format_problem(1080, 1920, 1, 4294967295u), "");
}

TEST(CanvasFormat, SaysWhatIsWrong)
{
	EXPECT_NE(canvas_format_problem(0, 1920, 30, 1).find("width and height"), std::string::npos);
	EXPECT_NE(canvas_format_problem(1080, 1920, 30, 0).find("frame rate"), std::string::npos);
}
