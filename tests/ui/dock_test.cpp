#include "ui_test.h"

#include "mux_pipeline.h"

#include "host_sources.h"
#include "log_capture.h"
#include "stream_servers.h"

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

class DockTest : public UiTest {
protected:
	void TearDown() override
	{
		dock_.reset();
		UiTest::TearDown();
	}

	// The runtime from a profile pointing at `url`, and a dock on it.
	void make_dock(const std::string &url = "rtmp://127.0.0.1:1/live")
	{
		open_settings("rtmpurl=" + url + "\nstreamkey=dock\ncanvaswidth=360\ncanvasheight=640\n");
		ASSERT_TRUE(create_runtime());
		canvas_ = cv::runtime_canvas();
		dock_ = std::make_unique<cv::VerticalDock>(canvas_, cv::runtime_output());
	}

	template<typename T> T *child(const char *name) { return dock_->findChild<T *>(name); }
	QListWidget *list() { return child<QListWidget>("sceneList"); }
	QString header() { return child<QLabel>("sceneLabel")->text(); }
	QString status() { return child<QLabel>("statusLabel")->text(); }
	bool enabled(const char *name) { return child<QPushButton>(name)->isEnabled(); }

	std::vector<QString> item_texts()
	{
		std::vector<QString> texts;
		for (int i = 0; i < list()->count(); i++)
			texts.push_back(list()->item(i)->text());
		return texts;
	}

	// Clicks a dock button with the given answer ready for the dialog it opens.
	int click_answering(const char *button, std::function<void(QWidget *)> answer, QString *text = nullptr)
	{
		cvtest::ModalAnswerer answerer(std::move(answer));
		child<QPushButton>(button)->click();
		if (text)
			*text = answerer.last_text();
		return answerer.answered();
	}

	std::string saved_scene_list() const { return read_file(global_config_file()); }

	cv::VerticalCanvas *canvas_ = nullptr;
	std::unique_ptr<cv::VerticalDock> dock_;
};

} // namespace

TEST_F(DockTest, ShowsWhatTheRuntimeHolds)
{
	// No runtime: nothing to show, nothing to press.
	open_settings("");
	dock_ = std::make_unique<cv::VerticalDock>(nullptr, nullptr);
	EXPECT_EQ(dock_->objectName(), "CorvaneVerticalCanvasDock");
	EXPECT_EQ(dock_->minimumWidth(), 270);
	EXPECT_EQ(dock_->maximumWidth(), 540);
	dock_->refreshSceneList();
	EXPECT_EQ(header(), "No active scene");
	EXPECT_EQ(status(), "No output");
	for (const char *button :
	     {"addButton", "removeButton", "renameButton", "assignButton", "startButton", "stopButton"})
		EXPECT_FALSE(enabled(button)) << button;
	dock_.reset();
	cv::save_and_close_configs();

	// An empty canvas: only Add.
	make_dock();
	canvas_->remove_scene("Scene 1");
	dock_->refreshSceneList();
	EXPECT_EQ(list()->count(), 0);
	EXPECT_EQ(header(), "No active scene");
	EXPECT_TRUE(enabled("addButton"));
	EXPECT_FALSE(enabled("removeButton"));
	EXPECT_FALSE(enabled("renameButton"));
	EXPECT_FALSE(enabled("assignButton"));
	EXPECT_EQ(status(), "Stopped");
	EXPECT_TRUE(enabled("startButton"));
	EXPECT_FALSE(enabled("stopButton"));

	// Scenes with an assignment: decorations, bold current active item.
	OBSSceneAutoRelease main = cvtest::make_three_band_scene("Main", 0xFF0000, 0x00FF00, 0x0000FF);
	ASSERT_TRUE(canvas_->create_scene("Intro"));
	ASSERT_TRUE(canvas_->create_scene("Outro"));
	ASSERT_TRUE(canvas_->assign_scene_source("Intro", "Main"));
	ASSERT_TRUE(canvas_->set_active_scene("Intro"));
	dock_->refreshSceneList();
	EXPECT_EQ(item_texts(), (std::vector<QString>{QString::fromUtf8("\u25BA Intro [Main]"), " Outro"}));
	EXPECT_EQ(list()->currentItem(), list()->item(0));
	EXPECT_TRUE(list()->item(0)->font().bold());
	EXPECT_FALSE(list()->item(1)->font().bold());
	EXPECT_EQ(list()->item(0)->data(Qt::UserRole).toString(), "Intro");
	EXPECT_EQ(header(), "Scene: Intro");

	// Clicking an item activates it.
	list()->scrollToItem(list()->item(1));
	QTest::mouseClick(list()->viewport(), Qt::LeftButton, Qt::NoModifier,
			  list()->visualItemRect(list()->item(1)).center());
	EXPECT_EQ(canvas_->active_scene_name(), "Outro");
	EXPECT_EQ(header(), "Scene: Outro");
	EXPECT_EQ(list()->item(1)->text(), QString::fromUtf8("\u25BA Outro"));

	// Handing over a null runtime empties everything at once.
	dock_->setRuntime(nullptr, nullptr);
	EXPECT_EQ(list()->count(), 0);
	EXPECT_EQ(status(), "No output");
	for (const char *button :
	     {"addButton", "removeButton", "renameButton", "assignButton", "startButton", "stopButton"})
		EXPECT_FALSE(enabled(button)) << button;
	obs_source_remove(obs_scene_get_source(main));
}

TEST_F(DockTest, SceneButtonsWorkThroughTheirDialogs)
{
	make_dock();

	// Add: the typed name is trimmed; the list is saved.
	EXPECT_EQ(click_answering("addButton", cvtest::type_and_accept("  A  ")), 1);
	EXPECT_EQ(canvas_->scene_names(), (std::vector<std::string>{"Scene 1", "A"}));
	EXPECT_NE(saved_scene_list().find("scene_1_name=A\n"), std::string::npos) << saved_scene_list();

	// A duplicate is refused with the blanks quoted as typed.
	QString message;
	int dialogs = 0;
	{
		cvtest::ModalAnswerer answerer([&](QWidget *modal) {
			if (auto *input = qobject_cast<QInputDialog *>(modal)) {
				input->setTextValue("  A  ");
				input->accept();
			} else if (auto *box = qobject_cast<QMessageBox *>(modal)) {
				message = box->text();
				EXPECT_EQ(box->windowTitle(), "Add Scene");
				box->button(QMessageBox::Ok)->click();
			}
		});
		child<QPushButton>("addButton")->click();
		dialogs = answerer.answered();
	}
	EXPECT_EQ(dialogs, 2);
	EXPECT_EQ(message, "A scene named \"  A  \" already exists.");
	EXPECT_EQ(canvas_->scene_names().size(), 2u);

	// Rename the current item; to its own name or to blanks nothing happens.
	list()->setCurrentRow(1);
	EXPECT_EQ(click_answering("renameButton", cvtest::type_and_accept("B")), 1);
	EXPECT_EQ(canvas_->scene_names(), (std::vector<std::string>{"Scene 1", "B"}));
	list()->setCurrentRow(1);
	const std::string before = saved_scene_list();
	EXPECT_EQ(click_answering("renameButton", cvtest::type_and_accept("B")), 1);
	EXPECT_EQ(click_answering("renameButton", cvtest::type_and_accept("   ")), 1);
	EXPECT_EQ(canvas_->scene_names(), (std::vector<std::string>{"Scene 1", "B"}));

	// A cancelled remove changes and saves nothing; Yes removes and saves.
	list()->setCurrentRow(1);
	EXPECT_EQ(click_answering("removeButton", cvtest::press_button(QMessageBox::Cancel), &message), 1);
	EXPECT_EQ(message, "Remove scene \"B\"? This cannot be undone.");
	EXPECT_EQ(canvas_->scene_names().size(), 2u);
	EXPECT_EQ(saved_scene_list(), before);
	list()->setCurrentRow(1);
	EXPECT_EQ(click_answering("removeButton", cvtest::press_button(QMessageBox::Yes)), 1);
	EXPECT_EQ(canvas_->scene_names(), std::vector<std::string>{"Scene 1"});
	EXPECT_NE(saved_scene_list().find("count=1\n"), std::string::npos) << saved_scene_list();

	// Assign with nothing selected explains; with a selection it assigns the choice.
	OBSSceneAutoRelease main = cvtest::make_three_band_scene("Main", 0xFF0000, 0x00FF00, 0x0000FF);
	list()->setCurrentItem(nullptr);
	EXPECT_EQ(click_answering("assignButton", cvtest::press_button(QMessageBox::Ok), &message), 1);
	EXPECT_EQ(message, "Select a scene from the list first.");
	list()->setCurrentRow(0);
	EXPECT_EQ(click_answering("assignButton", cvtest::cancel_dialog()), 1);
	EXPECT_EQ(canvas_->scene_source_name("Scene 1"), "");
	list()->setCurrentRow(0);
	const int answered = click_answering("assignButton", [](QWidget *modal) {
		auto *dialog = qobject_cast<cv::SceneConfigDialog *>(modal);
		auto *sources = modal->findChild<QListWidget *>("sourceList");
		if (!dialog || !sources)
			return;
		sources->setCurrentRow(1);
		dialog->accept();
	});
	EXPECT_EQ(answered, 1);
	EXPECT_EQ(canvas_->scene_source_name("Scene 1"), "Main");
	EXPECT_EQ(list()->item(0)->text(), QString::fromUtf8("\u25BA Scene 1 [Main]"));
	obs_source_remove(obs_scene_get_source(main));
}

TEST_F(DockTest, StatusFollowsARealOutput)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	make_dock(server.app_url());

	child<QPushButton>("startButton")->click();
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	cvtest::process_events_for(600);
	EXPECT_EQ(status(), "Streaming");
	EXPECT_EQ(child<QLabel>("statusLabel")->styleSheet(), "font-size: 11px; color: #4caf50; font-weight: bold;");
	EXPECT_FALSE(enabled("startButton"));
	EXPECT_TRUE(enabled("stopButton"));

	child<QPushButton>("stopButton")->click();
	cvtest::process_events_for(600);
	EXPECT_EQ(status(), "Stopped");
	EXPECT_EQ(child<QLabel>("statusLabel")->styleSheet(), "font-size: 11px; color: #888;");
	EXPECT_TRUE(enabled("startButton"));
	EXPECT_FALSE(enabled("stopButton"));
}
