// The front end's events: the vertical stream follows the main one; the dock is made once.

#include "ui_test.h"

#include "pipeline.h"
#include "servers.h"

#include "media.h"
#include "output/vertical_output.h"
#include "output/vertical_recording.h"
#include "plugin/dock_placement.h"
#include "wait.h"

#include <QDockWidget>
#include <QLabel>

namespace {

class FrontendEventsTest : public PluginUiTest {
protected:
	bool vertical_active() const { return plugin_->output() && plugin_->output()->is_active(); }
	QDockWidget *host_dock() const { return window_->findChild<QDockWidget *>(cv::kDockId); }
	// The dock's status, once its timer has seen the stream's state.
	QString status()
	{
		cvtest::process_events_for(1100);
		return dock_child<QLabel>("statusLabel")->text();
	}
	// The main recording takes a vertical one along, into the host's recording folder,
	// sharing the running encode. A folder that cannot be written fails alone.
	void record_with_the_main_recording()
	{
		fire(OBS_FRONTEND_EVENT_RECORDING_STARTED);
		ASSERT_TRUE(plugin_->recording()->is_active());
		cv::VerticalRecording unwritable(plugin_->output()->encoders());
		EXPECT_FALSE(unwritable.start(plugin_->recording()->path() + "/not-a-folder", "mp4"));
		EXPECT_NE(unwritable.error(), "");
		cvtest::sleep_ms(3000);
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
};

} // namespace

// Told not to follow the main stream, the vertical one is started and stopped from the
// dock instead; the dock's status follows either way.
TEST_F(FrontendEventsTest, TheVerticalStreamFollowsTheMainStreamOrTheDock)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	const std::string profile = "rtmpurl=" + server.app_url() + "\ncanvaswidth=360\ncanvasheight=640\n";
	for (const bool autostart : {true, false}) {
		SCOPED_TRACE(autostart ? "auto-start" : "no auto-start");
		load(profile + (autostart ? "streamkey=auto\n" : "streamkey=manual\nautostartwithmain=false\n"));
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		EXPECT_EQ(vertical_active(), autostart);
		if (!autostart)
			dock_child("startButton")->click();
		ASSERT_TRUE(cvtest::wait_mux_connected(20000));
		EXPECT_EQ(status(), "Streaming");
		EXPECT_FALSE(dock_child("startButton")->isEnabled());
		if (autostart) {
			ASSERT_NO_FATAL_FAILURE(record_with_the_main_recording());
			fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
		} else {
			dock_child("stopButton")->click();
		}
		EXPECT_TRUE(cvtest::wait_until([&] { return !vertical_active(); }, 5000));
		EXPECT_EQ(status(), "Stopped");
		EXPECT_TRUE(dock_child("startButton")->isEnabled());
	}
	server.stop();
	EXPECT_EQ(server.recordings("auto").size(), 1u);
	EXPECT_EQ(server.recordings("manual").size(), 1u);
}

// The host raises an event from inside the dock's registration: it is dropped rather
// than handled inside the one being handled.
TEST_F(FrontendEventsTest, AnEventRaisedWhileOneIsHandledIsDropped)
{
	cvtest::frontend::on_next_add_dock([] { fire(OBS_FRONTEND_EVENT_STREAMING_STARTING); });
	load("rtmpurl=rtmp://127.0.0.1:1/live\nstreamkey=k\ncanvaswidth=360\ncanvasheight=640\n");
	EXPECT_EQ(cvtest::log_count("auto-starting vertical output"), 0u);
	// A second "finished loading" makes no second dock.
	fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	EXPECT_EQ(window_->findChildren<QDockWidget *>().size(), 1);
	EXPECT_EQ(host_dock()->widget(), static_cast<QWidget *>(plugin_->dock()));
}

// The first start of all floats the dock, shown; later starts place it as recorded at
// the last exit.
TEST_F(FrontendEventsTest, TheDockComesBackAsTheUserLeftIt)
{
	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_NE(host_dock(), nullptr);
	EXPECT_TRUE(host_dock()->isFloating());
	EXPECT_FALSE(host_dock()->isHidden());
	window_->show();
	window_->addDockWidget(Qt::LeftDockWidgetArea, host_dock());
	host_dock()->setFloating(false);
	host_dock()->hide();
	fire(OBS_FRONTEND_EVENT_EXIT);
	plugin_.reset();
	delete host_dock();

	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_NE(host_dock(), nullptr);
	EXPECT_FALSE(host_dock()->isFloating());
	EXPECT_TRUE(host_dock()->isHidden());
	EXPECT_EQ(window_->dockWidgetArea(host_dock()), Qt::LeftDockWidgetArea);
}
