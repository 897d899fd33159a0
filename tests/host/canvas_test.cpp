// The vertical canvas against real libobs: its view, its scene list, what its scenes show.

#include "host.h"
#include "process.h"
#include "sources.h"

#include "canvas/vertical_canvas.h"

#include <media-io/video-io.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <tuple>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

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
		OBSSourceAutoRelease shown = canvas->shown();
		EXPECT_EQ(shown ? obs_source_get_name(shown) : "", active) << "what the canvas shows";
	}
	// What the active scene holds, by source name.
	Names shown_items() const
	{
		Names names;
		OBSSourceAutoRelease source = canvas->shown();
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
	EXPECT_EQ(canvas->video(), nullptr) << "no mix before encoders need one";
	const video_output_info *info = video_output_get_info(canvas->fresh_video());
	ASSERT_NE(info, nullptr);
	EXPECT_EQ((std::array<uint32_t, 4>{info->width, info->height, info->fps_num, info->fps_den}),
		  (std::array<uint32_t, 4>{720, 1280, 30000, 1001}));
	EXPECT_EQ(info->format, VIDEO_FORMAT_I444);
	EXPECT_EQ(info->colorspace, VIDEO_CS_601);
	obs_video_info host = {};
	ASSERT_TRUE(obs_get_video_info(&host));
	EXPECT_EQ(host.base_width, 1920u) << "the host's canvas is untouched";
	canvas->drop_video();
	EXPECT_EQ(canvas->video(), nullptr);

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
// landscape scene, full width); only the active one counts as showing, and the canvas
// never keeps one alive that the host let go.
TEST_F(CanvasTest, AssignedScenesCoverTheCanvasAndAreReleased)
{
	// Red | green | blue across the 1920x1080 host scene.
	OBSSceneAutoRelease show = cvtest::make_band_scene("Show", {0xFF0000, 0x00FF00, 0x0000FF});
	OBSSourceAutoRelease portrait = cvtest::make_colour("Portrait", 0x0000FF, 720, 1280);
	ASSERT_TRUE(canvas->set_transition({cv::kCutTransition, 300})) << "what shows, at once";
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show")) << "assigned again: still one item";
	ASSERT_EQ(shown_items(), Names{"Show"});
	auto expect_green = [&] {
		// The transition takes a new size at the host's next tick.
		std::this_thread::sleep_for(std::chrono::milliseconds(100));
		const uint32_t width = canvas->width(), height = canvas->height();
		const cvtest::Image frame = cvtest::render([&] { canvas->render(); }, width, height);
		for (uint32_t y : {2u, height / 2, height - 3})
			for (uint32_t x : {1u, width / 2, width - 2})
				EXPECT_EQ(frame.rgb(x, y), 0x00FF00u) << x << "," << y;
	};
	expect_green();

	// A renamed scene shows the same; an unknown source keeps the old picture and its
	// name for later; an empty name clears the scene.
	ASSERT_TRUE(canvas->rename_scene("Scene 1", "Main"));
	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Portrait"));
	EXPECT_FALSE(canvas->assign_scene_source("Main", "Not There Yet"));
	EXPECT_EQ(canvas->scene_source_name("Main"), "Not There Yet");
	EXPECT_EQ(shown_items(), Names{"Show"});
	EXPECT_FALSE(obs_source_showing(portrait)) << "assigned to a scene that is not on the canvas";
	ASSERT_TRUE(canvas->set_active_scene("B"));
	EXPECT_TRUE(obs_source_showing(portrait));
	EXPECT_TRUE(canvas->assign_scene_source("B", ""));
	EXPECT_FALSE(obs_source_showing(portrait));
	EXPECT_FALSE(canvas->assign_scene_source("Missing", "Show"));

	// The host renames and removes its scenes: the assignment follows the name, and a
	// removed scene leaves nothing held (its last reference goes with the host's).
	ASSERT_TRUE(canvas->assign_scene_source("B", "Portrait"));
	obs_source_set_name(portrait, "Upright");
	OBSWeakSourceAutoRelease weak = obs_source_get_weak_source(portrait);
	EXPECT_TRUE(canvas->host_source_renamed(weak, "Upright"));
	EXPECT_EQ(canvas->scene_source_name("B"), "Upright");
	EXPECT_FALSE(canvas->host_source_renamed(weak, "Upright")) << "nothing more to follow";
	obs_source_remove(portrait);
	EXPECT_TRUE(canvas->host_source_removed(weak));
	EXPECT_EQ(canvas->scene_source_name("B"), "");
	EXPECT_TRUE(shown_items().empty());
	portrait = nullptr;
	EXPECT_EQ(OBSSourceAutoRelease(obs_weak_source_get_source(weak)).Get(), nullptr) << "kept alive";

	// Canvas size changes keep what is shown, placed to cover the new size.
	ASSERT_TRUE(canvas->set_active_scene("Main"));
	ASSERT_TRUE(canvas->assign_scene_source("Main", "Show"));
	ASSERT_TRUE(canvas->reconfigure(CanvasConfig{360, 640, 30, 1, true}));
	EXPECT_EQ(video_output_get_info(canvas->fresh_video())->width, 360u);
	expect_green();
	EXPECT_FALSE(canvas->reconfigure(CanvasConfig{0, 640, 30, 1, true}));
	EXPECT_EQ(canvas->width(), 360u);
}

// Every reset of the host's video frees the mixes it has; the canvas makes its own again
// before anything uses it, at its own size, in the host's new format.
TEST_F(CanvasTest, LivesThroughResetsOfTheHostsVideo)
{
	OBSSceneAutoRelease show = cvtest::make_band_scene("Show", {0x00FF00});
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show"));
	const uint64_t generation = canvas->generation();
	for (const video_format format : {VIDEO_FORMAT_NV12, VIDEO_FORMAT_I420}) {
		obs_video_info host = {};
		ASSERT_TRUE(obs_get_video_info(&host));
		host.output_format = format;
		host.base_width = host.output_width = 1280;
		host.base_height = host.output_height = 720;
		ASSERT_EQ(obs_reset_video(&host), OBS_VIDEO_SUCCESS);
		canvas->follow_host_sizes(); // as the plug-in does within a second
		const video_output_info *info = video_output_get_info(canvas->fresh_video());
		ASSERT_NE(info, nullptr);
		EXPECT_EQ((std::array<uint32_t, 3>{info->width, info->height, uint32_t(info->format)}),
			  (std::array<uint32_t, 3>{720, 1280, uint32_t(format)}));
		EXPECT_NE(canvas->generation(), generation) << "encoders made before are not used again";
		const cvtest::Image frame = cvtest::render([&] { canvas->render(); }, 720, 1280);
		EXPECT_EQ(frame.rgb(360, 640), 0x00FF00u);
		// The preview's drawing, from the new mix's picture where the host lets it.
		std::this_thread::sleep_for(std::chrono::milliseconds(100));
		const cvtest::Image preview = cvtest::render(
			[&] {
				canvas->render_scaled({{0, 0, 720, 1280}, 720, 1280});
			},
			720, 1280);
		EXPECT_EQ(preview.rgb(360, 640), 0x00FF00u);
	}
}

namespace {

constexpr uint32_t kRed = 0xFF0000, kGreen = 0x00FF00, kBlue = 0x0000FF, kWhite = 0xFFFFFF;

// A canvas showing the host scene of four coloured quarters, red and green above blue
// and white, by the layout under test.
class LayoutTest : public CanvasTest {
protected:
	void SetUp() override
	{
		CanvasTest::SetUp();
		if (HasFatalFailure())
			return;
		grid = cvtest::make_grid_scene("Grid", {{kRed, kGreen}, {kBlue, kWhite}});
		ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Grid"));
	}
	void TearDown() override
	{
		canvas.reset();
		grid = nullptr;
		CanvasTest::TearDown();
	}
	cvtest::Image frame_with(const cv::SceneLayout &layout)
	{
		EXPECT_TRUE(canvas->set_scene_layout("Scene 1", layout));
		// Scene items take new places at the host's next tick.
		std::this_thread::sleep_for(std::chrono::milliseconds(100));
		const cvtest::Image frame = cvtest::render([&] { canvas->render(); }, 720, 1280);
		// Drawn straight at another size (as the preview draws it, here a third of the
		// canvas in the lower right of a target), the picture is the same.
		const cv::ScaledTarget third{{400, 700, 240, 426}, 720, 1280};
		const cvtest::Image small = cvtest::render(
			[&] {
				gs_set_viewport(400, 700, 240, 426);
				gs_ortho(0.0f, 720.0f, 0.0f, 1280.0f, -100.0f, 100.0f);
				canvas->render_scaled(third);
			},
			720, 1280);
		size_t differ = 0;
		for (uint32_t y = 1; y + 1 < 426; y += 3)
			for (uint32_t x = 1; x + 1 < 240; x += 3)
				differ += !cvtest::close_to(small.rgb(400 + x, 700 + y), frame.rgb(x * 3, y * 3 + 1));
		EXPECT_LE(differ, 110u) << "of 11,200 pixels, drawn straight";
		EXPECT_EQ(small.rgb(200, 200), 0u) << "nothing outside the viewport";
		return frame;
	}

	OBSSceneAutoRelease grid;
};

uint32_t channel(uint32_t rgb, int shift)
{
	return rgb >> shift & 0xFF;
}

} // namespace

// Focus at each edge and zoom: the canvas's corners show the quarters the phone is meant
// to see, and never an empty edge.
TEST_F(LayoutTest, CoverFocusAndZoomChooseWhatThePhoneSees)
{
	const struct {
		double focus_x, focus_y, zoom;
		uint32_t top_left, bottom_right;
	} cases[] = {
		{0.5, 0.5, 1, kRed, kWhite}, {0, 0.5, 1, kRed, kBlue},   {1, 0.5, 1, kGreen, kWhite},
		{0.5, 0, 2, kRed, kGreen},   {0.5, 1, 2, kBlue, kWhite}, {0, 0, 2, kRed, kRed},
		{1, 1, 4, kWhite, kWhite},   {0, 1, 2, kBlue, kBlue},
	};
	for (const auto &c : cases) {
		cv::SceneLayout layout;
		layout.focus_x = c.focus_x;
		layout.focus_y = c.focus_y;
		layout.zoom = c.zoom;
		const cvtest::Image frame = frame_with(layout);
		EXPECT_EQ(frame.rgb(1, 1), c.top_left) << c.focus_x << "," << c.focus_y << " x" << c.zoom;
		EXPECT_EQ(frame.rgb(718, 1278), c.bottom_right) << c.focus_x << "," << c.focus_y << " x" << c.zoom;
	}
}

// The whole scene, as wide as the canvas, on a colour or on a blurred, darkened copy of
// itself: the copy has no hard edge where the scene has one.
TEST_F(LayoutTest, FitShowsTheWholeSceneOnItsBackground)
{
	cv::SceneLayout layout;
	layout.kind = cv::LayoutKind::Fit;
	layout.background = "#203040";
	cvtest::Image frame = frame_with(layout);
	// 720 / 1920 of the scene's size, from y = 437.5 to 842.5.
	for (const auto &[x, y, rgb] :
	     std::initializer_list<std::tuple<uint32_t, uint32_t, uint32_t>>{{360, 20, 0x203040},
									     {360, 1260, 0x203040},
									     {100, 500, kRed},
									     {620, 500, kGreen},
									     {100, 780, kBlue},
									     {620, 780, kWhite}})
		EXPECT_EQ(frame.rgb(x, y), rgb) << x << "," << y;

	layout.background = "blur";
	frame = frame_with(layout);
	EXPECT_EQ(frame.rgb(100, 500), kRed) << "the scene stays sharp";
	// Above the scene: the covering copy's red and green halves, meeting at x = 360.
	const uint32_t y = 200;
	const uint32_t left = frame.rgb(5, y), right = frame.rgb(714, y);
	EXPECT_GT(channel(left, 16), channel(left, 8) + 60) << std::hex << left;
	EXPECT_GT(channel(right, 8), channel(right, 16) + 60) << std::hex << right;
	EXPECT_LT(std::max(channel(left, 16), channel(right, 8)), 215u) << "darkened";
	int steepest = 0;
	for (uint32_t x = 0; x + 1 < 720; x++)
		for (int shift : {8, 16})
			steepest = std::max(steepest, std::abs(int(channel(frame.rgb(x + 1, y), shift)) -
							       int(channel(frame.rgb(x, y), shift))));
	EXPECT_LE(steepest, 12) << "a hard edge in the blurred background";
}

// Two regions of the scene above each other, each covering its part; the split moves
// the border between them.
TEST_F(LayoutTest, StackPutsTwoRegionsAboveEachOther)
{
	cv::SceneLayout layout;
	layout.kind = cv::LayoutKind::Stack;
	layout.top = {960, 540, 960, 540};
	layout.bottom = {0, 0, 960, 540};
	cvtest::Image frame = frame_with(layout);
	for (const auto &[x, y, rgb] :
	     std::initializer_list<std::tuple<uint32_t, uint32_t, uint32_t>>{{1, 1, kWhite},
									     {718, 637, kWhite},
									     {1, 642, kRed},
									     {718, 1278, kRed}})
		EXPECT_EQ(frame.rgb(x, y), rgb) << x << "," << y;
	layout.split = 0.25;
	frame = frame_with(layout);
	EXPECT_EQ(frame.rgb(360, 317), kWhite);
	EXPECT_EQ(frame.rgb(360, 322), kRed);
	// Each region shows its own part only, though the rest of the scene lies over the other.
	layout.top = {0, 0, 960, 540};
	layout.bottom = {960, 540, 960, 540};
	frame = frame_with(layout);
	EXPECT_EQ(frame.rgb(360, 300), kRed);
	EXPECT_EQ(frame.rgb(360, 1000), kWhite);
	// The defaults: the scene's left and right halves.
	layout.top = layout.bottom = {};
	frame = frame_with(layout);
	EXPECT_EQ(frame.rgb(360, 2), kRed);
	EXPECT_EQ(frame.rgb(360, 1277), kWhite);
}

// The host's scenes are as large as its canvas: after its video settings change that
// size, the vertical scenes are framed anew from the scene's new size.
TEST_F(LayoutTest, FramedAnewWhenTheHostsCanvasChangesSize)
{
	EXPECT_EQ(frame_with({}).rgb(718, 1), kGreen);
	EXPECT_FALSE(canvas->follow_host_sizes());
	obs_video_info host = {};
	ASSERT_TRUE(obs_get_video_info(&host));
	host.base_width = host.output_width = 1280;
	host.base_height = host.output_height = 720;
	ASSERT_EQ(obs_reset_video(&host), OBS_VIDEO_SUCCESS);
	// Placed for the old size, the scene no longer covers the canvas; placed anew, it
	// does. (Newer hosts scale a scene's items with the canvas, older ones keep them.)
	EXPECT_TRUE(canvas->follow_host_sizes());
	const cvtest::Image frame = frame_with({});
	for (const auto &[x, y] : {std::pair{1u, 1u}, {718u, 1u}, {1u, 1278u}, {718u, 1278u}})
		EXPECT_NE(frame.rgb(x, y), 0u) << x << "," << y;
	EXPECT_EQ(frame.rgb(1, 1), kRed);
}

// A fade's frames lie between the two scenes for about its duration, then show the new
// one; a cut shows it at once.
TEST_F(CanvasTest, ScenesChangeThroughTheTransition)
{
	OBSSceneAutoRelease red = cvtest::make_band_scene("Red", {kRed});
	OBSSceneAutoRelease green = cvtest::make_band_scene("Green", {kGreen});
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Red"));
	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Green"));
	EXPECT_FALSE(canvas->set_transition({"no_such_transition", 300}));
	ASSERT_TRUE(canvas->set_transition({"fade_transition", 1500}));

	using Clock = std::chrono::steady_clock;
	const auto started = Clock::now();
	ASSERT_TRUE(canvas->set_active_scene("B"));
	EXPECT_STREQ(obs_source_get_name(OBSSourceAutoRelease(canvas->shown())), "B") << "the scene it goes to";
	Clock::duration first_between{}, last_between{};
	uint32_t last = 0;
	while (Clock::now() - started < std::chrono::milliseconds(2500)) {
		// A tenth of the size, read back quickly enough to follow the fade.
		last = cvtest::render(
			       [&] {
				       gs_matrix_scale3f(0.1f, 0.1f, 1.0f);
				       canvas->render();
			       },
			       72, 128)
			       .rgb(36, 64);
		const bool between = channel(last, 16) > 25 && channel(last, 16) < 230 && channel(last, 8) > 25 &&
				     channel(last, 8) < 230;
		if (between && first_between == Clock::duration{})
			first_between = Clock::now() - started;
		if (between)
			last_between = Clock::now() - started;
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	// Loose bounds: the host's frames come late on a busy machine.
	EXPECT_EQ(last, kGreen);
	EXPECT_LT(first_between, std::chrono::milliseconds(700));
	EXPECT_GT(last_between - first_between, std::chrono::milliseconds(600));
	EXPECT_LT(last_between, std::chrono::milliseconds(2200));

	ASSERT_TRUE(canvas->set_transition({cv::kCutTransition, 300}));
	ASSERT_TRUE(canvas->set_active_scene("Scene 1"));
	EXPECT_EQ(cvtest::render([&] { canvas->render(); }, 720, 1280).rgb(360, 640), kRed);
}

// Not a check: the pictures of the layouts in the guide, made when CV_LAYOUT_PICTURES
// names a folder. A game scene with a webcam corner and a bar of text, beside what each
// layout makes of it.
TEST_F(LayoutTest, PicturesForTheGuide)
{
	const char *folder = std::getenv("CV_LAYOUT_PICTURES");
	if (!folder)
		GTEST_SKIP() << "CV_LAYOUT_PICTURES is not set";
	OBSSceneAutoRelease game = cvtest::make_grid_scene("Game", {{0x1B2A4A}, {0x1B2A4A}, {0x2E7D32}});
	const struct {
		const char *name;
		uint32_t rgb, x, y, width, height;
	} parts[] = {{"Sun", 0xFFD54F, 200, 80, 160, 160},
		     {"Player", 0xE53935, 860, 420, 200, 300},
		     {"Webcam", 0xFFFFFF, 1380, 60, 480, 270},
		     {"Face", 0xFF8A65, 1390, 70, 460, 250},
		     {"Score", 0xFAFAFA, 60, 980, 600, 60}};
	for (const auto &part : parts) {
		OBSSourceAutoRelease source = cvtest::make_colour(part.name, part.rgb, part.width, part.height);
		vec2 pos;
		vec2_set(&pos, float(part.x), float(part.y));
		obs_sceneitem_set_pos(obs_scene_add(game, source), &pos);
	}
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Game"));
	auto save = [&](const cvtest::Image &image, const std::string &name) {
		const std::string raw = temp_dir() + "/" + name + ".rgba";
		cvtest::write_file(raw, std::string(image.rgba.begin(), image.rgba.end()));
		std::string output;
		const std::string size = std::to_string(image.width) + "x" + std::to_string(image.height);
		EXPECT_EQ(cvtest::run_program({"ffmpeg", "-v", "error", "-y", "-f", "rawvideo", "-pix_fmt", "rgba",
					       "-s", size, "-i", raw, std::string(folder) + "/" + name + ".png"},
					      30000, &output),
			  0)
			<< output;
	};
	save(cvtest::render(
		     [&] {
			     gs_matrix_scale3f(0.5f, 0.5f, 1.0f);
			     obs_source_video_render(obs_scene_get_source(game));
		     },
		     960, 540),
	     "layout-obs-scene");
	cv::SceneLayout cover, fit, stack;
	cover.focus_x = 0.5;
	cover.focus_y = 0.6;
	cover.zoom = 1.2;
	fit.kind = cv::LayoutKind::Fit;
	stack.kind = cv::LayoutKind::Stack;
	stack.top = {1380, 60, 480, 270};
	stack.bottom = {560, 300, 800, 700};
	stack.split = 0.4;
	for (const auto &[layout, name] :
	     {std::pair{cover, "layout-cover"}, {fit, "layout-fit"}, {stack, "layout-stack"}})
		save(frame_with(layout), name);
	canvas.reset();
}
