// The dock on the plug-in as the host runs it: what it shows, its buttons and their
// dialogs, the status of a real stream, and a profile switch while a dialog is open.

#include "ui_test.h"

#include "pipeline.h"
#include "servers.h"
#include "sources.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "ui/scene_config_dialog.h"
#include "ui/vertical_dock.h"

#include <QInputDialog>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

namespace {

using Names = std::vector<std::string>;

class DockTest : public PluginUiTest {
protected:
	cv::VerticalDock &dock() { return *plugin_->dock(); }
	cv::VerticalCanvas &canvas() { return *plugin_->canvas(); }
	template<typename T> T *child(const char *name) { return dock().findChild<T *>(name); }
	QListWidget *list() { return child<QListWidget>("sceneList"); }
	QString text(const char *label) { return child<QLabel>(label)->text(); }
	bool enabled(const char *button) { return child<QPushButton>(button)->isEnabled(); }

	// Clicks a dock button, answering every modal it opens; the last box's text.
	QString click(const char *button, std::function<void(QWidget *)> answer, int expected_modals = 1)
	{
		cvtest::ModalAnswerer answerer(std::move(answer));
		child<QPushButton>(button)->click();
		EXPECT_EQ(answerer.answered(), expected_modals) << button;
		return answerer.last_text();
	}
	std::string saved() const { return cvtest::read_file(global_file()); }
};

} // namespace

TEST_F(DockTest, ShowsTheCanvasAndEditsItThroughItsDialogs)
{
	OBSSceneAutoRelease main = cvtest::make_band_scene("Main", {0xFF0000, 0x00FF00});
	load("rtmpurl=rtmp://127.0.0.1:1/live\nstreamkey=k\ncanvaswidth=360\ncanvasheight=640\n");
	ASSERT_NE(plugin_->dock(), nullptr);
	EXPECT_EQ(list()->count(), 1);
	EXPECT_EQ(text("sceneLabel"), "Scene: Scene 1");
	EXPECT_EQ(text("statusLabel"), "Stopped");
	EXPECT_TRUE(enabled("startButton"));
	EXPECT_FALSE(enabled("stopButton"));

	// Add trims the typed name and saves; a name taken already is refused as typed.
	click("addButton", cvtest::type_and_accept("  Intro  "));
	EXPECT_EQ(canvas().scene_names(), (Names{"Scene 1", "Intro"}));
	EXPECT_NE(saved().find("scene_1_name=Intro\n"), std::string::npos) << saved();
	const QString refused = click(
		"addButton",
		[](QWidget *modal) {
			if (qobject_cast<QInputDialog *>(modal))
				cvtest::type_and_accept(" Intro")(modal);
			else
				cvtest::press_button(QMessageBox::Ok)(modal);
		},
		2);
	EXPECT_EQ(refused, "A scene named \" Intro\" already exists.");

	// Rename the selected item; a cancelled remove keeps it, Yes removes it.
	list()->setCurrentRow(1);
	click("renameButton", cvtest::type_and_accept("Outro"));
	list()->setCurrentRow(1);
	click("removeButton", cvtest::press_button(QMessageBox::Cancel));
	EXPECT_EQ(canvas().scene_names(), (Names{"Scene 1", "Outro"}));
	list()->setCurrentRow(1);
	click("removeButton", cvtest::press_button(QMessageBox::Yes));
	EXPECT_EQ(canvas().scene_names(), Names{"Scene 1"});
	EXPECT_NE(saved().find("count=1\n"), std::string::npos) << saved();

	// Assign needs a selection; the dialog's choice shows in the list.
	list()->setCurrentItem(nullptr);
	EXPECT_EQ(click("assignButton", cvtest::press_button(QMessageBox::Ok)), "Select a scene from the list first.");
	list()->setCurrentRow(0);
	click("assignButton", [](QWidget *modal) {
		modal->findChild<QListWidget *>("sourceList")->setCurrentRow(1);
		qobject_cast<QDialog *>(modal)->accept();
	});
	EXPECT_EQ(canvas().scene_source_name("Scene 1"), "Main");
	EXPECT_EQ(list()->item(0)->text(), QString::fromUtf8("\u25BA Scene 1 [Main]"));
	EXPECT_TRUE(list()->item(0)->font().bold());

	// A click on an item makes it the active scene.
	canvas().create_scene("B");
	dock().refreshSceneList();
	QTest::mouseClick(list()->viewport(), Qt::LeftButton, Qt::NoModifier,
			  list()->visualItemRect(list()->item(1)).center());
	EXPECT_EQ(canvas().active_scene_name(), "B");
	EXPECT_EQ(text("sceneLabel"), "Scene: B");

	// Without a runtime there is nothing to show or press.
	dock().setRuntime(nullptr, nullptr);
	EXPECT_EQ(list()->count(), 0);
	EXPECT_EQ(text("statusLabel"), "No output");
	for (const char *button : {"addButton", "removeButton", "renameButton", "assignButton", "startButton"})
		EXPECT_FALSE(enabled(button)) << button;
}

TEST_F(DockTest, StatusFollowsTheStream)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	load("rtmpurl=" + server.app_url() + "\nstreamkey=dock\ncanvaswidth=360\ncanvasheight=640\n");
	child<QPushButton>("startButton")->click();
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	cvtest::process_events_for(600);
	EXPECT_EQ(text("statusLabel"), "Streaming");
	EXPECT_FALSE(enabled("startButton"));
	child<QPushButton>("stopButton")->click();
	cvtest::process_events_for(600);
	EXPECT_EQ(text("statusLabel"), "Stopped");
	EXPECT_TRUE(enabled("startButton"));
}

// A script switches the profile while one of the dock's dialogs is open, and the new
// profile's canvas cannot be built: the dialog's answer finds no canvas and does nothing.
TEST_F(DockTest, AProfileSwitchDuringADialogLeavesTheDockSafe)
{
	OBSSceneAutoRelease main = cvtest::make_band_scene("Main", {0xFF0000});
	const struct {
		const char *button;
		std::function<void(QWidget *)> answer;
	} dialogs[] = {
		{"addButton", cvtest::type_and_accept("New")},
		{"renameButton", cvtest::type_and_accept("Renamed")},
		{"removeButton", cvtest::press_button(QMessageBox::Yes)},
		{"assignButton",
		 [](QWidget *modal) {
			 modal->findChild<QListWidget *>("sourceList")->setCurrentRow(1);
			 qobject_cast<QDialog *>(modal)->accept();
		 }},
	};
	for (const auto &d : dialogs) {
		SCOPED_TRACE(d.button);
		if (plugin_)
			plugin_->unload();
		load("canvaswidth=360\ncanvasheight=640\n");
		list()->setCurrentRow(0);
		bool switched = false;
		cvtest::ModalAnswerer answerer([&](QWidget *modal) {
			if (modal->windowTitle() == "Corvane Vertical Canvas")
				return cvtest::press_button(QMessageBox::Ok)(modal); // the failed rebuild's box
			if (!std::exchange(switched, true)) {
				cvtest::write_file(profile_file(), "[VerticalCanvas]\ncanvaswidth=0\n");
				fire(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
			}
			d.answer(modal);
		});
		child<QPushButton>(d.button)->click();
		cvtest::process_events_for(300);
		EXPECT_EQ(plugin_->canvas(), nullptr);
		EXPECT_EQ(list()->count(), 0);
		EXPECT_EQ(answerer.last_text().left(40), "Failed to rebuild the vertical canvas af");
	}
}
