#include "fake_frontend.h"
#include "host_fixture.h"
#include "log_capture.h"

#include "canvas/vertical_canvas.h"
#include "core/runtime.h"
#include "core/settings_store.h"

#include <obs-module.h>

#include <filesystem>

namespace fs = std::filesystem;
using cvtest::log_contains;
using cvtest::log_count;

// Defined by the module declaration macro, which declares it nowhere else.
extern "C" uint32_t obs_module_ver(void);

namespace {

class ModuleTest : public cvtest::HostTest {
protected:
	std::string profile_file() const { return profile_dir() + "/corvane-vertical-canvas.ini"; }
	void write_profile(const std::string &body) { write_file(profile_file(), "[VerticalCanvas]\n" + body); }
};

} // namespace

TEST_F(ModuleTest, IdentifiesItselfToTheHost)
{
	EXPECT_STREQ(obs_module_name(), "Corvane Vertical Canvas");
	EXPECT_STREQ(obs_module_description(), "Vertical canvas streams a second 9:16 RTMP output simultaneously");
	EXPECT_EQ(obs_module_ver(), uint32_t(LIBOBS_API_VER));
}

TEST_F(ModuleTest, LoadBuildsTheRuntimeAndUnloadSavesBothFiles)
{
	cvtest::frontend::set_profile_dir(profile_dir());
	write_profile("rtmpurl=rtmp://127.0.0.1/live\nvideobitrate=2500\nautostartwithmain=false\n");

	ASSERT_TRUE(obs_module_load());
	const std::string rule = "[corvane-obs-vertical] " + std::string(60, '=');
	EXPECT_EQ(log_count(rule), 3u);
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Loading version 1.0.0"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Loaded successfully"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Canvas : 1080x1920 @ 30/1 fps"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] RTMP : rtmp://127.0.0.1/live"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Bitrate: 2500 kbps"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Auto-start with main: no"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Runtime created: 1080x1920 @ 30/1 fps"));
	{
		std::lock_guard lock(cv::runtime_mutex());
		ASSERT_NE(cv::runtime_canvas(), nullptr);
		ASSERT_NE(cv::runtime_output(), nullptr);
		EXPECT_EQ(cv::runtime_canvas()->active_scene_name(), "Scene 1");
	}
	// The host's hooks: one event callback and the Tools menu item.
	EXPECT_EQ(cvtest::frontend::event_callback_count(), 1u);
	EXPECT_EQ(cvtest::frontend::tools_menu_items(),
		  std::vector<std::string>{"Corvane Vertical Streaming Settings"});

	// A save of the settings reaches the live output.
	cv::set_rtmpurl("rtmp://127.0.0.1/other");
	cv::save_profile_config();
	EXPECT_TRUE(
		log_contains("VerticalOutput config updated (url: rtmp://127.0.0.1/other, preferred_encoder: auto)"));

	obs_module_unload();
	EXPECT_EQ(cvtest::frontend::event_callback_count(), 0u);
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Unloading"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] VerticalOutput destroyed"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Canvas shut down"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Unloaded"));
	EXPECT_EQ(cv::runtime_canvas(), nullptr);
	EXPECT_EQ(cv::global_config(), nullptr);
	EXPECT_EQ(cv::profile_config(), nullptr);
	EXPECT_TRUE(fs::exists(global_config_file()));
	EXPECT_NE(read_file(profile_file()).find("rtmpurl=rtmp://127.0.0.1/other"), std::string::npos);
}

TEST_F(ModuleTest, LoadsFromFallbacksWhenNoProfileIsKnown)
{
	ASSERT_TRUE(obs_module_load());
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Could not resolve profile config path"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Canvas : 1080x1920 @ 30/1 fps"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Bitrate: 4000 kbps"));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Auto-start with main: yes"));
	obs_module_unload();
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Unloaded"));
}

TEST_F(ModuleTest, HandEditedCanvasFormatRefusesTheModuleWithoutCrashing)
{
	const char *bodies[] = {"canvaswidth=0\n", "fpsden=0\n", "canvasheight=tall\n", "canvaswidth=-1080\n",
				"fpsnum=99999999999\n"};
	for (const char *body : bodies) {
		SCOPED_TRACE(body);
		cvtest::clear_logs();
		cvtest::frontend::set_profile_dir(profile_dir());
		write_profile(body);

		EXPECT_FALSE(obs_module_load());
		EXPECT_EQ(log_count("[corvane-obs-vertical] Invalid canvas format"), 1u);
		EXPECT_TRUE(log_contains("[corvane-obs-vertical] Canvas init failed"));
		EXPECT_TRUE(log_contains("[corvane-obs-vertical] Runtime init failed — plugin will not load"));
		EXPECT_FALSE(log_contains("Loaded successfully"));
		// A refused module adds neither the event callback nor the menu item.
		EXPECT_EQ(cvtest::frontend::event_callback_count(), 0u);
		EXPECT_TRUE(cvtest::frontend::tools_menu_items().empty());
		EXPECT_EQ(cv::runtime_canvas(), nullptr);
		EXPECT_EQ(cv::runtime_output(), nullptr);

		// Unload after a refused load is safe and still saves and closes the files.
		obs_module_unload();
		EXPECT_TRUE(log_contains("[corvane-obs-vertical] Unloaded"));
		EXPECT_EQ(cv::profile_config(), nullptr);
		// The user's own value is kept for them to correct.
		EXPECT_NE(read_file(profile_file()).find(body), std::string::npos);
	}
}

TEST_F(ModuleTest, SecondCreationKeepsTheFirstRuntime)
{
	std::lock_guard lock(cv::runtime_mutex());
	ASSERT_TRUE(cv::create_runtime_from_current_profile());
	cv::VerticalCanvas *first = cv::runtime_canvas();
	EXPECT_FALSE(cv::create_runtime_from_current_profile());
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] create_runtime_from_current_profile called while runtime is "
				 "still alive"));
	EXPECT_EQ(cv::runtime_canvas(), first);
	cv::destroy_runtime(false);
	EXPECT_EQ(cv::runtime_canvas(), nullptr);
	EXPECT_EQ(cv::runtime_output(), nullptr);
}
