#include "host_fixture.h"
#include "log_capture.h"

#include "canvas/vertical_canvas.h"
#include "core/runtime.h"
#include "core/scene_list_store.h"
#include "core/settings_store.h"

#include <chrono>
#include <mutex>

using cvtest::log_contains;
using Names = std::vector<std::string>;

namespace {

class SceneListStoreTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		for (const char *name : {"Host A", "Host B", "Host C"})
			host_scenes.emplace_back(obs_scene_create(name));
	}

	void TearDown() override
	{
		{
			std::lock_guard lock(cv::runtime_mutex());
			cv::destroy_runtime(false);
		}
		cv::save_and_close_configs();
		host_scenes.clear();
		HostTest::TearDown();
	}

	// Builds a runtime on the global file as it is on disk now.
	cv::VerticalCanvas *fresh_runtime()
	{
		std::lock_guard lock(cv::runtime_mutex());
		cv::destroy_runtime(false);
		cv::load_global_config();
		EXPECT_TRUE(cv::create_runtime_from_current_profile());
		return cv::runtime_canvas();
	}

	// Writes the global file by hand, then restores from it into a fresh runtime.
	cv::VerticalCanvas *restore_from(const std::string &scenes_section)
	{
		cv::save_and_close_configs();
		write_file(global_config_file(), scenes_section);
		cv::VerticalCanvas *canvas = fresh_runtime();
		cvtest::clear_logs();
		std::lock_guard lock(cv::runtime_mutex());
		cv::restore_scene_list();
		cv::reapply_scene_sources();
		return canvas;
	}

	std::vector<OBSSceneAutoRelease> host_scenes;
};

} // namespace

TEST_F(SceneListStoreTest, ListSurvivesSaveShutdownAndRestore)
{
	cv::VerticalCanvas *canvas = fresh_runtime();
	ASSERT_TRUE(canvas->create_scene("Intro \xF0\x9F\x8E\xAC"));
	ASSERT_TRUE(canvas->create_scene("Chat"));
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Host B"));
	ASSERT_TRUE(canvas->assign_scene_source("Chat", "Host A"));
	EXPECT_FALSE(canvas->assign_scene_source("Intro \xF0\x9F\x8E\xAC", "Not Yet There"));
	ASSERT_TRUE(canvas->set_active_scene("Chat"));
	cv::save_scene_list_locked();
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Scene list saved (3 scene(s))"));

	const std::string file = read_file(global_config_file());
	EXPECT_NE(file.find("count=3"), std::string::npos);
	EXPECT_NE(file.find("activescene=Chat"), std::string::npos);
	EXPECT_NE(file.find("scene_1_source=Not Yet There"), std::string::npos);

	canvas = fresh_runtime(); // the old canvas is shut down and deleted first
	EXPECT_EQ(canvas->scene_names(), Names{"Scene 1"});
	cvtest::clear_logs();
	{
		std::lock_guard lock(cv::runtime_mutex());
		cv::restore_scene_list();
		cv::reapply_scene_sources();
	}
	EXPECT_EQ(canvas->scene_names(), (Names{"Scene 1", "Intro \xF0\x9F\x8E\xAC", "Chat"}));
	EXPECT_EQ(canvas->active_scene_name(), "Chat");
	EXPECT_EQ(canvas->scene_source_name("Scene 1"), "Host B");
	EXPECT_EQ(canvas->scene_source_name("Chat"), "Host A");
	EXPECT_EQ(canvas->scene_source_name("Intro \xF0\x9F\x8E\xAC"), "Not Yet There");
	EXPECT_EQ(canvas->active_source(), obs_scene_get_source(host_scenes[0]));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Restored 3 scene(s), active: Chat"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Re-applying source 'Host A' → scene 'Chat'"));
}

TEST_F(SceneListStoreTest, ShrinkingListLeavesStaleKeysThatRestoreIgnores)
{
	cv::VerticalCanvas *canvas = fresh_runtime();
	for (const char *name : {"B", "C", "D", "E"})
		ASSERT_TRUE(canvas->create_scene(name));
	cv::save_scene_list_locked();
	ASSERT_TRUE(canvas->remove_scene("C"));
	ASSERT_TRUE(canvas->remove_scene("E"));
	cv::save_scene_list_locked();
	const std::string file = read_file(global_config_file());
	EXPECT_NE(file.find("count=3"), std::string::npos);
	EXPECT_NE(file.find("scene_4_name=E"), std::string::npos);

	canvas = fresh_runtime();
	std::lock_guard lock(cv::runtime_mutex());
	cv::restore_scene_list();
	EXPECT_EQ(canvas->scene_names(), (Names{"Scene 1", "B", "D"}));
}

TEST_F(SceneListStoreTest, RestoreRules)
{
	// No section at all: the default scene stays.
	cv::VerticalCanvas *canvas = restore_from("");
	EXPECT_EQ(canvas->scene_names(), Names{"Scene 1"});
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] No saved scenes — keeping default Scene 1"));

	// Empty names are skipped; the log reports the count as written.
	canvas = restore_from("[Scenes]\ncount=3\nactivescene=Z\nscene_0_name=X\nscene_1_name=\nscene_2_name=Z\n");
	EXPECT_EQ(canvas->scene_names(), (Names{"X", "Z"}));
	EXPECT_EQ(canvas->active_scene_name(), "Z");
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Restored 3 scene(s), active: Z"));

	// A count larger than the entries, and keys past the count, are both harmless.
	canvas = restore_from("[Scenes]\ncount=2\nscene_0_name=X\nscene_2_name=Stale\n");
	EXPECT_EQ(canvas->scene_names(), Names{"X"});
	canvas = restore_from("[Scenes]\ncount=9\nscene_0_name=X\nscene_1_name=Y\n");
	EXPECT_EQ(canvas->scene_names(), (Names{"X", "Y"}));

	// A duplicate entry re-assigns the source of the scene that exists already.
	canvas = restore_from("[Scenes]\ncount=2\nscene_0_name=X\nscene_0_source=Host A\n"
			      "scene_1_name=X\nscene_1_source=Host C\n");
	EXPECT_EQ(canvas->scene_names(), Names{"X"});
	EXPECT_EQ(canvas->scene_source_name("X"), "Host C");

	// A saved "Scene 1" is removed as the default and made again with its source.
	canvas = restore_from("[Scenes]\ncount=1\nactivescene=Scene 1\nscene_0_name=Scene 1\nscene_0_source=Host B\n");
	EXPECT_EQ(canvas->scene_names(), Names{"Scene 1"});
	EXPECT_EQ(canvas->active_source(), obs_scene_get_source(host_scenes[1]));

	// Missing activescene key: "(none)"; an empty one: an empty name; neither activates.
	canvas = restore_from("[Scenes]\ncount=2\nscene_0_name=X\nscene_1_name=Y\n");
	EXPECT_EQ(canvas->active_scene_name(), "X");
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Restored 2 scene(s), active: (none)"));
	canvas = restore_from("[Scenes]\ncount=2\nactivescene=\nscene_0_name=X\nscene_1_name=Y\n");
	EXPECT_EQ(canvas->active_scene_name(), "X");
	EXPECT_TRUE(cvtest::log_has_line("[corvane-obs-vertical] Restored 2 scene(s), active: "));
	EXPECT_FALSE(log_contains("set_active_scene"));

	// An active scene that does not exist leaves the first one active.
	canvas = restore_from("[Scenes]\ncount=1\nactivescene=Gone\nscene_0_name=X\n");
	EXPECT_EQ(canvas->active_scene_name(), "X");
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] set_active_scene — not found: Gone"));
}

TEST_F(SceneListStoreTest, HandEditedHostileFileRestoresQuickly)
{
	const std::string long_name(10000, 'n');
	const std::string bad_utf8 = "Bad \xC3\x28 \xFF\xFE name";
	const auto started = std::chrono::steady_clock::now();
	cv::VerticalCanvas *canvas = restore_from("[Scenes]\ncount=4000000000\nactivescene=" + bad_utf8 +
						  "\nscene_0_name=" + long_name + "\nscene_0_source=" + long_name +
						  "\nscene_1_name=" + bad_utf8 + "\nscene_1_source=Host A\n");
	const auto elapsed = std::chrono::steady_clock::now() - started;

	EXPECT_EQ(canvas->scene_names(), (Names{long_name, bad_utf8}));
	EXPECT_EQ(canvas->active_scene_name(), bad_utf8);
	EXPECT_EQ(canvas->active_source(), obs_scene_get_source(host_scenes[0]));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Saved scene count 4000000000 is implausible"));
	// Not a speed measurement: only a guard against walking four billion positions.
	EXPECT_LT(elapsed, std::chrono::seconds(5));

	// The list saves back intact.
	cv::save_scene_list_locked();
	canvas = fresh_runtime();
	std::lock_guard lock(cv::runtime_mutex());
	cv::restore_scene_list();
	EXPECT_EQ(canvas->scene_names(), (Names{long_name, bad_utf8}));
}
