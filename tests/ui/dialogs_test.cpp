// The settings dialog, the scene assignment dialog and the stream error box.

#include "ui_test.h"

#include "ui/scene_config_dialog.h"
#include "ui/settings_dialog.h"
#include "ui/stream_error_box.h"
#include "ui/texts.h"

#include <QDialogButtonBox>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QSpinBox>
#include <QTest>

#include <optional>
#include <tuple>
#include <thread>

using DialogsTest = UiTest;

// What a hand-edited file holds is shown within the dialog's ranges and saved that way;
// a blank address of an enabled destination is refused, by name once there are two, and
// nothing is saved; a blank name saves as its default one.
TEST_F(DialogsTest, SettingsDialogSavesWhatItShows)
{
	cv::PluginConfig stored;
	stored.destinations[0] = {"", "rtmp://ingest.example/app", u8"s\u00E9cret", true};
	stored.videobitrate = 999999;
	stored.canvaswidth = 4;
	stored.fpsnum = 0xFFFFFFFF;
	stored.encoderpreset = "Medium"; // no such preset: case matters
	stored.autostartwithmain = stored.autorecordwithmain = false;
	stored.audiotrack = 7;
	std::optional<cv::PluginConfig> saved;
	cv::SettingsDialog dialog(stored, [&](const cv::PluginConfig &config) { saved = config; });
	auto *key = dialog.findChild<QLineEdit *>("keyEdit");
	EXPECT_EQ(key->echoMode(), QLineEdit::Password) << "the key is hidden until asked for";
	dialog.findChild<QPushButton *>("keyToggle")->click();
	EXPECT_EQ(key->echoMode(), QLineEdit::Normal);
	QPushButton *save = dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Save);
	auto *add = dialog.findChild<QPushButton *>("addDestinationButton");
	auto *list = dialog.findChild<QListWidget *>("destinationList");

	auto *url = dialog.findChild<QLineEdit *>("urlEdit");
	url->setText(" \t ");
	cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
	save->click();
	EXPECT_EQ(answerer.last_text(), "RTMP URL cannot be empty.");
	url->setText(" rtmp://other.example/app ");
	add->click(); // the fields now edit the new one
	dialog.findChild<QLineEdit *>("nameEdit")->setText("Backup");
	key->setText("k2");
	EXPECT_EQ(list->item(1)->text(), "Backup");
	save->click();
	EXPECT_EQ(answerer.last_text(), "The RTMP URL of \"Backup\" cannot be empty.");
	EXPECT_FALSE(saved);

	list->item(1)->setCheckState(Qt::Unchecked);
	dialog.findChild<QSpinBox *>("fpsDenSpin")->setValue(2);
	save->click();
	ASSERT_TRUE(saved);
	EXPECT_EQ(dialog.result(), int(QDialog::Accepted));
	std::vector<std::tuple<std::string, std::string, std::string, bool>> destinations;
	for (const cv::DestinationSettings &d : saved->destinations)
		destinations.emplace_back(d.name, d.url, d.key, d.enabled);
	EXPECT_EQ(destinations, (decltype(destinations){{"Destination 1", " rtmp://other.example/app ",
							 stored.destinations[0].key, true},
							{"Backup", "", "k2", false}}));
	EXPECT_EQ(saved->videobitrate, cv::kMaxVideoKbps);
	EXPECT_EQ(saved->canvaswidth, 16u);
	EXPECT_EQ(saved->canvasheight, 1920u);
	EXPECT_EQ(saved->fpsnum, 240u);
	EXPECT_EQ(saved->fpsden, 2u);
	EXPECT_EQ(saved->encoderpreset, "veryfast");
	EXPECT_EQ(saved->audiotrack, 1u);
	EXPECT_FALSE(saved->autostartwithmain || saved->autorecordwithmain);

	// A new one takes the first free default name; Add stops at the maximum.
	for (size_t i = 2; i < cv::kMaxDestinations; i++)
		add->click();
	EXPECT_EQ(list->item(2)->text(), "Destination 2");
	EXPECT_EQ(list->count(), int(cv::kMaxDestinations));
	EXPECT_FALSE(add->isEnabled());
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

// In German, a known message of the engine is German, also after the name of one of several
// destinations (which may hold ": ") and inside another.
TEST_F(DialogsTest, EngineMessagesAreShownInTheUsersLanguage)
{
	obs_module_set_locale("de-DE");
	const QString rejected = cv::text("Error.Rejected");
	EXPECT_NE(rejected, "Stream rejected — check server URL and stream key");
	EXPECT_EQ(cv::engine_text("Backup: A: Stream rejected — check server URL and stream key"),
		  "Backup: A: " + rejected);
	EXPECT_EQ(cv::engine_text(
			  "The vertical recording stopped: the file could not be written\nIs the disk full? The "
			  "vertical stream is not affected."),
		  cv::text("Error.RecordingStopped").arg(cv::text("Error.FileNotWritten")));
	obs_module_set_locale("en-US");
}
