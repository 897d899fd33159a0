#include "settings_dialog.h"

#include "texts.h"

#include "stream/stream_url.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFontMetrics>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSpinBox>
#include <QStringList>
#include <QVBoxLayout>

#include <algorithm>

namespace cv {

namespace {

constexpr int kFallbackPresetIndex = 2; // "veryfast"

// A button that shows or hides what a field holds, as wide as the longer of its two
// words. The host's themes pad buttons generously, which would cut them off.
QPushButton *make_toggle(QWidget *parent)
{
	auto *toggle = new QPushButton(text("Settings.ShowKey"), parent);
	toggle->setCheckable(true);
	const QFontMetrics metrics = toggle->fontMetrics();
	toggle->setFixedWidth(std::max({52, metrics.horizontalAdvance(text("Settings.ShowKey")) + 12,
					metrics.horizontalAdvance(text("Settings.HideKey")) + 12}));
	toggle->setStyleSheet("padding-left: 2px; padding-right: 2px;");
	return toggle;
}

QSpinBox *make_spin(QWidget *parent, int minimum, int maximum, int step, const QString &unit = QString())
{
	auto *spin = new QSpinBox(parent);
	spin->setRange(minimum, maximum);
	spin->setSingleStep(step);
	if (!unit.isEmpty())
		spin->setSuffix(" " + unit);
	return spin;
}

// A note below a group's fields, small and in italics.
QLabel *make_note(QWidget *parent, const QString &note)
{
	auto *label = new QLabel("<small><i>" + note.toHtmlEscaped() + "</i></small>", parent);
	label->setWordWrap(true);
	return label;
}

QFormLayout *add_group(QVBoxLayout *main, QWidget *parent, const QString &title)
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

bool blank(const std::string &text)
{
	return QString::fromStdString(text).trimmed().isEmpty();
}

void add_destination_item(QListWidget *list, const QString &name, bool enabled)
{
	// Made whole before it joins the list, which reports every change of an item in it.
	auto *item = new QListWidgetItem(name);
	item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
	item->setCheckState(enabled ? Qt::Checked : Qt::Unchecked);
	list->addItem(item);
}

} // namespace

SettingsDialog::SettingsDialog(const PluginConfig &current, const std::vector<SettingWarning> &warnings, bool busy,
			       SaveFunction saveSettings, QWidget *parent)
	: QDialog(parent),
	  settings(current),
	  save(std::move(saveSettings))
{
	setWindowTitle(text("Settings.Title"));
	setMinimumWidth(600);
	build(warnings, busy);
	load();
}

void SettingsDialog::showEvent(QShowEvent *event)
{
	QDialog::showEvent(event);
	// A window is made no taller than two thirds of the screen by itself, and its minimum
	// height counts one line for each wrapped note: tall enough for every line of them.
	setMinimumHeight(layout()->totalHeightForWidth(width()));
}

void SettingsDialog::build(const std::vector<SettingWarning> &warnings, bool busy)
{
	auto *main = new QVBoxLayout(this);
	main->setSpacing(12);
	main->setContentsMargins(16, 16, 16, 16);

	if (!warnings.empty()) {
		QStringList lines;
		for (const SettingWarning &warning : warnings)
			lines << text("Settings.BadValue")
					 .arg(QString::fromStdString(warning.key),
					      QString::fromStdString(warning.value));
		auto *warningLabel = new QLabel(lines.join('\n'), this);
		warningLabel->setObjectName("warningLabel");
		warningLabel->setWordWrap(true);
		warningLabel->setStyleSheet("color: #e05252;");
		main->addWidget(warningLabel);
	}

	// The destinations beside the fields that edit the selected one.
	auto *streamGroup = new QGroupBox(text("Settings.Destinations"), this);
	auto *streamRow = new QHBoxLayout(streamGroup);
	streamRow->setSpacing(12);
	main->addWidget(streamGroup, 0);
	auto *listColumn = new QVBoxLayout;
	destinationList = new QListWidget(this);
	// As tall as the fields beside it.
	destinationList->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Ignored);
	destinationList->setFixedWidth(160);
	destinationList->setMinimumHeight(72);
	destinationList->setToolTip(text("Settings.Destinations.ToolTip"));
	listColumn->addWidget(destinationList, 1);
	auto *listButtons = new QHBoxLayout;
	addDestinationButton = new QPushButton(text("Settings.AddDestination"), this);
	removeDestinationButton = new QPushButton(text("Settings.RemoveDestination"), this);
	listButtons->addWidget(addDestinationButton);
	listButtons->addWidget(removeDestinationButton);
	listColumn->addLayout(listButtons);
	streamRow->addLayout(listColumn);
	auto *stream = new QFormLayout;
	stream->setSpacing(8);
	streamRow->addLayout(stream, 1);
	connect(destinationList, &QListWidget::currentRowChanged, this, &SettingsDialog::on_destination_selected);
	connect(destinationList, &QListWidget::itemChanged, this, &SettingsDialog::on_destination_checked);
	connect(addDestinationButton, &QPushButton::clicked, this, &SettingsDialog::on_add_destination);
	connect(removeDestinationButton, &QPushButton::clicked, this, &SettingsDialog::on_remove_destination);

	nameEdit = new QLineEdit(this);
	stream->addRow(text("Settings.Name"), nameEdit);
	auto *urlRow = new QHBoxLayout;
	urlEdit = new QLineEdit(this);
	urlEdit->setPlaceholderText("rtmp://live.twitch.tv/app");
	urlToggle = make_toggle(this);
	connect(urlToggle, &QPushButton::toggled, this, &SettingsDialog::on_toggle_url_visibility);
	urlRow->addWidget(urlEdit);
	urlRow->addWidget(urlToggle);
	stream->addRow(text("Settings.Url"), urlRow);
	auto *keyRow = new QHBoxLayout;
	keyEdit = new QLineEdit(this);
	keyEdit->setEchoMode(QLineEdit::Password);
	keyEdit->setPlaceholderText(text("Settings.StreamKey.Placeholder"));
	keyToggle = make_toggle(this);
	connect(keyToggle, &QPushButton::toggled, this, &SettingsDialog::on_toggle_key_visibility);
	keyRow->addWidget(keyEdit);
	keyRow->addWidget(keyToggle);
	stream->addRow(text("Settings.StreamKey"), keyRow);
	keyNote = make_note(this, QString());
	keyNote->hide();
	stream->addRow(keyNote);
	connect(nameEdit, &QLineEdit::textChanged, this, [this](const QString &text) {
		if (DestinationSettings *destination = current()) {
			destination->name = text.toStdString();
			const int row = destinationList->currentRow();
			destinationList->item(row)->setText(display_name(size_t(row)));
		}
	});
	connect(urlEdit, &QLineEdit::textChanged, this, [this](const QString &text) {
		if (DestinationSettings *destination = current())
			destination->url = text.toStdString();
		update_secrets();
	});
	connect(keyEdit, &QLineEdit::textChanged, this, [this](const QString &text) {
		if (DestinationSettings *destination = current())
			destination->key = text.toStdString();
		update_secrets();
	});
	stream->addRow(make_note(this, text("Settings.StreamNote")));

	QFormLayout *encoding = add_group(main, this, text("Settings.Encoding"));
	bitrateSpin = make_spin(this, int(kMinVideoKbps), int(kMaxVideoKbps), 100, text("Settings.Unit.Kbps"));
	encoding->addRow(text("Settings.VideoBitrate"), bitrateSpin);
	presetCombo = new QComboBox(this);
	for (const char *preset : kEncoderPresets)
		presetCombo->addItem(preset);
	encoding->addRow(text("Settings.EncoderPreset"), presetCombo);

	QFormLayout *canvas = add_group(main, this, text("Settings.Canvas"));
	widthSpin = make_spin(this, 16, 7680, 2, text("Settings.Unit.Pixels"));
	canvas->addRow(text("Settings.Width"), widthSpin);
	heightSpin = make_spin(this, 16, 7680, 2, text("Settings.Unit.Pixels"));
	canvas->addRow(text("Settings.Height"), heightSpin);
	auto *fpsRow = new QHBoxLayout;
	fpsNumSpin = make_spin(this, 1, 240, 1);
	auto *slash = new QLabel("/", this);
	slash->setFixedWidth(12);
	slash->setAlignment(Qt::AlignCenter);
	fpsDenSpin = make_spin(this, 1, 1000, 1);
	fpsRow->addWidget(fpsNumSpin);
	fpsRow->addWidget(slash);
	fpsRow->addWidget(fpsDenSpin);
	canvas->addRow(text("Settings.Fps"), fpsRow);
	const char *applies = busy ? "Settings.AppliesAtStop" : "Settings.AppliesNow";
	canvas->addRow(make_note(this, text("Settings.CanvasNote").arg(text(applies))));

	QFormLayout *behaviour = add_group(main, this, text("Settings.Behaviour"));
	autoStartCheck = new QCheckBox(text("Settings.AutoStart"), this);
	behaviour->addRow(autoStartCheck);
	autoRecordCheck = new QCheckBox(text("Settings.AutoRecord"), this);
	behaviour->addRow(autoRecordCheck);
	sceneAudioCheck = new QCheckBox(text("Settings.SceneAudio"), this);
	behaviour->addRow(sceneAudioCheck);
	audioTrackCombo = new QComboBox(this);
	for (uint32_t track = 1; track <= kAudioTracks; track++)
		audioTrackCombo->addItem(text("Settings.Track").arg(track));
	behaviour->addRow(text("Settings.AudioTrack"), audioTrackCombo);
	// Names the check box in its own words.
	behaviour->addRow(make_note(this, text("Settings.AudioNote").arg(text("Settings.SceneAudio"), text(applies))));

	// Named after their members, for automation and style sheets.
	destinationList->setObjectName("destinationList");
	addDestinationButton->setObjectName("addDestinationButton");
	removeDestinationButton->setObjectName("removeDestinationButton");
	nameEdit->setObjectName("nameEdit");
	urlEdit->setObjectName("urlEdit");
	keyEdit->setObjectName("keyEdit");
	keyToggle->setObjectName("keyToggle");
	urlToggle->setObjectName("urlToggle");
	keyNote->setObjectName("keyNote");
	bitrateSpin->setObjectName("bitrateSpin");
	widthSpin->setObjectName("widthSpin");
	heightSpin->setObjectName("heightSpin");
	fpsNumSpin->setObjectName("fpsNumSpin");
	fpsDenSpin->setObjectName("fpsDenSpin");
	autoStartCheck->setObjectName("autoStartCheck");
	autoRecordCheck->setObjectName("autoRecordCheck");
	sceneAudioCheck->setObjectName("sceneAudioCheck");
	audioTrackCombo->setObjectName("audioTrackCombo");
	presetCombo->setObjectName("presetCombo");

	// What keeps Save from saving, said inside the dialog rather than in a box of its own.
	validationLabel = new QLabel(this);
	validationLabel->setObjectName("validationLabel");
	validationLabel->setWordWrap(true);
	validationLabel->setStyleSheet("color: #e05252;");
	validationLabel->hide();
	main->addWidget(validationLabel);

	auto *buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, this);
	connect(buttons, &QDialogButtonBox::accepted, this, &SettingsDialog::on_save_clicked);
	connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
	main->addWidget(buttons);
}

void SettingsDialog::load()
{
	if (settings.destinations.empty())
		settings.destinations.push_back(new_destination(0));
	destinationList->blockSignals(true);
	for (size_t i = 0; i < settings.destinations.size(); i++)
		add_destination_item(destinationList, display_name(i), settings.destinations[i].enabled);
	destinationList->blockSignals(false);
	destinationList->setCurrentRow(0);
	on_destination_selected(0);
	update_destination_buttons();
	bitrateSpin->setValue(clamp_to_int(settings.videobitrate));
	widthSpin->setValue(clamp_to_int(settings.canvaswidth));
	heightSpin->setValue(clamp_to_int(settings.canvasheight));
	fpsNumSpin->setValue(clamp_to_int(settings.fpsnum));
	fpsDenSpin->setValue(clamp_to_int(settings.fpsden));
	autoStartCheck->setChecked(settings.autostartwithmain);
	autoRecordCheck->setChecked(settings.autorecordwithmain);
	sceneAudioCheck->setChecked(settings.useactivesceneaudio);
	const bool trackExists = settings.audiotrack >= 1 && settings.audiotrack <= kAudioTracks;
	audioTrackCombo->setCurrentIndex(trackExists ? int(settings.audiotrack) - 1 : 0);
	const int preset = presetCombo->findText(QString::fromStdString(settings.encoderpreset),
						 Qt::MatchExactly | Qt::MatchCaseSensitive);
	presetCombo->setCurrentIndex(preset >= 0 ? preset : kFallbackPresetIndex);
}

DestinationSettings *SettingsDialog::current()
{
	const int row = destinationList->currentRow();
	return row >= 0 && size_t(row) < settings.destinations.size() ? &settings.destinations[size_t(row)] : nullptr;
}

QString SettingsDialog::display_name(size_t index) const
{
	const std::string &name = settings.destinations[index].name;
	return QString::fromStdString(blank(name) ? default_destination_name(index) : name);
}

void SettingsDialog::update_destination_buttons()
{
	addDestinationButton->setEnabled(settings.destinations.size() < kMaxDestinations);
	removeDestinationButton->setEnabled(settings.destinations.size() > 1);
}

void SettingsDialog::on_destination_selected(int row)
{
	if (row < 0 || size_t(row) >= settings.destinations.size())
		return;
	const DestinationSettings &destination = settings.destinations[size_t(row)];
	nameEdit->setPlaceholderText(QString::fromStdString(default_destination_name(size_t(row))));
	nameEdit->setText(QString::fromStdString(destination.name));
	// Masked before the text arrives, so a secret never shows, not even for a moment.
	urlToggle->setChecked(false);
	urlEdit->setEchoMode(url_has_secret(destination.url) ? QLineEdit::Password : QLineEdit::Normal);
	urlEdit->setText(QString::fromStdString(destination.url));
	keyEdit->setText(QString::fromStdString(destination.key));
	update_secrets();
}

void SettingsDialog::update_secrets()
{
	const DestinationSettings *destination = current();
	const std::string url = destination ? destination->url : std::string();
	const bool secret = url_has_secret(url);
	urlToggle->setVisible(secret);
	if (!urlToggle->isChecked())
		urlEdit->setEchoMode(secret ? QLineEdit::Password : QLineEdit::Normal);
	const bool srt = is_srt_url(trim_blanks(url));
	const bool has_key = destination && !trim_blanks(destination->key).empty();
	keyNote->setVisible(srt && has_key);
	if (srt && has_key)
		keyNote->setText(
			"<small><i>" +
			text(srt_key_ignored(url, destination->key) ? "Settings.SrtKeyIgnored" : "Settings.SrtKeyUsed")
				.toHtmlEscaped() +
			"</i></small>");
}

void SettingsDialog::on_toggle_url_visibility()
{
	const bool shown = urlToggle->isChecked();
	urlEdit->setEchoMode(shown || !url_has_secret(urlEdit->text().toStdString()) ? QLineEdit::Normal
										     : QLineEdit::Password);
	urlToggle->setText(shown ? text("Settings.HideKey") : text("Settings.ShowKey"));
}

void SettingsDialog::on_destination_checked(QListWidgetItem *item)
{
	const int row = destinationList->row(item);
	if (row >= 0 && size_t(row) < settings.destinations.size())
		settings.destinations[size_t(row)].enabled = item->checkState() == Qt::Checked;
}

void SettingsDialog::on_add_destination()
{
	if (settings.destinations.size() >= kMaxDestinations)
		return;
	// The first "Destination <n>" no destination goes by.
	size_t free = 0;
	const auto taken = [this](const QString &name) {
		for (size_t i = 0; i < settings.destinations.size(); i++)
			if (display_name(i) == name)
				return true;
		return false;
	};
	while (taken(QString::fromStdString(default_destination_name(free))))
		free++;
	settings.destinations.push_back(new_destination(free));
	add_destination_item(destinationList, display_name(settings.destinations.size() - 1), true);
	destinationList->setCurrentRow(destinationList->count() - 1);
	update_destination_buttons();
	nameEdit->setFocus();
	nameEdit->selectAll();
}

void SettingsDialog::on_remove_destination()
{
	const int row = destinationList->currentRow();
	if (settings.destinations.size() <= 1 || row < 0 || size_t(row) >= settings.destinations.size())
		return;
	settings.destinations.erase(settings.destinations.begin() + row);
	// The list's own signals would name rows of the list as it was before the removal.
	destinationList->blockSignals(true);
	delete destinationList->takeItem(row);
	// Unnamed destinations are named by position, which moved.
	for (int i = 0; i < destinationList->count(); i++)
		destinationList->item(i)->setText(display_name(size_t(i)));
	destinationList->setCurrentRow(std::min(row, destinationList->count() - 1));
	destinationList->blockSignals(false);
	on_destination_selected(destinationList->currentRow());
	update_destination_buttons();
}

void SettingsDialog::on_toggle_key_visibility()
{
	const bool shown = keyToggle->isChecked();
	keyEdit->setEchoMode(shown ? QLineEdit::Normal : QLineEdit::Password);
	keyToggle->setText(shown ? text("Settings.HideKey") : text("Settings.ShowKey"));
}

void SettingsDialog::on_save_clicked()
{
	for (size_t i = 0; i < settings.destinations.size(); i++) {
		const DestinationSettings &destination = settings.destinations[i];
		if (!destination.enabled || !blank(destination.url))
			continue;
		destinationList->setCurrentRow(int(i));
		const QString message = settings.destinations.size() == 1
						? text("Settings.UrlEmpty")
						: text("Settings.UrlEmptyOf").arg(display_name(i));
		validationLabel->setText(message);
		validationLabel->show();
		return;
	}
	// Stored as typed: only the emptiness tests trim.
	for (size_t i = 0; i < settings.destinations.size(); i++)
		if (blank(settings.destinations[i].name))
			settings.destinations[i].name = default_destination_name(i);
	settings.videobitrate = uint32_t(bitrateSpin->value());
	settings.canvaswidth = uint32_t(widthSpin->value());
	settings.canvasheight = uint32_t(heightSpin->value());
	settings.fpsnum = uint32_t(fpsNumSpin->value());
	settings.fpsden = uint32_t(fpsDenSpin->value());
	settings.autostartwithmain = autoStartCheck->isChecked();
	settings.autorecordwithmain = autoRecordCheck->isChecked();
	settings.encoderpreset = presetCombo->currentText().toStdString();
	settings.useactivesceneaudio = sceneAudioCheck->isChecked();
	settings.audiotrack = uint32_t(audioTrackCombo->currentIndex() + 1);
	if (save)
		save(settings);
	accept();
}

} // namespace cv
