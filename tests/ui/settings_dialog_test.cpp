#include "ui_test.h"

#include "log_capture.h"

#include "canvas/vertical_canvas.h"
#include "ui/settings_dialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>

namespace {

class SettingsDialogTest : public UiTest {
protected:
	template<typename T> T *child(const char *name) { return dialog_->findChild<T *>(name); }
	int spin(const char *name) { return child<QSpinBox>(name)->value(); }
	void press_save() { dialog_->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Save)->click(); }

	std::unique_ptr<cv::SettingsDialog> dialog_;
};

} // namespace

TEST_F(SettingsDialogTest, ShowsStoredValuesClampedToTheirRanges)
{
	open_settings("rtmpurl=rtmp://a.example/app\nstreamkey=k3y\nvideobitrate=100\ncanvaswidth=8000\n"
		      "canvasheight=1280\nfpsnum=60000\nfpsden=1001\nautostartwithmain=false\n"
		      "encoderpreset=Medium\nuseactivesceneaudio=true\n");
	dialog_ = std::make_unique<cv::SettingsDialog>();
	EXPECT_EQ(dialog_->windowTitle(), QString::fromUtf8("Vertical Canvas \u2014 Settings"));
	EXPECT_EQ(dialog_->minimumWidth(), 440);
	EXPECT_TRUE(dialog_->isModal());
	EXPECT_EQ(child<QLineEdit>("urlEdit")->text(), "rtmp://a.example/app");
	EXPECT_EQ(child<QLineEdit>("keyEdit")->text(), "k3y");
	EXPECT_EQ(child<QLineEdit>("keyEdit")->echoMode(), QLineEdit::Password);
	EXPECT_EQ(spin("bitrateSpin"), 500);
	EXPECT_EQ(spin("widthSpin"), 7680);
	EXPECT_EQ(spin("heightSpin"), 1280);
	EXPECT_EQ(spin("fpsNumSpin"), 240);
	EXPECT_EQ(spin("fpsDenSpin"), 1000);
	EXPECT_EQ(child<QSpinBox>("bitrateSpin")->suffix(), " kbps");
	EXPECT_EQ(child<QSpinBox>("widthSpin")->singleStep(), 2);
	EXPECT_FALSE(child<QCheckBox>("autoStartCheck")->isChecked());
	EXPECT_TRUE(child<QCheckBox>("sceneAudioCheck")->isChecked());
	// Wrong case is no match: the fallback preset shows.
	EXPECT_EQ(child<QComboBox>("presetCombo")->currentText(), "veryfast");
	EXPECT_EQ(child<QComboBox>("presetCombo")->count(), 9);

	// Show and Hide.
	QPushButton *toggle = child<QPushButton>("keyToggle");
	toggle->click();
	EXPECT_EQ(child<QLineEdit>("keyEdit")->echoMode(), QLineEdit::Normal);
	EXPECT_EQ(toggle->text(), "Hide");
	toggle->click();
	EXPECT_EQ(child<QLineEdit>("keyEdit")->echoMode(), QLineEdit::Password);
	EXPECT_EQ(toggle->text(), "Show");

	// Saved back clamped, the preset as shown.
	press_save();
	EXPECT_EQ(cv::videobitrate(), 500u);
	EXPECT_EQ(cv::canvaswidth(), 7680u);
	EXPECT_STREQ(cv::encoderpreset(), "veryfast");
}

TEST_F(SettingsDialogTest, BlankUrlIsRefusedAndNothingStored)
{
	open_settings("rtmpurl=rtmp://kept.example/app\nstreamkey=old\n");
	const std::string before = read_file(profile_file());
	dialog_ = std::make_unique<cv::SettingsDialog>();
	child<QLineEdit>("urlEdit")->setText("   ");
	child<QLineEdit>("keyEdit")->setText("new");
	cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
	press_save();
	EXPECT_EQ(answerer.answered(), 1);
	EXPECT_EQ(answerer.last_title(), "Validation");
	EXPECT_EQ(answerer.last_text(), "RTMP URL cannot be empty.");
	EXPECT_STREQ(cv::rtmpurl(), "rtmp://kept.example/app");
	EXPECT_STREQ(cv::streamkey(), "old");
	EXPECT_EQ(read_file(profile_file()), before);
	EXPECT_EQ(dialog_->result(), 0); // still open, not accepted
}

TEST_F(SettingsDialogTest, SaveStoresEveryFieldAndReachesTheLiveOutput)
{
	open_settings("canvaswidth=360\ncanvasheight=640\n");
	ASSERT_TRUE(create_runtime());
	dialog_ = std::make_unique<cv::SettingsDialog>();
	child<QLineEdit>("urlEdit")->setText(" rtmp://new.example/app");
	child<QLineEdit>("keyEdit")->setText("");
	child<QSpinBox>("bitrateSpin")->setValue(6000);
	child<QSpinBox>("widthSpin")->setValue(720);
	child<QSpinBox>("heightSpin")->setValue(1280);
	child<QSpinBox>("fpsNumSpin")->setValue(60);
	child<QSpinBox>("fpsDenSpin")->setValue(2);
	child<QCheckBox>("autoStartCheck")->setChecked(false);
	child<QCheckBox>("sceneAudioCheck")->setChecked(false);
	child<QComboBox>("presetCombo")->setCurrentText("slow");
	cvtest::clear_logs();
	press_save();

	EXPECT_EQ(dialog_->result(), int(QDialog::Accepted));
	EXPECT_STREQ(cv::rtmpurl(), " rtmp://new.example/app"); // untrimmed on purpose
	EXPECT_STREQ(cv::streamkey(), "");
	EXPECT_EQ(cv::videobitrate(), 6000u);
	EXPECT_EQ(cv::canvaswidth(), 720u);
	EXPECT_EQ(cv::canvasheight(), 1280u);
	EXPECT_EQ(cv::fpsnum(), 60u);
	EXPECT_EQ(cv::fpsden(), 2u);
	EXPECT_FALSE(cv::autostartwithmain());
	EXPECT_STREQ(cv::encoderpreset(), "slow");
	EXPECT_FALSE(cv::useactivesceneaudio());
	// The live output took the new address; the file holds everything.
	EXPECT_TRUE(cvtest::log_contains("VerticalOutput config updated (url:  rtmp://new.example/app"));
	const std::string saved = read_file(profile_file());
	EXPECT_NE(saved.find("videobitrate=6000"), std::string::npos) << saved;
	EXPECT_NE(saved.find("encoderpreset=slow"), std::string::npos) << saved;
	// The running canvas keeps its size until the runtime is rebuilt.
	std::lock_guard lock(cv::runtime_mutex());
	ASSERT_NE(cv::runtime_canvas(), nullptr);
	EXPECT_EQ(cv::runtime_canvas()->width(), 360u);
}
