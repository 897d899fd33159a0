#include "host_fixture.h"
#include "host_sources.h"
#include "log_capture.h"

#include "canvas/vertical_canvas.h"

#include <array>

using cv::CanvasConfig;
using cv::VerticalCanvas;
using cvtest::log_contains;
using cvtest::log_count;
using Names = std::vector<std::string>;

namespace {

constexpr uint32_t kMarker = 32;

class ScenesTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		canvas = std::make_unique<VerticalCanvas>(CanvasConfig{});
		ASSERT_TRUE(canvas->init());
	}
	void TearDown() override
	{
		canvas.reset();
		HostTest::TearDown();
	}

	// Name of the scene the view shows, or "" for none.
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

	std::unique_ptr<VerticalCanvas> canvas;
};

class ScenesWithoutAudioMarker : public ScenesTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		CanvasConfig config;
		config.use_active_scene_audio = false;
		canvas = std::make_unique<VerticalCanvas>(config);
		ASSERT_TRUE(canvas->init());
	}
};

} // namespace

TEST_F(ScenesTest, ListOrderAndActiveSceneThroughEdits)
{
	expect_list({"Scene 1"}, "Scene 1");
	EXPECT_TRUE(canvas->remove_scene("Scene 1"));
	expect_list({}, "");

	// The first scene created becomes active; later ones do not.
	EXPECT_TRUE(canvas->create_scene("A"));
	EXPECT_TRUE(canvas->create_scene("B"));
	EXPECT_TRUE(canvas->create_scene("C"));
	expect_list({"A", "B", "C"}, "A");

	EXPECT_TRUE(canvas->set_active_scene("C"));
	cvtest::clear_logs();
	EXPECT_TRUE(canvas->set_active_scene("C"));
	EXPECT_FALSE(log_contains("Active scene"));

	// Removing a scene before the active one keeps the same scene active.
	EXPECT_TRUE(canvas->remove_scene("A"));
	expect_list({"B", "C"}, "C");
	// Removing the active scene activates the first remaining one.
	EXPECT_TRUE(canvas->remove_scene("C"));
	expect_list({"B"}, "B");

	EXPECT_TRUE(canvas->create_scene("D"));
	EXPECT_TRUE(canvas->create_scene("E"));
	EXPECT_TRUE(canvas->set_active_scene("D"));
	EXPECT_TRUE(canvas->remove_scene("E")); // after the active one
	expect_list({"B", "D"}, "D");

	// Renaming keeps the position and the active scene, and renames the private scene.
	EXPECT_TRUE(canvas->rename_scene("D", "Dee"));
	expect_list({"B", "Dee"}, "Dee");
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Scene renamed: D -> Dee"));
	cvtest::clear_logs();
	EXPECT_TRUE(canvas->rename_scene("B", "B"));
	EXPECT_FALSE(log_contains("renamed"));
	EXPECT_FALSE(canvas->rename_scene("B", "Dee"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] rename_scene — name already in use: Dee"));
	EXPECT_FALSE(canvas->rename_scene("Nope", "X"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] rename_scene — not found: Nope"));

	EXPECT_FALSE(canvas->create_scene("B"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Scene already exists: B"));
	EXPECT_FALSE(canvas->remove_scene("Nope"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] remove_scene — not found: Nope"));
	EXPECT_FALSE(canvas->set_active_scene("Nope"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] set_active_scene — not found: Nope"));
	expect_list({"B", "Dee"}, "Dee");

	// Removing the last scene is allowed and leaves the view empty.
	EXPECT_TRUE(canvas->remove_scene("B"));
	EXPECT_TRUE(canvas->remove_scene("Dee"));
	expect_list({}, "");
	EXPECT_FALSE(canvas->set_active_scene("B"));
}

TEST_F(ScenesTest, NamesAreComparedByteForByte)
{
	const std::string emoji = "Vertical \xF0\x9F\x8E\xAC Intro";
	EXPECT_TRUE(canvas->create_scene("intro"));
	EXPECT_TRUE(canvas->create_scene("Intro"));
	EXPECT_TRUE(canvas->create_scene(emoji));
	EXPECT_TRUE(canvas->create_scene("Intro ")); // a trailing blank is part of the name
	EXPECT_FALSE(canvas->create_scene("Intro"));
	EXPECT_EQ(canvas->scene_names(), (Names{"Scene 1", "intro", "Intro", emoji, "Intro "}));

	EXPECT_TRUE(canvas->set_active_scene(emoji));
	EXPECT_EQ(canvas->active_scene_name(), emoji);
	EXPECT_FALSE(canvas->rename_scene("intro", "Intro"));
	EXPECT_TRUE(canvas->rename_scene("intro", "INTRO"));
	EXPECT_TRUE(canvas->remove_scene("Intro"));
	EXPECT_EQ(canvas->scene_names(), (Names{"Scene 1", "INTRO", emoji, "Intro "}));
	EXPECT_EQ(canvas->active_scene_name(), emoji);
}

TEST_F(ScenesTest, AssignedSourceCoversTheCanvas)
{
	OBSSceneAutoRelease landscape = obs_scene_create("Landscape"); // host canvas size, 1920x1080
	OBSSourceAutoRelease portrait = cvtest::make_colour("Portrait", 0x00FF00, 1080, 1920);
	obs_scene_t *vertical = obs_scene_from_source(OBSSourceAutoRelease(obs_view_get_source(canvas->view(), 0)));
	ASSERT_NE(vertical, nullptr);

	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Landscape"));
	auto items = cvtest::scene_items(vertical);
	ASSERT_EQ(items.size(), 1u);
	EXPECT_EQ(obs_sceneitem_get_source(items[0]), obs_scene_get_source(landscape));
	vec2 scale, pos;
	obs_sceneitem_get_scale(items[0], &scale);
	obs_sceneitem_get_pos(items[0], &pos);
	EXPECT_NEAR(scale.x, 1.7778, 1e-4);
	EXPECT_NEAR(scale.y, 1.7778, 1e-4);
	// Newer hosts keep item positions on a half-pixel grid (-1166.5).
	EXPECT_NEAR(pos.x, -1166.7, 0.25);
	EXPECT_NEAR(pos.y, 0.0, 0.05);
	EXPECT_EQ(obs_sceneitem_get_alignment(items[0]), uint32_t(OBS_ALIGN_LEFT | OBS_ALIGN_TOP));
	EXPECT_EQ(obs_sceneitem_get_bounds_type(items[0]), OBS_BOUNDS_NONE);
	EXPECT_TRUE(log_contains(
		"[corvane-obs-vertical] Source 'Landscape' placed: src=1920x1080 scale=1.7778 pos=(-1166.7,0.0)"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Scene 'Scene 1': source assigned → 'Landscape'"));
	EXPECT_EQ(canvas->active_source(), obs_scene_get_source(landscape));

	// Assigning again (as the re-apply after a restore does) leaves one item.
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Landscape"));
	EXPECT_EQ(cvtest::scene_items(vertical).size(), 1u);

	// A renamed scene still shows the same picture.
	ASSERT_TRUE(canvas->rename_scene("Scene 1", "Main"));
	EXPECT_EQ(shown(), "Main");
	vertical = obs_scene_from_source(OBSSourceAutoRelease(obs_view_get_source(canvas->view(), 0)));
	items = cvtest::scene_items(vertical);
	ASSERT_EQ(items.size(), 1u);
	EXPECT_EQ(obs_sceneitem_get_source(items[0]), obs_scene_get_source(landscape));
	ASSERT_TRUE(canvas->rename_scene("Main", "Scene 1"));
	vertical = obs_scene_from_source(OBSSourceAutoRelease(obs_view_get_source(canvas->view(), 0)));

	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Portrait"));
	items = cvtest::scene_items(vertical);
	ASSERT_EQ(items.size(), 1u);
	obs_sceneitem_get_scale(items[0], &scale);
	obs_sceneitem_get_pos(items[0], &pos);
	EXPECT_FLOAT_EQ(scale.x, 1.0f);
	EXPECT_FLOAT_EQ(pos.x, 0.0f);
	EXPECT_FLOAT_EQ(pos.y, 0.0f);
	EXPECT_EQ(canvas->scene_source_name("Scene 1"), "Portrait");

	// An unknown name is kept for later but the old picture stays.
	EXPECT_FALSE(canvas->assign_scene_source("Scene 1", "Not There Yet"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] assign_scene_source — OBS source not found: Not There Yet"));
	EXPECT_EQ(canvas->scene_source_name("Scene 1"), "Not There Yet");
	items = cvtest::scene_items(vertical);
	ASSERT_EQ(items.size(), 1u);
	EXPECT_EQ(obs_sceneitem_get_source(items[0]), portrait.Get());
	EXPECT_EQ(canvas->active_source(), nullptr);

	// An empty name clears the scene.
	EXPECT_TRUE(canvas->assign_scene_source("Scene 1", ""));
	EXPECT_TRUE(cvtest::scene_items(vertical).empty());
	EXPECT_EQ(canvas->scene_source_name("Scene 1"), "");
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Scene 'Scene 1': source cleared"));

	EXPECT_FALSE(canvas->assign_scene_source("Missing", "Landscape"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] assign_scene_source — scene not found: Missing"));
	EXPECT_EQ(canvas->scene_source_name("Missing"), "");
}

TEST_F(ScenesTest, AssignedSourcesAreShownWhileAssignedAndReleasedAfterwards)
{
	OBSSceneAutoRelease one = obs_scene_create("One");
	OBSSceneAutoRelease two = obs_scene_create("Two");
	OBSWeakSourceAutoRelease weak_one = obs_source_get_weak_source(obs_scene_get_source(one));
	OBSWeakSourceAutoRelease weak_two = obs_source_get_weak_source(obs_scene_get_source(two));
	obs_source_t *src_one = obs_scene_get_source(one);
	obs_source_t *src_two = obs_scene_get_source(two);
	EXPECT_FALSE(obs_source_showing(src_one));

	ASSERT_TRUE(canvas->create_scene("A"));
	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->assign_scene_source("A", "One"));
	ASSERT_TRUE(canvas->assign_scene_source("B", "One"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Two"));
	// Every assigned source is showing, active scene or not.
	EXPECT_TRUE(obs_source_showing(src_one));
	EXPECT_TRUE(obs_source_showing(src_two));
	ASSERT_TRUE(canvas->set_active_scene("B"));
	EXPECT_TRUE(obs_source_showing(src_two));

	// Reassign, rename, remove: each drops exactly what it held.
	ASSERT_TRUE(canvas->assign_scene_source("A", "Two"));
	ASSERT_TRUE(canvas->rename_scene("A", "A2"));
	ASSERT_TRUE(canvas->remove_scene("B"));
	EXPECT_FALSE(obs_source_showing(src_one));
	EXPECT_TRUE(obs_source_showing(src_two));
	ASSERT_TRUE(canvas->assign_scene_source("A2", ""));
	EXPECT_TRUE(obs_source_showing(src_two)); // still on "Scene 1"

	canvas->shutdown();
	EXPECT_FALSE(obs_source_showing(src_one));
	EXPECT_FALSE(obs_source_showing(src_two));

	// With our own references gone, nothing else keeps the sources alive.
	obs_source_remove(src_one);
	obs_source_remove(src_two);
	one = nullptr;
	two = nullptr;
	EXPECT_TRUE(cvtest::source_released(weak_one));
	EXPECT_TRUE(cvtest::source_released(weak_two));
}

TEST_F(ScenesTest, AudioMarkerFollowsTheActiveScene)
{
	// Mixer tracks exist only on sources with audio (a media source here).
	OBSSourceAutoRelease one = cvtest::make_audio_source("One");
	OBSSourceAutoRelease two = cvtest::make_audio_source("Two");
	obs_source_t *src_one = one;
	obs_source_t *src_two = two;
	obs_source_set_audio_mixers(src_one, 0b000101);
	obs_source_set_audio_mixers(src_two, 0b000011);
	auto marked = [&] {
		return std::array<bool, 2>{(obs_source_get_audio_mixers(src_one) & kMarker) != 0,
					   (obs_source_get_audio_mixers(src_two) & kMarker) != 0};
	};

	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "One")); // active
	EXPECT_EQ(marked(), (std::array<bool, 2>{true, false}));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Two")); // not active
	EXPECT_EQ(marked(), (std::array<bool, 2>{true, false}));
	ASSERT_TRUE(canvas->set_active_scene("B"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, true}));
	ASSERT_TRUE(canvas->rename_scene("B", "Bee"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, true}));
	ASSERT_TRUE(canvas->remove_scene("Bee")); // "Scene 1" becomes active again
	EXPECT_EQ(marked(), (std::array<bool, 2>{true, false}));
	ASSERT_FALSE(canvas->assign_scene_source("Scene 1", "Nowhere"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, false}));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Two"));
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, true}));

	canvas->shutdown();
	EXPECT_EQ(marked(), (std::array<bool, 2>{false, false}));
	// The user's own track choices are untouched.
	EXPECT_EQ(obs_source_get_audio_mixers(src_one), 0b000101u);
	EXPECT_EQ(obs_source_get_audio_mixers(src_two), 0b000011u);
}

TEST_F(ScenesWithoutAudioMarker, MarkerIsNeverAddedButAlwaysTakenOff)
{
	OBSSourceAutoRelease one = cvtest::make_audio_source("One");
	OBSSourceAutoRelease two = cvtest::make_audio_source("Two");
	OBSSourceAutoRelease three = cvtest::make_audio_source("Three");
	obs_source_t *src_one = one;
	obs_source_t *src_two = two;
	obs_source_t *src_three = three;
	obs_source_set_audio_mixers(src_one, 0b000001);
	obs_source_set_audio_mixers(src_two, 0b100010); // the user put it on track 6
	obs_source_set_audio_mixers(src_three, 0b100100);

	ASSERT_TRUE(canvas->create_scene("B"));
	ASSERT_TRUE(canvas->create_scene("C"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "One"));
	ASSERT_TRUE(canvas->assign_scene_source("B", "Two"));
	ASSERT_TRUE(canvas->assign_scene_source("C", "Three"));
	ASSERT_TRUE(canvas->set_active_scene("B"));
	EXPECT_EQ(obs_source_get_audio_mixers(src_one), 0b000001u);
	EXPECT_EQ(obs_source_get_audio_mixers(src_two), 0b100010u);

	ASSERT_TRUE(canvas->assign_scene_source("B", "")); // unassigned
	EXPECT_EQ(obs_source_get_audio_mixers(src_two), 0b000010u);
	ASSERT_TRUE(canvas->assign_scene_source("B", "Two"));
	obs_source_set_audio_mixers(src_two, 0b100010);
	ASSERT_TRUE(canvas->remove_scene("B")); // removed
	EXPECT_EQ(obs_source_get_audio_mixers(src_two), 0b000010u);
	canvas->shutdown(); // shut down
	EXPECT_EQ(obs_source_get_audio_mixers(src_three), 0b000100u);
	EXPECT_EQ(obs_source_get_audio_mixers(src_one), 0b000001u);
}

TEST_F(ScenesTest, CanvasSendsTheMiddleThirdOfTheHostSceneFullWidth)
{
	// Red | green | blue across the 1920x1080 host scene.
	OBSSceneAutoRelease host = cvtest::make_three_band_scene("Show", 0xFF0000, 0x00FF00, 0x0000FF);
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show"));

	const cvtest::Image frame = cvtest::render_view(canvas->view(), canvas->width(), canvas->height());
	ASSERT_EQ(frame.width, 1080u);
	ASSERT_EQ(frame.height, 1920u);
	// Left edge, centre and right edge of the top, middle and bottom rows: all from the
	// middle band; the outer bands are cut off.
	for (uint32_t y : {2u, 960u, 1917u}) {
		for (uint32_t x : {1u, 540u, 1078u}) {
			SCOPED_TRACE("x=" + std::to_string(x) + " y=" + std::to_string(y));
			EXPECT_EQ(frame.rgb(x, y), 0x00FF00u);
		}
	}
}
