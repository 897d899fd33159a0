// The front end's events reaching the plug-in: the vertical stream follows the main one,
// the dock is made once and placed as the user left it, a profile switch rebuilds
// everything (or says why it could not).

#include "ui_test.h"

#include "pipeline.h"
#include "servers.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "plugin/dock_placement.h"
#include "ui/vertical_dock.h"
#include "wait.h"

#include <QDockWidget>
#include <QListWidget>
#include <QMessageBox>

namespace {

class FrontendEventsTest : public PluginUiTest {
protected:
	bool vertical_active() const { return plugin_->output() && plugin_->output()->is_active(); }
	QDockWidget *host_dock() const { return window_->findChild<QDockWidget *>(cv::kDockId); }
};

} // namespace

TEST_F(FrontendEventsTest, TheVerticalStreamFollowsTheMainStream)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	const std::string profile = "rtmpurl=" + server.app_url() + "\ncanvaswidth=360\ncanvasheight=640\n";
	for (const bool autostart : {true, false}) {
		SCOPED_TRACE(autostart ? "auto-start" : "no auto-start");
		if (plugin_)
			plugin_->unload();
		load(profile + (autostart ? "streamkey=auto\n" : "streamkey=manual\nautostartwithmain=false\n"));
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		EXPECT_EQ(vertical_active(), autostart);
		if (!autostart)
			plugin_->output()->start(); // from the dock
		ASSERT_TRUE(cvtest::wait_mux_connected(20000));
		fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
		EXPECT_TRUE(cvtest::wait_until([&] { return !vertical_active(); }, 5000));
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
	EXPECT_FALSE(vertical_active());
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
	plugin_->unload();
	plugin_.reset();
	delete host_dock();

	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_NE(host_dock(), nullptr);
	EXPECT_FALSE(host_dock()->isFloating());
	EXPECT_TRUE(host_dock()->isHidden());
	EXPECT_EQ(window_->dockWidgetArea(host_dock()), Qt::LeftDockWidgetArea);
}

// A profile whose canvas cannot be built leaves no runtime and says so in a box; the
// next good profile brings everything back with the same scenes.
TEST_F(FrontendEventsTest, AProfileSwitchRebuildsTheRuntime)
{
	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_TRUE(plugin_->canvas()->create_scene("Talk"));
	cvtest::write_file(profile_file(), "[VerticalCanvas]\ncanvasheight=-640\n");
	{
		cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
		fire(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
		cvtest::process_events_for(300);
		EXPECT_EQ(answerer.answered(), 1);
		EXPECT_TRUE(answerer.last_text().startsWith("Failed to rebuild the vertical canvas"));
	}
	EXPECT_EQ(plugin_->canvas(), nullptr);
	EXPECT_EQ(plugin_->output(), nullptr);
	fire(OBS_FRONTEND_EVENT_STREAMING_STARTING); // nothing to start, nothing to crash

	cvtest::write_file(profile_file(), "[VerticalCanvas]\ncanvaswidth=270\ncanvasheight=480\n");
	fire(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
	ASSERT_NE(plugin_->canvas(), nullptr);
	EXPECT_EQ(plugin_->canvas()->width(), 270u);
	EXPECT_EQ(plugin_->canvas()->scene_names(), (std::vector<std::string>{"Scene 1", "Talk"}));
	EXPECT_EQ(plugin_->dock()->findChild<QListWidget *>("sceneList")->count(), 2);
}
