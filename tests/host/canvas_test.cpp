#include "host_fixture.h"
#include "log_capture.h"

#include "canvas/vertical_canvas.h"

#include <media-io/video-io.h>
#include <obs.hpp>

using cv::CanvasConfig;
using cv::VerticalCanvas;
using cvtest::log_contains;
using cvtest::log_count;

namespace {

class CanvasTest : public cvtest::HostTest {};

class CanvasOnI444Host : public cvtest::HostTest {
	cvtest::HostOptions host_options() const override
	{
		cvtest::HostOptions options;
		options.format = VIDEO_FORMAT_I444;
		options.colorspace = VIDEO_CS_601;
		return options;
	}
};

class CanvasWithoutHostVideo : public cvtest::HostTest {
	cvtest::HostOptions host_options() const override
	{
		cvtest::HostOptions options;
		options.video = false;
		options.encoders = false;
		return options;
	}
};

} // namespace

TEST_F(CanvasTest, ViewRendersAtCanvasSizeAndRateWithHostColourFormat)
{
	VerticalCanvas canvas{CanvasConfig{}};
	ASSERT_TRUE(canvas.init());

	const video_output_info *info = video_output_get_info(canvas.video());
	ASSERT_NE(info, nullptr);
	EXPECT_EQ(info->width, 1080u);
	EXPECT_EQ(info->height, 1920u);
	EXPECT_EQ(info->fps_num, 30u);
	EXPECT_EQ(info->fps_den, 1u);
	EXPECT_EQ(info->format, VIDEO_FORMAT_NV12);
	EXPECT_EQ(info->colorspace, VIDEO_CS_709);
	EXPECT_EQ(canvas.audio(), obs_get_audio());
	EXPECT_TRUE(canvas.initialised());

	// The host's own canvas is untouched.
	obs_video_info host = {};
	ASSERT_TRUE(obs_get_video_info(&host));
	EXPECT_EQ(host.base_width, 1920u);
	EXPECT_EQ(host.fps_num, 60u);
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Canvas initialised: 1080x1920 @ 30/1 fps"));
}

TEST_F(CanvasOnI444Host, ViewKeepsTheHostsFormatAndColourSpace)
{
	VerticalCanvas canvas{CanvasConfig{720, 1280, 30000, 1001, true}};
	ASSERT_TRUE(canvas.init());
	const video_output_info *info = video_output_get_info(canvas.video());
	ASSERT_NE(info, nullptr);
	EXPECT_EQ(info->width, 720u);
	EXPECT_EQ(info->height, 1280u);
	EXPECT_EQ(info->fps_num, 30000u);
	EXPECT_EQ(info->fps_den, 1001u);
	EXPECT_EQ(info->format, VIDEO_FORMAT_I444);
	EXPECT_EQ(info->colorspace, VIDEO_CS_601);
}

TEST_F(CanvasTest, InitShowsPrivateDefaultScene)
{
	VerticalCanvas canvas{CanvasConfig{}};
	ASSERT_TRUE(canvas.init());

	EXPECT_EQ(canvas.scene_names(), std::vector<std::string>{"Scene 1"});
	EXPECT_EQ(canvas.active_scene_name(), "Scene 1");
	EXPECT_EQ(canvas.active_source(), nullptr); // nothing assigned yet

	OBSSourceAutoRelease shown = obs_view_get_source(canvas.view(), 0);
	ASSERT_NE(shown.Get(), nullptr);
	EXPECT_STREQ(obs_source_get_name(shown), "Scene 1");
	EXPECT_NE(obs_scene_from_source(shown), nullptr);
	// Private: the host's own scene list does not see it.
	OBSSourceAutoRelease by_name = obs_get_source_by_name("Scene 1");
	EXPECT_EQ(by_name.Get(), nullptr);
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Scene created (private): Scene 1"));
}

TEST_F(CanvasTest, SecondInitOnlyWarnsAndShutdownIsRepeatable)
{
	VerticalCanvas canvas{CanvasConfig{}};
	ASSERT_TRUE(canvas.init());
	video_t *video = canvas.video();

	EXPECT_TRUE(canvas.init());
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] VerticalCanvas already initialised"));
	EXPECT_EQ(canvas.video(), video);
	EXPECT_EQ(canvas.scene_names().size(), 1u);

	canvas.shutdown();
	EXPECT_FALSE(canvas.initialised());
	EXPECT_EQ(canvas.video(), nullptr);
	EXPECT_TRUE(canvas.scene_names().empty());
	EXPECT_EQ(canvas.active_scene_name(), "");
	canvas.shutdown();
	EXPECT_EQ(log_count("Canvas shut down"), 1u);

	// After shutdown the canvas can be brought up again.
	ASSERT_TRUE(canvas.init());
	EXPECT_EQ(canvas.active_scene_name(), "Scene 1");
}

TEST_F(CanvasTest, ShutdownOfUninitialisedCanvasDoesNothing)
{
	VerticalCanvas canvas{CanvasConfig{}};
	canvas.shutdown();
	EXPECT_FALSE(log_contains("corvane-obs-vertical"));
}

TEST_F(CanvasTest, DestructorReleasesALiveCanvas)
{
	{
		VerticalCanvas canvas{CanvasConfig{}};
		ASSERT_TRUE(canvas.init());
	}
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Canvas shut down"));
	// The fixture checks that the view and the private scene were freed.
}

TEST_F(CanvasTest, UnusableFormatIsRefusedBeforeTheHostSeesIt)
{
	for (const CanvasConfig &config : {CanvasConfig{0, 1920, 30, 1, true}, CanvasConfig{1080, 0, 30, 1, true},
					   CanvasConfig{1080, 1920, 0, 1, true}, CanvasConfig{1080, 1920, 30, 0, true},
					   CanvasConfig{100000, 1920, 30, 1, true}}) {
		cvtest::clear_logs();
		VerticalCanvas canvas{config};
		EXPECT_FALSE(canvas.init());
		EXPECT_FALSE(canvas.initialised());
		EXPECT_EQ(canvas.video(), nullptr);
		EXPECT_EQ(log_count("[corvane-obs-vertical] Invalid canvas format"), 1u);
	}
}

TEST_F(CanvasWithoutHostVideo, InitFailsUntilTheHostHasVideo)
{
	VerticalCanvas canvas{CanvasConfig{}};
	EXPECT_FALSE(canvas.init());
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] obs_get_video_info failed — OBS not ready"));
	EXPECT_FALSE(canvas.initialised());
	EXPECT_EQ(canvas.view(), nullptr);
}
