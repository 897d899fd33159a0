// The dock on the plug-in as the host runs it: its list, its buttons and their dialogs.

#include "ui_test.h"

#include "servers.h"
#include "sources.h"
#include "wait.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "ui/scene_layout_dialog.h"
#include "ui/vertical_preview.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QPointer>
#include <QRadioButton>
#include <QSpinBox>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QRegularExpression>
#include <QTest>

namespace {

using Names = std::vector<std::string>;

class DockTest : public PluginUiTest {
protected:
	cv::VerticalCanvas &canvas() { return *plugin_->canvas(); }
	QListWidget *list() { return dock_child<QListWidget>("sceneList"); }
	QString text(const char *label) { return dock_child<QLabel>(label)->text(); }

	// Clicks a dock button and answers the dialog it opens beside the host's window,
	// which stays usable meanwhile.
	void click(const char *button, const char *dialog, const std::function<void(QWidget *)> &answer)
	{
		dock_child(button)->click();
		EXPECT_EQ(QApplication::activeModalWidget(), nullptr) << button;
		EXPECT_TRUE(cvtest::answer_dialog(plugin_->dock(), dialog, answer)) << button;
	}
	// A drag with the left button from `from` to `to` on a widget, with one move between.
	static void drag(QWidget *widget, QPoint from, QPoint to)
	{
		QTest::mousePress(widget, Qt::LeftButton, Qt::NoModifier, from);
		QMouseEvent move(QEvent::MouseMove, to, widget->mapToGlobal(to), Qt::NoButton, Qt::LeftButton,
				 Qt::NoModifier);
		QApplication::sendEvent(widget, &move);
		QTest::mouseRelease(widget, Qt::LeftButton, Qt::NoModifier, to);
	}
	cv::SceneLayout layout() { return *canvas().scene_layout("Scene 1"); }
	// The vertical scenes as the host's scene collection now holds them.
	std::string saved() const
	{
		OBSDataAutoRelease collection = cvtest::frontend::saved_collection();
		return collection ? obs_data_get_json(collection) : "";
	}
};

} // namespace

TEST_F(DockTest, ShowsTheCanvasAndEditsItThroughItsDialogs)
{
	OBSSceneAutoRelease main = cvtest::make_band_scene("Main", {0xFF0000, 0x00FF00});
	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_NE(plugin_->dock(), nullptr);

	// A status line per destination, also for one switched off; Record is offered.
	cv::PluginConfig config = plugin_->settings();
	config.destinations.push_back({"Backup", "rtmp://127.0.0.1:1/live", "k", false, {}});
	plugin_->save_settings(config);
	plugin_->dock()->onStatusTick();
	auto *statuses = dock_child<QListWidget>("destinationStatusList");
	ASSERT_EQ(statuses->count(), 2);
	EXPECT_EQ(statuses->item(0)->text(), QString::fromUtf8("Destination 1 \u2014 Stopped"));
	EXPECT_EQ(statuses->item(1)->text(), QString::fromUtf8("Backup \u2014 Off"));
	EXPECT_TRUE(dock_child("recordButton")->isEnabled());

	// Add trims the typed name and saves it with the collection; a name taken already is
	// refused, said below the buttons.
	click("addButton", "addSceneDialog", cvtest::type_and_accept("  Intro  "));
	EXPECT_EQ(canvas().scene_names(), (Names{"Scene 1", "Intro"}));
	EXPECT_NE(saved().find("\"Intro\""), std::string::npos) << saved();
	click("addButton", "addSceneDialog", cvtest::type_and_accept(" Intro"));
	EXPECT_EQ(text("errorLabel"), "A scene named \"Intro\" already exists");

	// Rename the selected item; a cancelled remove keeps it, Yes removes it.
	list()->setCurrentRow(1);
	click("renameButton", "renameSceneDialog", cvtest::type_and_accept("Outro"));
	EXPECT_TRUE(text("errorLabel").isEmpty());
	list()->setCurrentRow(1);
	click("removeButton", "removeSceneDialog", cvtest::press_button(QMessageBox::Cancel));
	EXPECT_EQ(canvas().scene_names(), (Names{"Scene 1", "Outro"}));
	list()->setCurrentRow(1);
	click("removeButton", "removeSceneDialog", cvtest::press_button(QMessageBox::Yes));
	EXPECT_EQ(canvas().scene_names(), Names{"Scene 1"});
	EXPECT_EQ(saved().find("Outro"), std::string::npos) << saved();

	// Assign needs a selection; the dialog's choice shows in the list.
	list()->setCurrentItem(nullptr);
	dock_child("assignButton")->click();
	EXPECT_EQ(text("errorLabel"), "Select a scene from the list first.");
	list()->setCurrentRow(0);
	click("assignButton", "sceneConfigDialog", cvtest::choose_row("sourceList", 1));
	EXPECT_EQ(canvas().scene_source_name("Scene 1"), "Main");
	EXPECT_EQ(list()->item(0)->text(), QString::fromUtf8("\u25BA Scene 1 [Main]"));

	// A click on an item makes it the active scene.
	canvas().create_scene("B");
	plugin_->dock()->refreshSceneList();
	QTest::mouseClick(list()->viewport(), Qt::LeftButton, Qt::NoModifier,
			  list()->visualItemRect(list()->item(1)).center());
	EXPECT_EQ(canvas().active_scene_name(), "B");
	EXPECT_EQ(text("sceneLabel"), "Scene: B");
}

// A script switches profile while one of the dock's dialogs is open: between the two
// events there is no output (nothing to start, nothing to crash), the canvas and its
// scenes stay, the answer goes to them, and they come back at the new profile's size.
TEST_F(DockTest, AProfileSwitchDuringADialogLeavesTheDockSafe)
{
	OBSSceneAutoRelease main = cvtest::make_band_scene("Main", {0xFF0000});
	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_FALSE(plugin_->create_scene("Talk"));
	const struct {
		const char *button;
		const char *dialog;
		std::function<void(QWidget *)> answer;
	} dialogs[] = {
		{"addButton", "addSceneDialog", cvtest::type_and_accept("New")},
		{"renameButton", "renameSceneDialog", cvtest::type_and_accept("Renamed")},
		{"removeButton", "removeSceneDialog", cvtest::press_button(QMessageBox::Yes)},
		{"assignButton", "sceneConfigDialog", cvtest::choose_row("sourceList", 1)},
		{"layoutButton", "sceneLayoutDialog",
		 [](QWidget *dialog) {
			 dialog->findChild<QComboBox *>("layoutKind")->setCurrentIndex(1);
		 }},
	};
	for (const auto &d : dialogs) {
		SCOPED_TRACE(d.button);
		list()->setCurrentRow(1);
		dock_child(d.button)->click();
		fire(OBS_FRONTEND_EVENT_PROFILE_CHANGING);
		EXPECT_EQ(plugin_->output(), nullptr);
		EXPECT_EQ(dock_child<QListWidget>("destinationStatusList")->count(), 0);
		EXPECT_EQ(text("statusLabel"), "No output");
		for (const char *button : {"startButton", "recordButton"})
			EXPECT_FALSE(dock_child(button)->isEnabled()) << button;
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING); // nothing to start, nothing to crash
		ASSERT_TRUE(cvtest::answer_dialog(plugin_->dock(), d.dialog, d.answer));
		const Names edited = canvas().scene_names();

		cvtest::write_file(profile_file(), "[VerticalCanvas]\ncanvaswidth=270\ncanvasheight=480\n");
		fire(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
		ASSERT_NE(plugin_->canvas(), nullptr);
		EXPECT_EQ(canvas().width(), 270u);
		EXPECT_EQ(canvas().scene_names(), edited);
		EXPECT_EQ(list()->count(), int(edited.size()));
		if (edited.size() < 2) {
			ASSERT_FALSE(plugin_->create_scene("Talk"));
		}
	}
}

// While a destination streams, its line shows the figures the output reports, which are
// what websocket clients read too.
TEST_F(DockTest, ShowsTheFiguresOfAStreamingDestination)
{
	cvtest::RtmpServer nginx;
	std::string error;
	ASSERT_TRUE(nginx.start(&error)) << error;
	load("canvaswidth=360\ncanvasheight=640\nrtmpurl=" + nginx.app_url() + "\nstreamkey=figures\n");
	dock_child("startButton")->click();
	ASSERT_TRUE(cvtest::wait_until(
		[&] {
			cvtest::process_events_for(50);
			return plugin_->output()->destinations()[0].kbps > 0;
		},
		15000));
	// The line stops its destination alone, and starts it again.
	auto *statuses = dock_child<QListWidget>("destinationStatusList");
	plugin_->dock()->onDestinationToggled(statuses->item(0));
	ASSERT_TRUE(plugin_->output()->wait_idle(std::chrono::seconds(5)));
	plugin_->dock()->onStatusTick();
	EXPECT_EQ(statuses->item(0)->text(), QString::fromUtf8("Destination 1 \u2014 Stopped"));
	plugin_->dock()->onDestinationToggled(statuses->item(0));
	ASSERT_TRUE(cvtest::wait_until(
		[&] {
			cvtest::process_events_for(50);
			return plugin_->output()->destinations()[0].kbps > 0;
		},
		15000));
	plugin_->dock()->onStatusTick();
	const cv::DestinationStatus status = plugin_->output()->destinations()[0];
	const QString line = dock_child<QListWidget>("destinationStatusList")->item(0)->text();
	EXPECT_TRUE(line.startsWith(QString::fromUtf8("Destination 1 \u2014 Live\n"))) << line.toStdString();
	for (const QString &figure :
	     {QString("%1 kb/s").arg(status.kbps), QString("%1 dropped").arg(status.stats.dropped.video_frames),
	      QString("%1 reconnects").arg(status.stats.reconnects)})
		EXPECT_TRUE(line.contains(figure)) << line.toStdString() << " lacks " << figure.toStdString();
	EXPECT_TRUE(line.contains(QRegularExpression("0:00:[0-5][0-9] live"))) << line.toStdString();
	dock_child("stopButton")->click();
}

// The preview moves and zooms a covering scene; the dock sets the transition and the
// following; the layout dialog, beside the host's window, switches the layout and draws
// and moves a region on the host scene, and closes once its scene is gone.
TEST_F(DockTest, EditsLayoutsTransitionsAndFollowing)
{
	OBSSceneAutoRelease main = cvtest::make_band_scene("Main", {0xFF0000, 0x00FF00}); // 1920 x 1080
	load("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_FALSE(plugin_->assign_host_scene("Scene 1", "Main"));

	// 180 x 320 shows the canvas at half size: 40 pixels right are 80 on the canvas, where
	// the scene is 1920 * 640 / 1080 wide.
	auto *preview = plugin_->dock()->findChild<cv::VerticalPreviewWidget *>();
	preview->setFixedSize(180, 320);
	cvtest::process_events_for(50);
	drag(preview, {90, 160}, {130, 160});
	const double focus = layout().focus_x;
	EXPECT_NEAR(focus, 0.5 - 80.0 / (1920.0 * 640 / 1080), 1e-6);
	for (const auto &[notches, zoom] : {std::pair{1, 1.1}, {40, cv::kMaxZoom}}) {
		QWheelEvent wheel({90, 160}, preview->mapToGlobal(QPoint(90, 160)), {}, {0, 120 * notches},
				  Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
		QApplication::sendEvent(preview, &wheel);
		EXPECT_NEAR(layout().zoom, zoom, 1e-9);
	}

	auto *transitions = dock_child<QComboBox>("transitionCombo");
	EXPECT_EQ(transitions->currentData().toString(), "fade_transition");
	transitions->setCurrentIndex(transitions->findData("cut_transition"));
	dock_child<QSpinBox>("durationSpin")->setValue(1200);
	EXPECT_EQ(canvas().transition(), (cv::TransitionSettings{"cut_transition", 1200}));
	dock_child<QCheckBox>("followCheck")->click();
	EXPECT_TRUE(canvas().follow_main());

	list()->setCurrentRow(0);
	click("layoutButton", "sceneLayoutDialog", [](QWidget *) {});
	QPointer<QWidget> dialog = plugin_->dock()->findChild<cv::SceneLayoutDialog *>();
	ASSERT_TRUE(dialog);
	dialog->findChild<QComboBox *>("layoutKind")->setCurrentIndex(int(cv::LayoutKind::Stack));
	EXPECT_EQ(layout().kind, cv::LayoutKind::Stack);
	drag(preview, {90, 160}, {10, 160});
	EXPECT_EQ(layout().focus_x, focus) << "only a cover moves";

	// The picture shows the scene at a sixth of its size.
	dialog->findChild<QRadioButton *>("bottomRegion")->click();
	auto *picture = dialog->findChild<cv::SceneRegionPicture *>("regionPicture");
	picture->setFixedSize(320, 180);
	cvtest::process_events_for(50);
	drag(picture, {120, 160}, {40, 20});
	EXPECT_EQ(layout().bottom, (cv::Region{240, 120, 480, 840}));
	EXPECT_TRUE(layout().top.empty()) << "the top region keeps its default";
	drag(picture, {80, 90}, {300, 60});
	EXPECT_EQ(layout().bottom, (cv::Region{1440, 0, 480, 840})) << "moved as far as the scene's edges";

	ASSERT_FALSE(plugin_->remove_scene("Scene 1"));
	QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
	EXPECT_FALSE(dialog);
}
