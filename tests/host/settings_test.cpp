#include "fake_frontend.h"
#include "host_fixture.h"
#include "log_capture.h"

#include "core/settings_store.h"

#include <filesystem>

namespace fs = std::filesystem;
using cvtest::log_contains;

namespace {

class SettingsTest : public cvtest::HostTest {
protected:
	void TearDown() override
	{
		cv::save_and_close_configs();
		HostTest::TearDown();
	}

	std::string profile_file() const { return profile_dir() + "/corvane-vertical-canvas.ini"; }

	static void expect_fallbacks()
	{
		EXPECT_STREQ(cv::rtmpurl(), "");
		EXPECT_STREQ(cv::streamkey(), "");
		EXPECT_EQ(cv::videobitrate(), 4000u);
		EXPECT_EQ(cv::canvaswidth(), 1080u);
		EXPECT_EQ(cv::canvasheight(), 1920u);
		EXPECT_EQ(cv::fpsnum(), 30u);
		EXPECT_EQ(cv::fpsden(), 1u);
		EXPECT_TRUE(cv::autostartwithmain());
		EXPECT_STREQ(cv::encoderpreset(), "veryfast");
		EXPECT_TRUE(cv::useactivesceneaudio());
	}

	static void set_everything()
	{
		cv::set_rtmpurl(" rtmp://ingest.example/app ");
		cv::set_streamkey("k€y/with spaces");
		cv::set_videobitrate(6000);
		cv::set_canvaswidth(720);
		cv::set_canvasheight(1280);
		cv::set_fpsnum(60000);
		cv::set_fpsden(1001);
		cv::set_autostartwithmain(false);
		cv::set_encoderpreset("medium");
		cv::set_useactivesceneaudio(false);
	}
};

} // namespace

TEST_F(SettingsTest, WithoutOpenFilesGettersFallBackAndSettersAreIgnored)
{
	ASSERT_EQ(cv::profile_config(), nullptr);
	expect_fallbacks();
	set_everything();
	expect_fallbacks();
	cv::save_profile_config(); // nothing to save, nothing to push: no crash, no line
	EXPECT_FALSE(log_contains("Failed to save"));
}

TEST_F(SettingsTest, UnresolvableProfileDirectoryLeavesFallbacks)
{
	cv::load_profile_config();
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Could not resolve profile config path"));
	EXPECT_EQ(cv::profile_config(), nullptr);
	expect_fallbacks();
}

TEST_F(SettingsTest, FreshProfileFileReadsDefaultsAndStaysEmptyUntilSaved)
{
	cvtest::frontend::set_profile_dir(profile_dir() + "/nested/Main");
	cv::load_profile_config();
	const std::string file = profile_dir() + "/nested/Main/corvane-vertical-canvas.ini";
	ASSERT_NE(cv::profile_config(), nullptr);
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Profile config loaded from: " + file));
	expect_fallbacks();

	// Saving a file with nothing in it is no failure.
	cv::save_profile_config();
	EXPECT_FALSE(log_contains("Failed to save"));
	cv::load_profile_config();
	expect_fallbacks();
}

TEST_F(SettingsTest, ValuesSurviveSaveAndReopenOfRealFiles)
{
	cvtest::frontend::set_profile_dir(profile_dir());
	cv::load_profile_config();
	set_everything();
	cv::save_profile_config();

	// Null strings change nothing.
	cv::set_rtmpurl(nullptr);
	cv::set_streamkey(nullptr);
	cv::set_encoderpreset(nullptr);

	cv::load_profile_config(); // closes without saving, then reopens the saved file
	EXPECT_STREQ(cv::rtmpurl(), " rtmp://ingest.example/app ");
	EXPECT_STREQ(cv::streamkey(), "k€y/with spaces");
	EXPECT_EQ(cv::videobitrate(), 6000u);
	EXPECT_EQ(cv::canvaswidth(), 720u);
	EXPECT_EQ(cv::canvasheight(), 1280u);
	EXPECT_EQ(cv::fpsnum(), 60000u);
	EXPECT_EQ(cv::fpsden(), 1001u);
	EXPECT_FALSE(cv::autostartwithmain());
	EXPECT_STREQ(cv::encoderpreset(), "medium");
	EXPECT_FALSE(cv::useactivesceneaudio());

	// Set but not saved: a profile reload drops it.
	cv::set_videobitrate(9000);
	cv::load_profile_config();
	EXPECT_EQ(cv::videobitrate(), 6000u);
}

TEST_F(SettingsTest, TrailingSeparatorGivesDoubledSeparatorThatStillWorks)
{
	cvtest::frontend::set_profile_dir(profile_dir() + "/");
	EXPECT_EQ(cv::profile_config_path(), profile_dir() + "//corvane-vertical-canvas.ini");
	cv::load_profile_config();
	ASSERT_NE(cv::profile_config(), nullptr);
	cv::set_canvaswidth(900);
	cv::save_profile_config();
	EXPECT_NE(read_file(profile_file()).find("canvaswidth=900"), std::string::npos);
}

TEST_F(SettingsTest, GlobalFileLivesInTheModuleConfigFolderWithDockDefaults)
{
	cv::load_global_config();
	ASSERT_NE(cv::global_config(), nullptr);
	EXPECT_TRUE(fs::exists(global_config_file()));
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Global config loaded from: " + global_config_file()));
	config_t *global = cv::global_config();
	EXPECT_TRUE(config_get_bool(global, "VerticalCanvas", "dockvisible"));
	EXPECT_TRUE(config_get_bool(global, "VerticalCanvas", "dockfloating"));
	EXPECT_EQ(config_get_int(global, "VerticalCanvas", "dockarea"), 2);
	EXPECT_STREQ(config_get_string(global, "VerticalCanvas", "dockgeometry"), "");
}

TEST_F(SettingsTest, FilesThatCannotBeOpenedOrSavedAreLogged)
{
	// A folder where the file should be: it cannot be opened.
	fs::create_directories(profile_file());
	cvtest::frontend::set_profile_dir(profile_dir());
	cv::load_profile_config();
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Failed to open profile config: " + profile_file()));
	EXPECT_EQ(cv::profile_config(), nullptr);
	expect_fallbacks();

	// An open file whose folder disappears cannot be saved; the values stay in memory.
	fs::remove_all(profile_dir());
	cv::load_profile_config();
	ASSERT_NE(cv::profile_config(), nullptr);
	cv::set_videobitrate(7000);
	fs::remove_all(profile_dir());
	cv::save_profile_config();
	EXPECT_TRUE(log_contains("[corvane-obs-vertical] Failed to save profile config"));
	EXPECT_EQ(cv::videobitrate(), 7000u);
}
