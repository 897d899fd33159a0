#include "settings_dialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

namespace cv {

namespace {

constexpr int kFallbackPresetIndex = 2; // "veryfast"

QSpinBox *make_spin(QWidget *parent, int minimum, int maximum, int step, const char *suffix)
{
	auto *spin = new QSpinBox(parent);
	spin->setRange(minimum, maximum);
	spin->setSingleStep(step);
	if (suffix)
		spin->setSuffix(suffix);
	return spin;
}

QFormLayout *add_group(QVBoxLayout *main, QWidget *parent, const char *title)
{
	auto *group = new QGroupBox(title, parent);
	auto *form = new QFormLayout(group);
	form->setSpacing(8);
	main->addWidget(group, 0);
	return form;
}

int clamp_to_int(uint32_t value)
{
	return value > uint32_t(INT32_MAX) ? INT32_MAX : int(value);
}

} // namespace

SettingsDialog::SettingsDialog(const PluginConfig &current, SaveFunction saveSettings, QWidget *parent)
	: QDialog(parent),
	  settings(current),
	  save(std::move(saveSettings))
{
	setWindowTitle(QString::fromUtf8("Vertical Canvas \u2014 Settings"));
	setMinimumWidth(440);
	setModal(true);
	build();
	load();
}

void SettingsDialog::build()
{
	auto *main = new QVBoxLayout(this);
	main->setSpacing(12);
	main->setContentsMargins(16, 16, 16, 16);

	QFormLayout *stream = add_group(main, this, "Stream");
	urlEdit = new QLineEdit(this);
	urlEdit->setPlaceholderText("rtmp://live.twitch.tv/app");
	stream->addRow("RTMP URL:", urlEdit);
	auto *keyRow = new QHBoxLayout;
	keyEdit = new QLineEdit(this);
	keyEdit->setEchoMode(QLineEdit::Password);
	keyEdit->setPlaceholderText("your-stream-key");
	keyToggle = new QPushButton("Show", this);
	keyToggle->setCheckable(true);
	keyToggle->setFixedWidth(52);
	// The host's themes pad buttons generously; at 52 pixels "Show" and "Hide" would be
	// cut off.
	keyToggle->setStyleSheet("padding-left: 2px; padding-right: 2px;");
	connect(keyToggle, &QPushButton::toggled, this, &SettingsDialog::on_toggle_key_visibility);
	keyRow->addWidget(keyEdit);
	keyRow->addWidget(keyToggle);
	stream->addRow("Stream Key:", keyRow);

	QFormLayout *encoding = add_group(main, this, "Encoding");
	bitrateSpin = make_spin(this, int(kMinVideoKbps), int(kMaxVideoKbps), 100, " kbps");
	encoding->addRow("Video Bitrate:", bitrateSpin);
	presetCombo = new QComboBox(this);
	presetCombo->addItems(
		{"ultrafast", "superfast", "veryfast", "faster", "fast", "medium", "slow", "slower", "veryslow"});
	encoding->addRow("Encoder Preset:", presetCombo);

	QFormLayout *canvas = add_group(main, this, "Canvas");
	widthSpin = make_spin(this, 16, 7680, 2, " px");
	canvas->addRow("Width:", widthSpin);
	heightSpin = make_spin(this, 16, 7680, 2, " px");
	canvas->addRow("Height:", heightSpin);
	auto *fpsRow = new QHBoxLayout;
	fpsNumSpin = make_spin(this, 1, 240, 1, nullptr);
	auto *slash = new QLabel("/", this);
	slash->setFixedWidth(12);
	slash->setAlignment(Qt::AlignCenter);
	fpsDenSpin = make_spin(this, 1, 1000, 1, nullptr);
	fpsRow->addWidget(fpsNumSpin);
	fpsRow->addWidget(slash);
	fpsRow->addWidget(fpsDenSpin);
	canvas->addRow("FPS (num / den):", fpsRow);
	auto *canvasNote = new QLabel(
		"<small><i>Canvas size and FPS changes take effect when OBS starts or the profile is switched.</i></small>",
		this);
	canvasNote->setWordWrap(true);
	canvas->addRow(canvasNote);

	QFormLayout *behaviour = add_group(main, this, "Behaviour");
	autoStartCheck = new QCheckBox("Auto-start when main stream starts", this);
	behaviour->addRow(autoStartCheck);
	sceneAudioCheck = new QCheckBox("Use audio from active vertical scene", this);
	behaviour->addRow(sceneAudioCheck);
	auto *audioNote =
		new QLabel("Audio source changes take effect when OBS starts or the profile is switched.", this);
	audioNote->setWordWrap(true);
	behaviour->addRow(audioNote);

	// Named after their members, for automation and style sheets.
	urlEdit->setObjectName("urlEdit");
	keyEdit->setObjectName("keyEdit");
	keyToggle->setObjectName("keyToggle");
	bitrateSpin->setObjectName("bitrateSpin");
	widthSpin->setObjectName("widthSpin");
	heightSpin->setObjectName("heightSpin");
	fpsNumSpin->setObjectName("fpsNumSpin");
	fpsDenSpin->setObjectName("fpsDenSpin");
	autoStartCheck->setObjectName("autoStartCheck");
	sceneAudioCheck->setObjectName("sceneAudioCheck");
	presetCombo->setObjectName("presetCombo");

	auto *buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, this);
	connect(buttons, &QDialogButtonBox::accepted, this, &SettingsDialog::on_save_clicked);
	connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
	main->addWidget(buttons);
}

void SettingsDialog::load()
{
	urlEdit->setText(QString::fromStdString(settings.rtmpurl));
	keyEdit->setText(QString::fromStdString(settings.streamkey));
	bitrateSpin->setValue(clamp_to_int(settings.videobitrate));
	widthSpin->setValue(clamp_to_int(settings.canvaswidth));
	heightSpin->setValue(clamp_to_int(settings.canvasheight));
	fpsNumSpin->setValue(clamp_to_int(settings.fpsnum));
	fpsDenSpin->setValue(clamp_to_int(settings.fpsden));
	autoStartCheck->setChecked(settings.autostartwithmain);
	sceneAudioCheck->setChecked(settings.useactivesceneaudio);
	const int preset = presetCombo->findText(QString::fromStdString(settings.encoderpreset),
						 Qt::MatchExactly | Qt::MatchCaseSensitive);
	presetCombo->setCurrentIndex(preset >= 0 ? preset : kFallbackPresetIndex);
}

void SettingsDialog::on_toggle_key_visibility()
{
	const bool shown = keyToggle->isChecked();
	keyEdit->setEchoMode(shown ? QLineEdit::Normal : QLineEdit::Password);
	keyToggle->setText(shown ? "Hide" : "Show");
}

void SettingsDialog::on_save_clicked()
{
	if (urlEdit->text().trimmed().isEmpty()) {
		QMessageBox::warning(this, "Validation", "RTMP URL cannot be empty.", QMessageBox::Ok);
		return;
	}
	// Stored as typed: only the emptiness test trims.
	settings.rtmpurl = urlEdit->text().toStdString();
	settings.streamkey = keyEdit->text().toStdString();
	settings.videobitrate = uint32_t(bitrateSpin->value());
	settings.canvaswidth = uint32_t(widthSpin->value());
	settings.canvasheight = uint32_t(heightSpin->value());
	settings.fpsnum = uint32_t(fpsNumSpin->value());
	settings.fpsden = uint32_t(fpsDenSpin->value());
	settings.autostartwithmain = autoStartCheck->isChecked();
	settings.encoderpreset = presetCombo->currentText().toStdString();
	settings.useactivesceneaudio = sceneAudioCheck->isChecked();
	if (save)
		save(settings);
	accept();
}

} // namespace cv
