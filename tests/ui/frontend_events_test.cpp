// The front end's events in the host's own order: the main stream and recording, profile
// switches with the host's video reset between CHANGING and CHANGED, video settings
// applied, scene collections switched (the host removing every source in between) and
// host scenes renamed and removed; the dock is made once.

#include "ui_test.h"

#include "pipeline.h"
#include "servers.h"
#include "sources.h"

#include "canvas/vertical_canvas.h"
#include "media.h"
#include "output/vertical_output.h"
#include "output/vertical_recording.h"
#include "plugin/dock_placement.h"
#include "ui/settings_dialog.h"
#include "wait.h"

#include <QApplication>
#include <QDockWidget>
#include <QLabel>
#include <QMessageBox>

#include <util/config-file.h>
#include <util/util.hpp>

#include <chrono>
#include <tuple>

namespace {

class FrontendEventsTest : public PluginUiTest {
protected:
	bool vertical_active() const { return plugin_->output() && plugin_->output()->is_active(); }
	cv::StreamState state(size_t destination = 0) const
	{
		return plugin_->output()->destinations().at(destination).state;
	}
	bool wait_live(size_t destination = 0)
	{
		return cvtest::wait_until(
			[&] {
				cvtest::process_events_for(20);
				return state(destination) == cv::StreamState::Live;
			},
			20000);
	}
	bool wait_idle()
	{
		return cvtest::wait_until(
			[&] {
				cvtest::process_events_for(20);
				return plugin_->output()->idle();
			},
			10000);
	}
	// A stream of two seconds, from start to idle.
	void stream_briefly()
	{
		ASSERT_FALSE(plugin_->start_streaming());
		ASSERT_TRUE(wait_live());
		cvtest::sleep_ms(2000);
		plugin_->stop_streaming();
		ASSERT_TRUE(wait_idle());
	}
	QDockWidget *host_dock() const { return window_->findChild<QDockWidget *>(cv::kDockId); }
	// The dock's status, once its timer has seen the stream's state.
	QString status()
	{
		cvtest::process_events_for(1100);
		return dock_child<QLabel>("statusLabel")->text();
	}
	// The main recording takes a vertical one along, into the host's recording folder,
	// sharing the running encode, which it cannot pause alone. A folder that cannot be
	// written fails alone.
	void record_with_the_main_recording()
	{
		fire(OBS_FRONTEND_EVENT_RECORDING_STARTED);
		ASSERT_TRUE(plugin_->recording()->is_active());
		cv::VerticalRecording unwritable(*plugin_->output());
		EXPECT_EQ(unwritable.start(plugin_->recording()->path() + "/not-a-folder", "mp4").code,
			  cv::ErrorCode::NoRecordingFolder);
		cvtest::sleep_ms(1500);
		fire(OBS_FRONTEND_EVENT_RECORDING_PAUSED);
		cvtest::process_events_for(500);
		EXPECT_FALSE(plugin_->recording()->is_paused()) << "the stream shares its encoder";
		cvtest::sleep_ms(1500);
		fire(OBS_FRONTEND_EVENT_RECORDING_STOPPING);
		ASSERT_TRUE(cvtest::wait_until([&] { return !plugin_->recording()->is_active(); }, 5000));
		EXPECT_TRUE(vertical_active());
		const std::string file = plugin_->recording()->path();
		EXPECT_NE(file.find(" vertical.mkv"), std::string::npos) << file;
		const cvtest::StreamCheck check = cvtest::check_stream(file);
		EXPECT_EQ(check.error, "");
		EXPECT_EQ(check.audio_streams, 1u);
		EXPECT_EQ(cvtest::decode_frame_rgb(file, 1.0).size(), 360u * 640 * 3);
	}
	std::string rtmp_profile(const cvtest::RtmpServer &server, const std::string &key)
	{
		return "rtmpurl=" + server.app_url() + "\nstreamkey=" + key + "\ncanvaswidth=360\ncanvasheight=640\n";
	}
};

OBSDataAutoRelease collection_with(const std::string &json)
{
	return obs_data_create_from_json(json.c_str());
}

} // namespace

// Told not to follow the main stream, the vertical one is started and stopped from the
// dock instead; the dock's status follows either way. The vertical recording pauses with
// the host's when it has the encode to itself.
TEST_F(FrontendEventsTest, TheVerticalStreamFollowsTheMainStreamOrTheDock)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	for (const bool autostart : {true, false}) {
		SCOPED_TRACE(autostart ? "auto-start" : "no auto-start");
		load(rtmp_profile(server, autostart ? "auto" : "manual") +
		     (autostart ? "" : "autostartwithmain=false\n"));
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		EXPECT_EQ(vertical_active(), autostart);
		if (!autostart)
			dock_child("startButton")->click();
		ASSERT_TRUE(wait_live());
		EXPECT_EQ(status(), "Streaming");
		EXPECT_FALSE(dock_child("startButton")->isEnabled());
		if (autostart) {
			ASSERT_NO_FATAL_FAILURE(record_with_the_main_recording());
			fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
		} else {
			dock_child("stopButton")->click();
		}
		ASSERT_TRUE(wait_idle());
		EXPECT_EQ(status(), "Stopped");
		EXPECT_TRUE(dock_child("startButton")->isEnabled());
	}
	server.stop();
	EXPECT_EQ(server.recordings("auto").size(), 1u);
	EXPECT_EQ(server.recordings("manual").size(), 1u);

	const auto began = std::chrono::steady_clock::now();
	fire(OBS_FRONTEND_EVENT_RECORDING_STARTED);
	cvtest::sleep_ms(1500);
	for (const bool paused : {true, false}) {
		fire(paused ? OBS_FRONTEND_EVENT_RECORDING_PAUSED : OBS_FRONTEND_EVENT_RECORDING_UNPAUSED);
		EXPECT_TRUE(cvtest::wait_until([&] { return plugin_->recording()->is_paused() == paused; }, 3000));
		cvtest::sleep_ms(paused ? 3000 : 1500);
	}
	fire(OBS_FRONTEND_EVENT_RECORDING_STOPPED);
	ASSERT_TRUE(wait_idle());
	const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
	const cvtest::StreamCheck check = cvtest::check_stream(plugin_->recording()->path());
	EXPECT_EQ(check.error, "");
	EXPECT_LT(check.video_seconds, wall - 2.0) << "the paused three seconds are not in it";
}

// The host raises an event from inside a call the plug-in makes while it handles one: it
// is dropped rather than handled inside the one being handled.
TEST_F(FrontendEventsTest, AnEventRaisedWhileOneIsHandledIsDropped)
{
	load("rtmpurl=rtmp://127.0.0.1:1/live\nstreamkey=k\ncanvaswidth=360\ncanvasheight=640\n");
	static bool raised;
	raised = false;
	cvtest::frontend::on_next_profile_config([] {
		raised = true;
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	});
	fire(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
	EXPECT_TRUE(raised);
	EXPECT_EQ(cvtest::log_count("auto-starting vertical output"), 0u);
	// A second "finished loading" makes no second dock.
	fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	EXPECT_EQ(window_->findChildren<QDockWidget *>().size(), 1);
	EXPECT_EQ(host_dock()->widget(), static_cast<QWidget *>(plugin_->dock()));
}

// The first start docks the dock on the right, shown, covering none of the host's docks;
// later starts leave it where the host's own saved layout puts it.
TEST_F(FrontendEventsTest, TheDockComesBackWhereTheHostsLayoutHasIt)
{
	auto *scenes = new QDockWidget("Scenes", window_.get());
	scenes->setObjectName("scenesDock");
	window_->addDockWidget(Qt::BottomDockWidgetArea, scenes);
	window_->show();
	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_NE(host_dock(), nullptr);
	ASSERT_TRUE(cvtest::wait_until(
		[&] {
			cvtest::process_events_for(20);
			return host_dock()->isVisible();
		},
		5000));
	const std::optional<cv::DockPlacement> first = cv::dock_placement();
	ASSERT_TRUE(first);
	EXPECT_EQ((std::tuple{first->floating, first->area, first->covers}),
		  (std::tuple{false, std::string("right"), std::vector<std::string>()}));

	// The user tabs it with the host's Scenes dock; the host saves its layout at exit.
	window_->tabifyDockWidget(scenes, host_dock());
	fire(OBS_FRONTEND_EVENT_EXIT);
	cvtest::frontend::set_saved_dock_layout(window_->saveState().toBase64().toStdString());
	plugin_.reset();
	delete host_dock();

	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_NE(host_dock(), nullptr);
	EXPECT_EQ(window_->dockWidgetArea(host_dock()), Qt::BottomDockWidgetArea);
	EXPECT_EQ(window_->tabifiedDockWidgets(scenes), QList<QDockWidget *>{host_dock()});
	EXPECT_EQ(cvtest::log_count("Dock placed by the host's saved layout"), 1u);
}

// With only the vertical stream live, a profile switch stops it without holding up the
// host's window: the host's reset, refused while it still runs, and the new profile follow
// once it has stopped, and nothing of the old profile starts meanwhile. The new profile's
// canvas streams. A settings dialog left open closes, so nothing of one profile lands in
// the other.
TEST_F(FrontendEventsTest, AProfileSwitchInTheHostsOrder)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	const std::string other = temp_dir() + "/other";
	cvtest::write_file(other + "/corvane-vertical-canvas.ini", "[VerticalCanvas]\nrtmpurl=" + server.app_url() +
									   "\nstreamkey=second\ncanvaswidth=270\n"
									   "canvasheight=480\n");
	load(rtmp_profile(server, "first"));
	ASSERT_FALSE(plugin_->start_streaming());
	ASSERT_TRUE(wait_live());
	plugin_->open_settings_dialog();
	ASSERT_NE(plugin_->settings_dialog(), nullptr);
	EXPECT_EQ(QApplication::activeModalWidget(), nullptr) << "the host's window stays usable";

	cvtest::frontend::switch_profile(other, 1280, 720);
	EXPECT_EQ(plugin_->settings_dialog(), nullptr);
	const cv::Error early = plugin_->start_streaming();
	if (!early) {
		// The old stream had stopped and the new profile was in place already.
		EXPECT_EQ(plugin_->canvas()->width(), 270u);
		EXPECT_FALSE(plugin_->stop_streaming());
	} else {
		EXPECT_EQ(early.code, cv::ErrorCode::ProfileSwitching) << cv::english(early);
	}
	plugin_->open_settings_dialog();
	obs_video_info host = {};
	ASSERT_TRUE(cvtest::wait_until(
		[&] {
			cvtest::process_events_for(20);
			return obs_get_video_info(&host) && host.base_width == 1280u && plugin_->output()->idle() &&
			       plugin_->canvas() && plugin_->canvas()->width() == 270u;
		},
		10000))
		<< "host " << host.base_width << ", output idle " << plugin_->output()->idle() << ", canvas "
		<< (plugin_->canvas() ? plugin_->canvas()->width() : 0);
	ASSERT_NE(plugin_->settings_dialog(), nullptr) << "asked for meanwhile, it opens on the new profile";
	delete plugin_->settings_dialog();
	ASSERT_NO_FATAL_FAILURE(stream_briefly());
	server.stop();
	EXPECT_EQ(server.recordings("first").size(), 1u);
	const std::string second = server.recordings("second").back();
	EXPECT_EQ(cvtest::check_stream(second).error, "");
	EXPECT_EQ(cvtest::decode_frame_rgb(second, 1.0).size(), 270u * 480 * 3);
}

// Video settings applied while nothing vertical runs take effect and the vertical stream
// works after them; applied while it runs, the host refuses them: the user is told, and
// they apply once it has stopped.
TEST_F(FrontendEventsTest, TheHostsVideoSettingsAreNeverLeftUnapplied)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	ConfigFile basic;
	ASSERT_EQ(basic.Open((temp_dir() + "/basic.ini").c_str(), CONFIG_OPEN_ALWAYS), CONFIG_SUCCESS);
	cvtest::frontend::set_profile_config(basic);
	load(rtmp_profile(server, "reset"));
	auto video_to = [&](uint32_t width, uint32_t height) {
		for (const char *key : {"BaseCX", "OutputCX"})
			config_set_uint(basic, "Video", key, width);
		for (const char *key : {"BaseCY", "OutputCY"})
			config_set_uint(basic, "Video", key, height);
		obs_frontend_reset_video();
	};
	video_to(1280, 720);
	ASSERT_FALSE(plugin_->start_streaming());
	ASSERT_TRUE(wait_live());
	// Long enough for the encoder's first pictures to reach the server on a busy machine.
	cvtest::sleep_ms(1500);

	video_to(960, 540);
	obs_video_info host = {};
	ASSERT_TRUE(obs_get_video_info(&host));
	EXPECT_EQ(host.base_width, 1280u) << "refused while the vertical stream runs";
	ASSERT_TRUE(cvtest::wait_until(
		[&] {
			cvtest::process_events_for(50);
			return cvtest::log_count("could not apply its new video settings") > 0;
		},
		3000));
	plugin_->stop_streaming();
	ASSERT_TRUE(wait_idle());
	cvtest::process_events_for(200);
	ASSERT_TRUE(obs_get_video_info(&host));
	EXPECT_EQ(host.base_width, 960u) << "applied once it stopped";
	ASSERT_NO_FATAL_FAILURE(stream_briefly());
	server.stop();
	for (const std::string &file : server.recordings("reset"))
		EXPECT_EQ(cvtest::check_stream(file).error, "");
	EXPECT_EQ(server.recordings("reset").size(), 2u);
}

// The vertical scenes belong to the scene collection: saved into it, read from it, the
// list of earlier versions for one without its own. They follow host scenes that are
// renamed and let go of removed ones; a collection switch lets go of every host scene
// before the host clears them, so the new collection can make scenes of the old names.
// Only what is on the canvas is showing.
TEST_F(FrontendEventsTest, VerticalScenesBelongToTheCollectionAndFollowItsScenes)
{
	cvtest::write_file(global_file(), "[Scenes]\ncount=1\nscene_0_name=Legacy\nscene_0_source=Main\n");
	OBSSceneAutoRelease main = cvtest::make_band_scene("Main", {0x00FF00});
	OBSSceneAutoRelease chat = cvtest::make_band_scene("Chat", {0x0000FF});
	load("canvaswidth=360\ncanvasheight=640\n");
	cvtest::frontend::load_collection(collection_with(R"({"corvane-vertical-canvas": {"scenes": [
		{"name": "Intro", "hostScene": "Main"}, {"name": "Talk", "hostScene": "Chat"}], "active": "Intro"}})"));
	cv::VerticalCanvas *canvas = plugin_->canvas();
	EXPECT_EQ(canvas->scene_names(), (std::vector<std::string>{"Intro", "Talk"}));
	EXPECT_TRUE(obs_source_showing(obs_scene_get_source(main)));
	EXPECT_FALSE(obs_source_showing(obs_scene_get_source(chat))) << "assigned, not on the canvas";

	obs_source_set_name(obs_scene_get_source(main), "Stage");
	cvtest::process_events_for(100);
	EXPECT_EQ(canvas->scene_source_name("Intro"), "Stage");
	OBSDataAutoRelease saved = cvtest::frontend::saved_collection();
	EXPECT_NE(std::string(obs_data_get_json(saved)).find("\"Stage\""), std::string::npos);
	obs_source_remove(obs_scene_get_source(chat));
	cvtest::process_events_for(100);
	EXPECT_EQ(canvas->scene_source_name("Talk"), "");

	OBSWeakSourceAutoRelease old_main = obs_source_get_weak_source(obs_scene_get_source(main));
	main = nullptr;
	chat = nullptr;
	OBSDataAutoRelease first = cvtest::frontend::saved_collection();
	OBSSceneAutoRelease again;
	cvtest::frontend::switch_collection([&] { again = cvtest::make_band_scene("Stage", {0xFF0000}); }, nullptr);
	EXPECT_EQ(OBSSourceAutoRelease(obs_weak_source_get_source(old_main)).Get(), nullptr)
		<< "the old collection's scene is kept alive";
	EXPECT_STREQ(obs_source_get_name(obs_scene_get_source(again)), "Stage");
	EXPECT_EQ(canvas->scene_names(), std::vector<std::string>{"Legacy"}) << "no list of its own: the old one";

	again = nullptr;
	OBSSceneAutoRelease restored;
	cvtest::frontend::switch_collection([&] { restored = cvtest::make_band_scene("Stage", {0x00FF00}); }, first);
	EXPECT_EQ(canvas->scene_names(), (std::vector<std::string>{"Intro", "Talk"}));
	EXPECT_EQ(canvas->scene_source_name("Intro"), "Stage");
	EXPECT_TRUE(obs_source_showing(obs_scene_get_source(restored)));
	const cvtest::Image frame = cvtest::render([&] { canvas->render(); }, 360, 640);
	EXPECT_EQ(frame.rgb(180, 320), 0x00FF00u);
}
