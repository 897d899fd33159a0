#include "ui_test.h"

#include "log_capture.h"
#include "stream_servers.h"

#include "core/dock_registry.h"
#include "core/frontend_events.h"
#include "output/vertical_output.h"
#include "ui/vertical_dock.h"

#include <QDockWidget>
#include <QMainWindow>

using cvtest::log_count;

namespace {

// Events delivered the way the host delivers them, through the callback the module adds.
class FrontendEventsTest : public FrontendTest {};

} // namespace

TEST_F(FrontendEventsTest, TheVerticalStreamFollowsTheMainStream)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	open_settings("rtmpurl=" + server.app_url() + "\nstreamkey=follow\ncanvaswidth=360\ncanvasheight=640\n");
	ASSERT_TRUE(create_runtime());

	fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	EXPECT_EQ(log_count("Main stream starting — auto-starting vertical output"), 1u);
	ASSERT_TRUE(cv::runtime_output()->is_active());
	// Already running: nothing more.
	fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	EXPECT_EQ(log_count("auto-starting"), 1u);

	fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
	EXPECT_EQ(log_count("Main stream stopped — stopping vertical output"), 1u);
	// The host ends the output's data capture on a thread of its own.
	for (int i = 0; i < 250 && cv::runtime_output()->is_active(); i++)
		cvtest::process_events_for(20);
	EXPECT_FALSE(cv::runtime_output()->is_active());
	fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
	EXPECT_EQ(log_count("Main stream stopped"), 1u);
}

TEST_F(FrontendEventsTest, WithoutAProfileFileTheMainStreamStillStartsTheVerticalOne)
{
	// No profile file: the fallbacks say auto-start, and an empty URL refuses the start.
	cvtest::frontend::set_profile_dir("");
	ASSERT_TRUE(create_runtime());
	fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	EXPECT_EQ(log_count("Main stream starting — auto-starting vertical output"), 1u);
	EXPECT_EQ(log_count("Vertical output start failed: RTMP URL is empty."), 1u);
}

TEST_F(FrontendEventsTest, AnEventRaisedWhileOneIsHandledIsDropped)
{
	open_settings("rtmpurl=rtmp://127.0.0.1:1/live\ncanvaswidth=360\ncanvasheight=640\n");
	ASSERT_TRUE(create_runtime());
	// The host raises "streaming starting" from inside the dock registration.
	cvtest::frontend::on_next_add_dock([] { fire(OBS_FRONTEND_EVENT_STREAMING_STARTING); });
	fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	EXPECT_EQ(log_count("Vertical Canvas dock registered"), 1u);
	EXPECT_EQ(log_count("auto-starting"), 0u);
	EXPECT_FALSE(cv::runtime_output()->is_active());

	// The first start of all: the dock floats, shown, around the plug-in's panel.
	auto *dock = window_->findChild<QDockWidget *>(cv::kDockId);
	ASSERT_NE(dock, nullptr);
	EXPECT_TRUE(dock->isFloating());
	EXPECT_FALSE(dock->isHidden());
	EXPECT_EQ(dock->widget(), static_cast<QWidget *>(cv::current_dock()));

	// A second finished-loading only attaches the runtime again.
	fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	EXPECT_EQ(log_count("Vertical Canvas dock registered"), 1u);
	EXPECT_EQ(window_->findChildren<QDockWidget *>().size(), 1);
}

TEST_F(FrontendEventsTest, TheDockComesBackDockedAndHiddenAsLeft)
{
	write_file(global_config_file(),
		   "[VerticalCanvas]\ndockvisible=false\ndockfloating=false\ndockarea=1\ndockgeometry=\n");
	open_settings("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_TRUE(create_runtime());
	fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	auto *dock = window_->findChild<QDockWidget *>(cv::kDockId);
	ASSERT_NE(dock, nullptr);
	EXPECT_FALSE(dock->isFloating());
	EXPECT_TRUE(dock->isHidden());
	EXPECT_EQ(window_->dockWidgetArea(dock), Qt::LeftDockWidgetArea);

	// Recorded at exit as it is now.
	window_->show();
	dock->setVisible(true);
	fire(OBS_FRONTEND_EVENT_EXIT);
	EXPECT_EQ(log_count("Dock state saved (floating=no, visible=yes)"), 1u);
	config_t *global = cv::global_config();
	EXPECT_EQ(config_get_int(global, "VerticalCanvas", "dockarea"), 1);
	EXPECT_FALSE(config_get_bool(global, "VerticalCanvas", "dockfloating"));
	EXPECT_TRUE(config_get_bool(global, "VerticalCanvas", "dockvisible"));
}
