// The settings dialog, the scene assignment dialog and the stream error box.

#include "ui_test.h"

#include "ui/scene_config_dialog.h"
#include "ui/settings_dialog.h"
#include "ui/stream_error_box.h"

#include <QDialogButtonBox>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QSpinBox>
#include <QTest>

#include <optional>
#include <thread>

using DialogsTest = UiTest;

// What a hand-edited file holds is shown within the dialog's ranges and saved that way;
// a blank address is refused and nothing is saved.
TEST_F(DialogsTest, SettingsDialogSavesWhatItShows)
{
	cv::PluginConfig stored;
	stored.rtmpurl = "rtmp://ingest.example/app";
	stored.streamkey = u8"s\u00E9cret";
	stored.videobitrate = 999999;
	stored.canvaswidth = 4;
	stored.fpsnum = 0xFFFFFFFF;
	stored.encoderpreset = "Medium"; // no such preset: case matters
	stored.autostartwithmain = false;
	std::optional<cv::PluginConfig> saved;
	cv::SettingsDialog dialog(stored, [&](const cv::PluginConfig &config) { saved = config; });
	auto *key = dialog.findChild<QLineEdit *>("keyEdit");
	EXPECT_EQ(key->echoMode(), QLineEdit::Password) << "the key is hidden until asked for";
	dialog.findChild<QPushButton *>("keyToggle")->click();
	EXPECT_EQ(key->echoMode(), QLineEdit::Normal);
	QPushButton *save = dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Save);

	auto *url = dialog.findChild<QLineEdit *>("urlEdit");
	url->setText(" \t ");
	cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
	save->click();
	EXPECT_EQ(answerer.answered(), 1);
	EXPECT_FALSE(saved);

	url->setText(" rtmp://other.example/app ");
	dialog.findChild<QSpinBox *>("fpsDenSpin")->setValue(2);
	save->click();
	ASSERT_TRUE(saved);
	EXPECT_EQ(dialog.result(), int(QDialog::Accepted));
	EXPECT_EQ(saved->rtmpurl, " rtmp://other.example/app ");
	EXPECT_EQ(saved->streamkey, stored.streamkey);
	EXPECT_EQ(saved->videobitrate, cv::kMaxVideoKbps);
	EXPECT_EQ(saved->canvaswidth, 16u);
	EXPECT_EQ(saved->canvasheight, 1920u);
	EXPECT_EQ(saved->fpsnum, 240u);
	EXPECT_EQ(saved->fpsden, 2u);
	EXPECT_EQ(saved->encoderpreset, "veryfast");
	EXPECT_FALSE(saved->autostartwithmain);
}

// "(None)" first, then the host's scenes; the assigned one preselected by its exact name;
// a double click chooses.
TEST_F(DialogsTest, SceneDialogOffersTheHostsScenes)
{
	OBSSceneAutoRelease one = obs_scene_create("Game");
	OBSSceneAutoRelease two = obs_scene_create("game");
	for (const auto &[current, selected] :
	     std::vector<std::pair<QString, QString>>{{"", ""}, {"game", "game"}, {"Gone", ""}}) {
		cv::SceneConfigDialog dialog("Vertical", current);
		auto *list = dialog.findChild<QListWidget *>("sourceList");
		ASSERT_EQ(list->count(), 3);
		EXPECT_EQ(list->item(0)->text(), "(None)");
		EXPECT_EQ(dialog.selectedSource(), selected) << current.toStdString();
	}
	cv::SceneConfigDialog dialog("Vertical", "");
	auto *list = dialog.findChild<QListWidget *>("sourceList");
	dialog.show();
	const QPoint at = list->visualItemRect(list->findItems("Game", Qt::MatchExactly).at(0)).center();
	QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, at);
	QTest::mouseDClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, at);
	EXPECT_EQ(dialog.result(), int(QDialog::Accepted));
	EXPECT_EQ(dialog.selectedSource(), "Game");
}

TEST_F(DialogsTest, StreamErrorsAreShownFromAnyThread)
{
	cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
	std::thread([] { cv::post_stream_error_box("The server closed the connection"); }).join();
	cvtest::process_events_for(300);
	EXPECT_EQ(answerer.answered(), 1);
	EXPECT_EQ(answerer.last_text(), "The server closed the connection");
}
