#include "settings_dialog.h"

#include "texts.h"

#include "base/encoder_order.h"
#include "output/host_services.h"
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

QFormLayout *add_group(QBoxLayout *row, QWidget *parent, const QString &title)
{
	auto *group = new QGroupBox(title, parent);
	auto *form = new QFormLayout(group);
	form->setSpacing(8);
	row->addWidget(group, 1);
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
	setMinimumWidth(760);
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
	// "Custom" (an address typed in) or one of the services the host's own stream
	// settings list, with that service's servers.
	serviceCombo = new QComboBox(this);
	serviceCombo->addItem(text("Settings.Custom"), QString());
	for (const std::string &service : host_services())
		serviceCombo->addItem(QString::fromStdString(service), QString::fromStdString(service));
	stream->addRow(text("Settings.Service"), serviceCombo);
	serverRowWidget = new QWidget(this);
	auto *serverRow = new QHBoxLayout(serverRowWidget);
	serverRow->setContentsMargins(0, 0, 0, 0);
	serverCombo = new QComboBox(serverRowWidget);
	serverRow->addWidget(serverCombo);
	serverLabel = new QLabel(text("Settings.Server"), this);
	stream->addRow(serverLabel, serverRowWidget);
	urlRowWidget = new QWidget(this);
	auto *urlRow = new QHBoxLayout(urlRowWidget);
	urlRow->setContentsMargins(0, 0, 0, 0);
	urlEdit = new QLineEdit(urlRowWidget);
	urlEdit->setPlaceholderText("rtmp://live.twitch.tv/app");
	urlToggle = make_toggle(urlRowWidget);
	connect(urlToggle, &QPushButton::toggled, this, &SettingsDialog::on_toggle_url_visibility);
	urlRow->addWidget(urlEdit);
	urlRow->addWidget(urlToggle);
	urlLabel = new QLabel(text("Settings.Url"), this);
	stream->addRow(urlLabel, urlRowWidget);
	connect(serviceCombo, qOverload<int>(&QComboBox::activated), this, [this] {
		if (DestinationSettings *destination = current()) {
			destination->service = serviceCombo->currentData().toString().toStdString();
			destination->url.clear();
			urlEdit->clear();
		}
		show_service();
	});
	connect(serverCombo, qOverload<int>(&QComboBox::activated), this, [this] {
		if (DestinationSettings *destination = current())
			destination->url = serverCombo->currentData().toString().toStdString();
	});
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
	serviceNote = new QLabel(this);
	serviceNote->setWordWrap(true);
	serviceNote->setStyleSheet("color: #e0a030;");
	serviceNote->hide();
	stream->addRow(serviceNote);
	connect(nameEdit, &QLineEdit::textChanged, this, [this](const QString &text) {
		if (DestinationSettings *destination = current()) {
			destination->name = text.toStdString();
			const int row = destinationList->currentRow();
			destinationList->item(row)->setText(display_name(size_t(row)));
		}
	});
	connect(urlEdit, &QLineEdit::textChanged, this, [this](const QString &text) {
		if (DestinationSettings *destination = current(); destination && destination->service.empty())
			destination->url = text.toStdString();
		update_secrets();
	});
	connect(keyEdit, &QLineEdit::textChanged, this, [this](const QString &text) {
		if (DestinationSettings *destination = current())
			destination->key = text.toStdString();
		update_secrets();
	});
	stream->addRow(make_note(this, text("Settings.StreamNote")));

	// Encoding beside the canvas and the behaviour, so the dialog fits a laptop's screen.
	auto *columns = new QHBoxLayout;
	columns->setSpacing(12);
	main->addLayout(columns);
	auto *right = new QVBoxLayout;
	right->setSpacing(12);
	QFormLayout *encoding = add_group(columns, this, text("Settings.Encoding"));
	columns->addLayout(right, 1);
	// "Automatic" and every H.264 encoder of the running host, by the host's own names.
	encoderCombo = new QComboBox(this);
	encoderCombo->addItem(text("Settings.Automatic"), QString(kAutomaticEncoder));
	for (const HostChoice &encoder : host_h264_encoders())
		encoderCombo->addItem(QString::fromStdString(encoder.name), QString::fromStdString(encoder.value));
	encoding->addRow(text("Settings.Encoder"), encoderCombo);
	bitrateSpin = make_spin(this, int(kMinVideoKbps), int(kMaxVideoKbps), 100, text("Settings.Unit.Kbps"));
	encoding->addRow(text("Settings.VideoBitrate"), bitrateSpin);
	keyintSpin = make_spin(this, 1, int(kMaxKeyintSec), 1, text("Settings.Unit.Seconds"));
	encoding->addRow(text("Settings.Keyint"), keyintSpin);
	presetCombo = new QComboBox(this);
	encoding->addRow(text("Settings.EncoderPreset"), presetCombo);
	lowLatencyCheck = new QCheckBox(text("Settings.LowLatency"), this);
	encoding->addRow(lowLatencyCheck);
	encoding->addRow(make_note(this, text("Settings.EncoderNote")));
	connect(encoderCombo, qOverload<int>(&QComboBox::activated), this,
		[this] { show_encoder_presets(presetCombo->currentData().toString().toStdString()); });
	connect(bitrateSpin, qOverload<int>(&QSpinBox::valueChanged), this, &SettingsDialog::update_service_note);
	connect(keyintSpin, qOverload<int>(&QSpinBox::valueChanged), this, &SettingsDialog::update_service_note);

	QFormLayout *canvas = add_group(right, this, text("Settings.Canvas"));
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

	QFormLayout *behaviour = add_group(right, this, text("Settings.Behaviour"));
	autoStartCheck = new QCheckBox(text("Settings.AutoStart"), this);
	behaviour->addRow(autoStartCheck);
	autoRecordCheck = new QCheckBox(text("Settings.AutoRecord"), this);
	behaviour->addRow(autoRecordCheck);
	replaySecondsSpin =
		make_spin(this, int(kMinReplaySeconds), int(kMaxReplaySeconds), 5, text("Settings.Unit.Seconds"));
	behaviour->addRow(text("Settings.ReplaySeconds"), replaySecondsSpin);
	replayWithMainCheck = new QCheckBox(text("Settings.ReplayWithMain"), this);
	behaviour->addRow(replayWithMainCheck);
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
	replaySecondsSpin->setObjectName("replaySecondsSpin");
	replayWithMainCheck->setObjectName("replayWithMainCheck");
	sceneAudioCheck->setObjectName("sceneAudioCheck");
	audioTrackCombo->setObjectName("audioTrackCombo");
	presetCombo->setObjectName("presetCombo");
	serviceCombo->setObjectName("serviceCombo");
	serverCombo->setObjectName("serverCombo");
	serviceNote->setObjectName("serviceNote");
	encoderCombo->setObjectName("encoderCombo");
	keyintSpin->setObjectName("keyintSpin");
	lowLatencyCheck->setObjectName("lowLatencyCheck");

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
	replaySecondsSpin->setValue(clamp_to_int(settings.replayseconds));
	replayWithMainCheck->setChecked(settings.replaywithmain);
	sceneAudioCheck->setChecked(settings.useactivesceneaudio);
	const bool trackExists = settings.audiotrack >= 1 && settings.audiotrack <= kAudioTracks;
	audioTrackCombo->setCurrentIndex(trackExists ? int(settings.audiotrack) - 1 : 0);
	int encoder = encoderCombo->findData(QString::fromStdString(settings.encoder));
	if (encoder < 0) {
		// Kept, though this OBS does not offer it: the profile may travel between machines.
		encoderCombo->addItem(text("Settings.EncoderMissing").arg(QString::fromStdString(settings.encoder)),
				      QString::fromStdString(settings.encoder));
		encoder = encoderCombo->count() - 1;
	}
	encoderCombo->setCurrentIndex(encoder);
	keyintSpin->setValue(clamp_to_int(settings.keyintsec));
	lowLatencyCheck->setChecked(settings.lowlatency);
	show_encoder_presets(settings.encoderpreset);
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
	show_service();
}

void SettingsDialog::show_service()
{
	const DestinationSettings *destination = current();
	const std::string service = destination ? destination->service : std::string();
	int index = serviceCombo->findData(QString::fromStdString(service));
	if (index < 0) {
		serviceCombo->addItem(QString::fromStdString(service), QString::fromStdString(service));
		index = serviceCombo->count() - 1;
	}
	serviceCombo->setCurrentIndex(index);
	for (QWidget *widget : {static_cast<QWidget *>(urlLabel), urlRowWidget})
		widget->setVisible(service.empty());
	for (QWidget *widget : {static_cast<QWidget *>(serverLabel), serverRowWidget})
		widget->setVisible(!service.empty());
	serverCombo->clear();
	if (!service.empty()) {
		for (const HostChoice &server : service_servers(service))
			serverCombo->addItem(QString::fromStdString(server.name), QString::fromStdString(server.value));
		const int server = serverCombo->findData(QString::fromStdString(destination->url));
		serverCombo->setCurrentIndex(server >= 0 ? server : 0);
	}
	update_service_note();
}

// What the service allows, beside what the settings ask for.
void SettingsDialog::update_service_note()
{
	const DestinationSettings *destination = current();
	QStringList notes;
	if (destination && !destination->service.empty()) {
		const ServiceLimits limits = service_limits(destination->service);
		const QString name = QString::fromStdString(destination->service);
		if (limits.max_video_kbps > 0 && bitrateSpin->value() > limits.max_video_kbps)
			notes << text("Settings.ServiceBitrate").arg(name).arg(limits.max_video_kbps);
		if (limits.keyint_sec > 0 && keyintSpin->value() != limits.keyint_sec)
			notes << text("Settings.ServiceKeyint").arg(name).arg(limits.keyint_sec);
	}
	serviceNote->setText(notes.join('\n'));
	serviceNote->setVisible(!notes.isEmpty());
}

// With "Automatic" the preset is x264's, which the automatic choice falls back to.
void SettingsDialog::show_encoder_presets(const std::string &preset)
{
	const std::string encoder = encoderCombo->currentData().toString().toStdString();
	const std::string presets_of = encoder == kAutomaticEncoder ? std::string(kX264Encoder) : encoder;
	presetCombo->clear();
	for (const HostChoice &choice : encoder_presets(presets_of))
		presetCombo->addItem(QString::fromStdString(choice.name), QString::fromStdString(choice.value));
	if (presetCombo->count() == 0)
		presetCombo->addItem(text("Settings.EncoderDefault"), QString());
	const int found = presetCombo->findData(QString::fromStdString(preset));
	const int fallback = presetCombo->findData(QString("veryfast"));
	presetCombo->setCurrentIndex(found >= 0 ? found : std::max(fallback, 0));
	presetCombo->setEnabled(presetCombo->count() > 1);
	lowLatencyCheck->setEnabled(presets_of == kX264Encoder);
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
	settings.replayseconds = uint32_t(replaySecondsSpin->value());
	settings.replaywithmain = replayWithMainCheck->isChecked();
	settings.encoder = encoderCombo->currentData().toString().toStdString();
	settings.encoderpreset = presetCombo->currentData().toString().toStdString();
	settings.keyintsec = uint32_t(keyintSpin->value());
	settings.lowlatency = lowLatencyCheck->isChecked();
	settings.useactivesceneaudio = sceneAudioCheck->isChecked();
	settings.audiotrack = uint32_t(audioTrackCombo->currentIndex() + 1);
	if (save)
		save(settings);
	accept();
}

} // namespace cv
