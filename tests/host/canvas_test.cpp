// The vertical canvas against real libobs: its view, its scene list, what its scenes show.

#include "host.h"
#include "sources.h"
#include "wait.h"

#include "canvas/vertical_canvas.h"

#include <media-io/video-io.h>

#include <array>
#include <memory>

using cv::CanvasConfig;
using cv::VerticalCanvas;
using Names = std::vector<std::string>;

namespace {

constexpr uint32_t kMarker = 32;

class CanvasTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		if (HasFatalFailure())
			return;
		canvas = std::make_unique<VerticalCanvas>(config());
		ASSERT_TRUE(canvas->init());
	}
	void TearDown() override
	{
		canvas.reset();
		HostTest::TearDown();
	}
	virtual CanvasConfig config() const { return {}; }

	std::string shown() const
	{
		OBSSourceAutoRelease source = obs_view_get_source(canvas->view(), 0);
		return source ? obs_source_get_name(source) : "";
	}
	void expect_list(const Names &names, const std::string &active) const
	{
		EXPECT_EQ(canvas->scene_names(), names);
		EXPECT_EQ(canvas->active_scene_name(), active);
		EXPECT_EQ(shown(), active);
	}
	obs_scene_t *shown_scene() const
	{
		return obs_scene_from_source(OBSSourceAutoRelease(obs_view_get_source(canvas->view(), 0)));
	}

	std::unique_ptr<VerticalCanvas> canvas;
};

class CanvasOnI444Host : public CanvasTest {
	cvtest::HostOptions host_options() const override
	{
		cvtest::HostOptions options;
		options.format = VIDEO_FORMAT_I444;
		options.colorspace = VIDEO_CS_601;
		return options;
	}
	CanvasConfig config() const override { return {720, 1280, 30000, 1001, false}; }
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

std::vector<obs_sceneitem_t *> items_of(obs_scene_t *scene)
{
	std::vector<obs_sceneitem_t *> items;
	obs_scene_enum_items(
		scene,
		[](obs_scene_t *, obs_sceneitem_t *item, void *param) {
			static_cast<std::vector<obs_sceneitem_t *> *>(param)->push_back(item);
			return true;
		},
		&items);
	return items;
}

} // namespace

// Its own size and rate, the host's colour format and audio; a private default scene the
// host's scene list does not see; shut down and brought up again.
TEST_F(CanvasOnI444Host, ViewHasItsOwnSizeAndRateAndTheHostsFormat)
{
	const video_output_info *info = video_output_get_info(canvas->video());
	ASSERT_NE(info, nullptr);
	EXPECT_EQ((std::array<uint32_t, 4>{info->width, info->height, info->fps_num, info->fps_den}),
		  (std::array<uint32_t, 4>{720, 1280, 30000, 1001}));
	EXPECT_EQ(info->format, VIDEO_FORMAT_I444);
	EXPECT_EQ(info->colorspace, VIDEO_CS_601);
	EXPECT_EQ(canvas->audio(), obs_get_audio());
	obs_video_info host = {};
	ASSERT_TRUE(obs_get_video_info(&host));
	EXPECT_EQ(host.base_width, 1920u) << "the host's canvas is untouched";

	expect_list({"Scene 1"}, "Scene 1");
	EXPECT_EQ(OBSSourceAutoRelease(obs_get_source_by_name("Scene 1")).Get(), nullptr) << "private";
	canvas->shutdown();
	EXPECT_EQ(canvas->video(), nullptr);
	canvas->shutdown();
	ASSERT_TRUE(canvas->init());
	expect_list({"Scene 1"}, "Scene 1");
}

TEST_F(CanvasWithoutHostVideo, UnusableFormatsAndAHostWithoutVideoAreRefused)
{
	for (const CanvasConfig &config : {CanvasConfig{}, CanvasConfig{0, 1920, 30, 1, true},
					   CanvasConfig{1080, 1920, 30, 0, true}, CanvasConfig{100000, 1920, 30, 1, true}}) {
		VerticalCanvas canvas{config};
		EXPECT_FALSE(canvas.init());
		EXPECT_EQ(canvas.view(), nullptr);
	}
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

	// The list as a record, and back on a new canvas.
	const cv::SceneList list = canvas->scene_list();
	VerticalCanvas other{CanvasConfig{}};
	ASSERT_TRUE(other.init());
	other.restore(list);
	EXPECT_EQ(other.scene_names(), (Names{"B", "Dee", "b", emoji, "B "}));
	EXPECT_EQ(other.active_scene_name(), emoji);
}

// An assigned host scene covers the canvas (what the canvas sends is the middle of a
// landscape scene, full width), is showing while assigned and released afterwards.
TEST_F(CanvasTest, AssignedScenesCoverTheCanvasAndAreReleased)
{
	// Red | green | blue across the 1920x1080 host scene.
	OBSSceneAutoRelease show = cvtest::make_band_scene("Show", {0xFF0000, 0x00FF00, 0x0000FF});
	OBSSourceAutoRelease portrait = cvtest::make_colour("Portrait", 0x0000FF, 1080, 1920);
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show")) << "assigned again: still one item";
	ASSERT_EQ(items_of(shown_scene()).size(), 1u);
	const cvtest::Image frame = cvtest::render_view(canvas->view(), canvas->width(), canvas->height());
	for (uint32_t y : {2u, 960u, 1917u})
		for (uint32_t x : {1u, 540u, 1078u})
			EXPECT_EQ(frame.rgb(x, y), 0x00FF00u) << x << "," << y;

	// A renamed scene shows the same; an unknown source keeps the old picture and its
	// name for later; an empty name clears the scene.
	ASSERT_TRUE(canvas->rename_scene("Scene 1", "Main"));
	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Portrait"));
	EXPECT_FALSE(canvas->assign_scene_source("Main", "Not There Yet"));
	EXPECT_EQ(canvas->scene_source_name("Main"), "Not There Yet");
	ASSERT_EQ(items_of(shown_scene()).size(), 1u);
	EXPECT_EQ(obs_sceneitem_get_source(items_of(shown_scene())[0]), obs_scene_get_source(show));
	EXPECT_TRUE(obs_source_showing(portrait)) << "assigned, active or not";
	EXPECT_TRUE(canvas->assign_scene_source("B", ""));
	EXPECT_FALSE(obs_source_showing(portrait));
	EXPECT_FALSE(canvas->assign_scene_source("Missing", "Show"));

	// Nothing of the canvas keeps a source alive once it is shut down.
	OBSWeakSourceAutoRelease weak = obs_source_get_weak_source(obs_scene_get_source(show));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Show"));
	canvas->shutdown();
	obs_source_remove(obs_scene_get_source(show));
	show = nullptr;
	EXPECT_TRUE(cvtest::wait_until([&] { return !OBSSourceAutoRelease(obs_weak_source_get_source(weak)); }, 2000));
}

// The active scene's source carries the sixth mixer track; the user's own tracks stay.
TEST_F(CanvasTest, AudioMarkerFollowsTheActiveScene)
{
	// Mixer tracks exist only on sources with audio: media sources without a file.
	OBSSourceAutoRelease one = obs_source_create("ffmpeg_source", "One", nullptr, nullptr);
	OBSSourceAutoRelease two = obs_source_create("ffmpeg_source", "Two", nullptr, nullptr);
	obs_source_set_audio_mixers(one, 0b000101);
	obs_source_set_audio_mixers(two, 0b000011);
	auto marked = [&] {
		return std::array<bool, 2>{(obs_source_get_audio_mixers(one) & kMarker) != 0,
					   (obs_source_get_audio_mixers(two) & kMarker) != 0};
	};
	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "One"));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Two"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{true, false}));
	ASSERT_TRUE(canvas->set_active_scene("B"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, true}));
	ASSERT_TRUE(canvas->remove_scene("B"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{true, false}));
	canvas->shutdown();
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, false}));
	EXPECT_EQ(obs_source_get_audio_mixers(one), 0b000101u);

	// Without the option the marker is never added, but always taken off.
	VerticalCanvas plain{CanvasConfig{1080, 1920, 30, 1, false}};
	ASSERT_TRUE(plain.init());
	obs_source_set_audio_mixers(two, 0b100010);
	ASSERT_TRUE(plain.assign_scene_source("Scene 1", "One"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, true}));
	ASSERT_TRUE(plain.assign_scene_source("Scene 1", "Two"));
	ASSERT_TRUE(plain.assign_scene_source("Scene 1", ""));
	EXPECT_EQ(obs_source_get_audio_mixers(two), 0b000010u);
}
