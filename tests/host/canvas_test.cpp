// The vertical canvas against real libobs: its view, its scene list, what its scenes show.

#include "host.h"
#include "sources.h"

#include "canvas/vertical_canvas.h"

#include <media-io/video-io.h>

#include <array>
#include <memory>

using cv::CanvasConfig;
using cv::VerticalCanvas;
using Names = std::vector<std::string>;

namespace {

// A canvas of its own size and rate on a host whose colour format is not the default.
class CanvasTest : public cvtest::HostTest {
protected:
	cvtest::HostOptions host_options() const override
	{
		cvtest::HostOptions options;
		options.format = VIDEO_FORMAT_I444;
		options.colorspace = VIDEO_CS_601;
		return options;
	}
	void SetUp() override
	{
		HostTest::SetUp();
		if (HasFatalFailure())
			return;
		canvas = std::make_unique<VerticalCanvas>(CanvasConfig{720, 1280, 30000, 1001, true});
		ASSERT_TRUE(canvas->init());
	}
	void TearDown() override
	{
		canvas.reset();
		HostTest::TearDown();
	}

	void expect_list(const Names &names, const std::string &active) const
	{
		EXPECT_EQ(canvas->scene_names(), names);
		EXPECT_EQ(canvas->active_scene_name(), active);
		OBSSourceAutoRelease shown = obs_view_get_source(canvas->view(), 0);
		EXPECT_EQ(shown ? obs_source_get_name(shown) : "", active) << "what the view shows";
	}
	// What the active scene holds, by source name.
	Names shown_items() const
	{
		Names names;
		OBSSourceAutoRelease source = obs_view_get_source(canvas->view(), 0);
		obs_scene_enum_items(
			obs_scene_from_source(source),
			[](obs_scene_t *, obs_sceneitem_t *item, void *param) {
				static_cast<Names *>(param)->push_back(
					obs_source_get_name(obs_sceneitem_get_source(item)));
				return true;
			},
			&names);
		return names;
	}

	std::unique_ptr<VerticalCanvas> canvas;
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

// Its own size and rate, the host's colour format; a private default scene the
// host's scene list does not see; shut down and brought up again. Unusable sizes and
// rates are refused.
TEST_F(CanvasTest, ViewHasItsOwnSizeAndRateAndTheHostsFormat)
{
	const video_output_info *info = video_output_get_info(canvas->video());
	ASSERT_NE(info, nullptr);
	EXPECT_EQ((std::array<uint32_t, 4>{info->width, info->height, info->fps_num, info->fps_den}),
		  (std::array<uint32_t, 4>{720, 1280, 30000, 1001}));
	EXPECT_EQ(info->format, VIDEO_FORMAT_I444);
	EXPECT_EQ(info->colorspace, VIDEO_CS_601);
	obs_video_info host = {};
	ASSERT_TRUE(obs_get_video_info(&host));
	EXPECT_EQ(host.base_width, 1920u) << "the host's canvas is untouched";

	expect_list({"Scene 1"}, "Scene 1");
	EXPECT_EQ(OBSSourceAutoRelease(obs_get_source_by_name("Scene 1")).Get(), nullptr) << "private";
	canvas->shutdown();
	ASSERT_TRUE(canvas->init());
	expect_list({"Scene 1"}, "Scene 1");
	for (const CanvasConfig &config :
	     {CanvasConfig{0, 1920, 30, 1, true}, CanvasConfig{1080, 1920, 30, 0, true}, CanvasConfig{100000, 1920}})
		EXPECT_FALSE(VerticalCanvas{config}.init());
}

TEST_F(CanvasWithoutHostVideo, IsRefused)
{
	EXPECT_FALSE(VerticalCanvas{CanvasConfig{}}.init());
}

TEST_F(CanvasTest, SceneListThroughEdits)
{
	EXPECT_TRUE(canvas->remove_scene("Scene 1"));
	expect_list({}, "");
	// The first scene made becomes active; later ones do not.
	for (const char *name : {"A", "B", "C"})
		EXPECT_TRUE(canvas->create_scene(name));
	expect_list({"A", "B", "C"}, "A");
	EXPECT_TRUE(canvas->set_active_scene("C"));
	EXPECT_TRUE(canvas->remove_scene("A"));
	expect_list({"B", "C"}, "C");
	// Removing the active scene activates the first one left.
	EXPECT_TRUE(canvas->remove_scene("C"));
	expect_list({"B"}, "B");
	EXPECT_TRUE(canvas->create_scene("D"));
	EXPECT_TRUE(canvas->set_active_scene("D"));
	EXPECT_TRUE(canvas->rename_scene("D", "Dee"));
	expect_list({"B", "Dee"}, "Dee");

	// Names are compared byte for byte; what cannot be done changes nothing.
	const std::string emoji = "Vertical \xF0\x9F\x8E\xAC Intro";
	for (const std::string &name : {std::string("b"), emoji, std::string("B ")})
		EXPECT_TRUE(canvas->create_scene(name));
	EXPECT_FALSE(canvas->create_scene("B"));
	EXPECT_FALSE(canvas->rename_scene("b", "Dee"));
	EXPECT_FALSE(canvas->rename_scene("Nope", "X"));
	EXPECT_FALSE(canvas->remove_scene("Nope"));
	EXPECT_FALSE(canvas->set_active_scene("Nope"));
	EXPECT_TRUE(canvas->set_active_scene(emoji));
	expect_list({"B", "Dee", "b", emoji, "B "}, emoji);
}

// An assigned host scene covers the canvas (what the canvas sends is the middle of a
// landscape scene, full width) and is showing while assigned.
TEST_F(CanvasTest, AssignedScenesCoverTheCanvasAndAreReleased)
{
	// Red | green | blue across the 1920x1080 host scene.
	OBSSceneAutoRelease show = cvtest::make_band_scene("Show", {0xFF0000, 0x00FF00, 0x0000FF});
	OBSSourceAutoRelease portrait = cvtest::make_colour("Portrait", 0x0000FF, 720, 1280);
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show")) << "assigned again: still one item";
	ASSERT_EQ(shown_items(), Names{"Show"});
	const cvtest::Image frame = cvtest::render_view(canvas->view(), canvas->width(), canvas->height());
	for (uint32_t y : {2u, 640u, 1277u})
		for (uint32_t x : {1u, 360u, 718u})
			EXPECT_EQ(frame.rgb(x, y), 0x00FF00u) << x << "," << y;

	// A renamed scene shows the same; an unknown source keeps the old picture and its
	// name for later; an empty name clears the scene.
	ASSERT_TRUE(canvas->rename_scene("Scene 1", "Main"));
	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Portrait"));
	EXPECT_FALSE(canvas->assign_scene_source("Main", "Not There Yet"));
	EXPECT_EQ(canvas->scene_source_name("Main"), "Not There Yet");
	EXPECT_EQ(shown_items(), Names{"Show"});
	EXPECT_TRUE(obs_source_showing(portrait)) << "assigned, active or not";
	EXPECT_TRUE(canvas->assign_scene_source("B", ""));
	EXPECT_FALSE(obs_source_showing(portrait));
	EXPECT_FALSE(canvas->assign_scene_source("Missing", "Show"));
}
