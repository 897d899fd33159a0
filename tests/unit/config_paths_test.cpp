#include "core/config_paths.h"

#include <gtest/gtest.h>

using cv::parent_dir_of;
using cv::profile_config_path_in;

TEST(ProfileConfigPath, AppendsFileNameWithItsOwnSeparator)
{
	EXPECT_EQ(profile_config_path_in("/home/u/.config/obs-studio/basic/profiles/Main"),
		  "/home/u/.config/obs-studio/basic/profiles/Main/corvane-vertical-canvas.ini");
	// A directory that already ends in a separator gets a second one.
	EXPECT_EQ(profile_config_path_in("/profiles/Main/"), "/profiles/Main//corvane-vertical-canvas.ini");
	EXPECT_EQ(profile_config_path_in(""), "");
}

TEST(ParentDir, TakesTextBeforeTheLastSeparatorOfEitherKind)
{
	EXPECT_EQ(parent_dir_of("/a/b/c.ini"), "/a/b");
	EXPECT_EQ(parent_dir_of("C:\\obs\\x.ini"), "C:\\obs");
	EXPECT_EQ(parent_dir_of("/a\\b/c.ini"), "/a\\b");
	EXPECT_EQ(parent_dir_of("/a/b\\c.ini"), "/a/b");
	EXPECT_EQ(parent_dir_of("/x.ini"), "");
	// Without any separator the whole path is the folder.
	EXPECT_EQ(parent_dir_of("plain"), "plain");
	// A doubled separator leaves the first one on the folder name (mkdir accepts it).
	EXPECT_EQ(parent_dir_of("/p//f.ini"), "/p/");
}
