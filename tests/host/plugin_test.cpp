// The plug-in object with real libobs and real settings files: what it reads, builds,
// refuses, restores and saves.

#include "frontend.h"
#include "host.h"
#include "process.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "plugin/plugin.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <tuple>

using Names = std::vector<std::string>;

namespace {

class PluginTest : public cvtest::HostTest {
protected:
	void TearDown() override
	{
		if (plugin)
			plugin->unload();
		plugin.reset();
		HostTest::TearDown();
	}

	cv::Plugin &load(bool expect_loaded = true)
	{
		plugin = std::make_unique<cv::Plugin>();
		EXPECT_EQ(plugin->load(), expect_loaded);
		return *plugin;
	}

	// Loads with this global file, as the host does: the front end's "finished loading"
	// then restores the scenes.
	cv::VerticalCanvas &restored_from(const std::string &global)
	{
		if (plugin)
			plugin->unload();
		cvtest::write_file(global_file(), global);
		load();
		plugin->handle_event(OBS_FRONTEND_EVENT_FINISHED_LOADING);
		return *plugin->canvas();
	}

	std::unique_ptr<cv::Plugin> plugin;
};

} // namespace

TEST_F(PluginTest, SettingsAreReadSavedAndReadAgain)
{
	// No profile folder known: the defaults.
	cvtest::frontend::set_profile_dir("");
	EXPECT_EQ(load().settings().canvasheight, 1920u);
	plugin->unload();

	cvtest::frontend::set_profile_dir(profile_dir() + "/nested/Main/");
	cv::PluginConfig edited = load().settings();
	// The first destination is where older versions kept the only one; a blank name reads
	// as the default one.
	EXPECT_EQ(edited.destinations.at(0).name, "Destination 1");
	edited.destinations = {{"Main", " rtmp://ingest.example/app ", "k\xE2\x82\xACy/with spaces", false, "id-1"},
			       {"", "srt://127.0.0.1:9000", "two", false, "id-2"},
			       {"Shorts", "rtmp://shorts.example/app", "three", true, "id-3"}};
	edited.audiotrack = 4;
	edited.autorecordwithmain = false;
	edited.videobitrate = 6000;
	edited.canvaswidth = 720;
	edited.fpsnum = 60000;
	edited.fpsden = 1001;
	edited.autostartwithmain = false;
	edited.encoderpreset = "medium";
	plugin->save_settings(edited);
	plugin->unload();
	// The file holds the keys: its owner's alone after every save, and once opened again.
	namespace fs = std::filesystem;
	const std::string file = profile_dir() + "/nested/Main/corvane-vertical-canvas.ini";
	const auto mode = [&] {
		return int(fs::status(file).permissions() & fs::perms::all);
	};
	EXPECT_EQ(mode(), 0600);
	fs::permissions(file, fs::perms::all);
	const cv::PluginConfig read = load().settings();
	EXPECT_EQ(mode(), 0600);
	ASSERT_EQ(read.destinations.size(), 3u);
	edited.destinations[1].name = "Destination 2";
	for (size_t i = 0; i < 3; i++)
		EXPECT_EQ(std::tie(read.destinations[i].name, read.destinations[i].url, read.destinations[i].key,
				   read.destinations[i].enabled, read.destinations[i].id),
			  std::tie(edited.destinations[i].name, edited.destinations[i].url, edited.destinations[i].key,
				   edited.destinations[i].enabled, edited.destinations[i].id));
	EXPECT_EQ(read.audiotrack, 4u);
	EXPECT_FALSE(read.autorecordwithmain);
	// Removed destinations leave nothing behind.
	edited.destinations.resize(1);
	plugin->save_settings(edited);
	EXPECT_EQ(cvtest::read_file(file).find("three"), std::string::npos);
	EXPECT_EQ(read.videobitrate, 6000u);
	EXPECT_EQ(plugin->canvas()->width(), 720u) << "the canvas is built from the file";
	EXPECT_EQ(read.fpsden, 1001u);
	EXPECT_FALSE(read.autostartwithmain);
	EXPECT_EQ(read.encoderpreset, "medium");
}

// A hand-edited canvas that cannot be used gets its default, with a warning, and keeps the
// user's value in the file for them to correct; a file that cannot be opened leaves the
// defaults. The file that holds keys is its owner's alone.
TEST_F(PluginTest, UnusableFilesFallBackWithoutLoss)
{
	cvtest::write_file(profile_file(), "[VerticalCanvas]\ncanvaswidth=0\nstreamkey=mine\n");
	ASSERT_NE(load().canvas(), nullptr);
	EXPECT_EQ(plugin->canvas()->width(), 1080u);
	EXPECT_EQ(plugin->setting_warnings(), (std::vector<cv::SettingWarning>{{"canvaswidth", "0"}}));
	plugin->save_settings(plugin->settings());
	plugin->unload();
	EXPECT_EQ(std::filesystem::status(profile_file()).permissions() & std::filesystem::perms::all,
		  std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
	std::filesystem::remove(profile_file());
	std::filesystem::create_directories(profile_file());
	EXPECT_EQ(load().settings().canvaswidth, 1080u);
}

// The vertical scenes go into the host's scene collection and come back from it, byte
// for byte; a collection without its own starts from the list earlier versions kept.
TEST_F(PluginTest, SceneListIsSavedAndRestored)
{
	OBSSceneAutoRelease host_a = obs_scene_create("Host A");
	const std::string emoji = "Intro \xF0\x9F\x8E\xAC";
	// The settings file's own special characters, and bytes that are not UTF-8 (only a
	// hand-edited file holds them), come back byte for byte.
	const std::string specials = "a=b ;#[Scenes] \\ \"q\"";
	const std::string not_utf8 = "\xff\xfe bad";
	cv::VerticalCanvas &canvas = restored_from("");
	EXPECT_EQ(canvas.scene_names(), Names{"Scene 1"});
	for (const std::string &name : {emoji, specials, not_utf8, std::string("Chat")})
		ASSERT_FALSE(plugin->create_scene(name));
	ASSERT_FALSE(plugin->assign_host_scene("Chat", "Host A"));
	EXPECT_FALSE(canvas.assign_scene_source(emoji, "Not Yet There"));
	ASSERT_FALSE(plugin->set_active_scene("Chat"));
	OBSDataAutoRelease saved = cvtest::frontend::saved_collection();
	plugin->unload();
	plugin.reset();

	load();
	cvtest::frontend::load_collection(saved);
	cv::VerticalCanvas &again = *plugin->canvas();
	EXPECT_EQ(again.scene_names(), (Names{"Scene 1", emoji, specials, not_utf8, "Chat"}));
	EXPECT_EQ(again.active_scene_name(), "Chat");
	EXPECT_EQ(again.scene_source_name("Chat"), "Host A");
	EXPECT_EQ(again.scene_source_name(emoji), "Not Yet There");

	// Hand-edited lists: empty names skipped, counts that lie, a duplicate entry (its
	// source wins), an active scene that does not exist, a count of billions.
	const std::string long_name(10000, 'n');
	const struct {
		std::string file;
		Names names;
		std::string active;
		std::string source; // of the first scene
	} cases[] = {
		{"[Scenes]\ncount=3\nactivescene=Z\nscene_0_name=X\nscene_1_name=\nscene_2_name=Z", {"X", "Z"}, "Z", ""},
		{"[Scenes]\ncount=1\nscene_0_name=X\nscene_1_name=Stale\n", {"X"}, "X", ""},
		{"[Scenes]\ncount=9\nactivescene=Gone\nscene_0_name=X\nscene_1_name=Y\n", {"X", "Y"}, "X", ""},
		{"[Scenes]\ncount=2\nscene_0_name=X\nscene_1_name=X\nscene_1_source=Host A\n", {"X"}, "X", "Host A"},
		{"[Scenes]\ncount=4000000000\nscene_0_name=" + long_name + "\n", {long_name}, long_name, ""},
	};
	for (const auto &c : cases) {
		const auto started = std::chrono::steady_clock::now();
		cv::VerticalCanvas &hostile = restored_from(c.file);
		EXPECT_EQ(hostile.scene_names(), c.names);
		EXPECT_EQ(hostile.active_scene_name(), c.active);
		EXPECT_EQ(hostile.scene_source_name(c.names[0]), c.source);
		EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5))
			<< "four billion positions were walked";
	}
}

// Layouts, the transition and following are kept with the vertical scenes in the
// collection; what cannot be used is refused, or from a hand-edited collection replaced
// by its default. Following, the canvas goes to the first vertical scene showing the
// host's program scene, and stays where no vertical scene shows it.
TEST_F(PluginTest, LayoutsTransitionAndFollowingLiveInTheCollection)
{
	OBSSceneAutoRelease game = obs_scene_create("Game"), chat = obs_scene_create("Chat");
	OBSSceneAutoRelease other = obs_scene_create("Other");
	cv::VerticalCanvas &canvas = restored_from("");
	for (const auto &[name, host] : {std::pair{"Game V", "Game"}, {"Chat V", "Chat"}, {"Chat V2", "Chat"}}) {
		ASSERT_FALSE(plugin->create_scene(name));
		ASSERT_FALSE(plugin->assign_host_scene(name, host));
	}
	cv::SceneLayout stack;
	stack.kind = cv::LayoutKind::Stack;
	stack.top = {0, 0, 640, 360};
	stack.split = 0.4;
	ASSERT_FALSE(plugin->set_scene_layout("Game V", stack));
	cv::SceneLayout too_close;
	too_close.zoom = 5;
	EXPECT_EQ(plugin->set_scene_layout("Game V", too_close).code, cv::ErrorCode::OutOfRange);
	EXPECT_EQ(plugin->set_scene_layout("Nope", stack).code, cv::ErrorCode::NoSuchScene);
	EXPECT_EQ(plugin->set_transition({"no_such_transition", 300}).code, cv::ErrorCode::NoSuchTransition);
	EXPECT_EQ(plugin->set_transition({"fade_transition", 20001}).code, cv::ErrorCode::OutOfRange);
	ASSERT_FALSE(plugin->set_transition({"swipe_transition", 700}));

	ASSERT_FALSE(plugin->set_follow_main_scene(true));
	for (const auto &[host, expected] :
	     {std::pair{chat.Get(), "Chat V"}, {other.Get(), "Chat V"}, {game.Get(), "Game V"}}) {
		cvtest::frontend::switch_scene(obs_scene_get_source(host));
		EXPECT_EQ(canvas.active_scene_name(), expected) << obs_source_get_name(obs_scene_get_source(host));
	}
	ASSERT_FALSE(plugin->set_follow_main_scene(false));
	cvtest::frontend::switch_scene(obs_scene_get_source(chat));
	EXPECT_EQ(canvas.active_scene_name(), "Game V") << "no longer following";
	ASSERT_FALSE(plugin->set_follow_main_scene(true));
	EXPECT_EQ(canvas.active_scene_name(), "Chat V") << "switched on, it follows at once";

	OBSDataAutoRelease saved = cvtest::frontend::saved_collection();
	plugin->unload();
	load();
	cvtest::frontend::load_collection(saved);
	cv::VerticalCanvas &again = *plugin->canvas();
	EXPECT_EQ(again.scene_layout("Game V"), stack);
	EXPECT_EQ(again.scene_layout("Chat V"), cv::SceneLayout());
	EXPECT_EQ(again.transition(), (cv::TransitionSettings{"swipe_transition", 700}));
	EXPECT_TRUE(again.follow_main());

	OBSDataAutoRelease edited = obs_data_create_from_json(R"({"corvane-vertical-canvas": {
		"scenes": [{"name": "X", "hostScene": "Game", "layout": {"layout": "sideways", "zoom": 9,
			"focusX": "left", "background": "red", "split": 0.3, "top": {"x": -5, "y": 0, "width": 9,
			"height": 9}, "bottom": {"x": 1, "y": 2, "width": 3, "height": 4}}}],
		"transition": {"transitionKind": "no_such_transition", "transitionDuration": 5},
		"followMainScene": "yes"}})");
	cvtest::frontend::load_collection(edited);
	cv::SceneLayout expected;
	expected.split = 0.3;
	expected.bottom = {1, 2, 3, 4};
	EXPECT_EQ(again.scene_layout("X"), expected);
	EXPECT_EQ(again.transition(), (cv::TransitionSettings{"swipe_transition", 700})) << "kept";
	EXPECT_FALSE(again.follow_main());
}
