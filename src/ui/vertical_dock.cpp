#include "vertical_dock.h"

#include "notices.h"
#include "scene_config_dialog.h"
#include "scene_layout_dialog.h"
#include "texts.h"
#include "vertical_preview.h"

#include "base/commands.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "output/vertical_recording.h"

#include "base/log.h"

#include <obs.h>

#include <QCheckBox>
#include <QColor>
#include <QComboBox>
#include <QFileInfo>
#include <QFont>
#include <QFontMetrics>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QStringList>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

namespace cv {

namespace {

constexpr const char *kQuietStyle = "font-size: 11px; color: #888;";
constexpr const char *kStreamingStyle = "font-size: 11px; color: #4caf50; font-weight: bold;";
constexpr const char *kFailedStyle = "font-size: 11px; color: #e05252;";
constexpr const char *kGreen = "#4caf50";
constexpr const char *kAmber = "#e0a030";
constexpr const char *kRed = "#e05252";
constexpr const char *kGrey = "#888888";

std::string utf8(const QString &text)
{
	return text.toUtf8().toStdString();
}

QString from_utf8(const std::string &text)
{
	return QString::fromUtf8(text.c_str(), int(text.size()));
}

QPushButton *make_button(QWidget *parent, const QString &label, const QString &tip)
{
	auto *button = new QPushButton(label, parent);
	button->setToolTip(tip);
	return button;
}

// Asks for a text beside the host's window, without blocking it; `accepted` runs with
// the answer.
void ask_text(QWidget *parent, const char *name, const QString &title, const QString &label, const QString &initial,
	      const std::function<void(const QString &)> &accepted)
{
	auto *dialog = new QInputDialog(parent);
	dialog->setObjectName(name);
	dialog->setWindowTitle(title);
	dialog->setLabelText(label);
	dialog->setTextValue(initial);
	dialog->setWindowModality(Qt::NonModal);
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	QObject::connect(dialog, &QInputDialog::textValueSelected, parent, accepted);
	dialog->show();
}

QString scene_caption(const QString &active)
{
	return active.isEmpty() ? text("Dock.NoActiveScene") : text("Dock.ActiveScene").arg(active);
}

bool sending(StreamState state)
{
	return state == StreamState::Live || state == StreamState::Connecting || state == StreamState::Reconnecting;
}

// The state's words and colour.
std::pair<QString, const char *> describe_state(const DestinationStatus &status)
{
	switch (status.state) {
	case StreamState::Live:
		return {text("Dock.State.Live"), kGreen};
	case StreamState::Connecting:
		return {text("Dock.State.Connecting"), kAmber};
	case StreamState::Reconnecting:
		return {text("Dock.State.Reconnecting"), kAmber};
	case StreamState::Failed:
		return {status.error ? text("Dock.State.FailedWith").arg(error_text(status.error))
				     : text("Dock.State.Failed"),
			kRed};
	case StreamState::Stopped:
		break;
	}
	return {text(status.enabled ? "Dock.State.Stopped" : "Dock.State.Off"), kGrey};
}

// h:mm:ss
QString clock_text(std::chrono::milliseconds span)
{
	const long long seconds = span.count() / 1000;
	const QChar zero('0');
	return QString("%1:%2:%3")
		.arg(seconds / 3600)
		.arg(seconds / 60 % 60, 2, 10, zero)
		.arg(seconds % 60, 2, 10, zero);
}

// "<name> — <state>" and its colour; while it sends, below it what it sends, in as many
// lines of `width` pixels as that needs.
std::pair<QString, const char *> describe(const DestinationStatus &status, const QFontMetrics &metrics, int width)
{
	const auto [state, colour] = describe_state(status);
	QStringList lines{text("Dock.Destination").arg(from_utf8(status.name), state)};
	if (!sending(status.state))
		return {lines.join('\n'), colour};
	const QString figures[] = {
		text("Dock.Figures.Bitrate").arg(status.kbps),
		text("Dock.Figures.Dropped").arg(status.stats.dropped.video_frames),
		text("Dock.Figures.Reconnects").arg(status.stats.reconnects),
		text("Dock.Figures.Live").arg(clock_text(status.stats.live_for)),
	};
	const QString separator = QString::fromUtf8(" \u00B7 ");
	for (size_t i = 0; i < std::size(figures); i++) {
		if (i > 0 && metrics.horizontalAdvance(lines.last() + separator + figures[i]) <= width)
			lines.last() += separator + figures[i];
		else
			lines.append(figures[i]);
	}
	return {lines.join('\n'), colour};
}

// Scrolls its widget when short; asks for all of its height otherwise (a scroll area
// asks for at most a few hundred pixels).
class ControlsArea : public QScrollArea {
public:
	explicit ControlsArea(QWidget *parent) : QScrollArea(parent)
	{
		setWidgetResizable(true);
		setFrameShape(QFrame::NoFrame);
		setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
		setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Maximum);
	}
	QSize sizeHint() const override { return widget() ? widget()->sizeHint() : QScrollArea::sizeHint(); }
	QSize minimumSizeHint() const override { return QSize(QScrollArea::minimumSizeHint().width(), 80); }
};

} // namespace

VerticalDock::VerticalDock(Commands *dockCommands, VerticalCanvas *dockCanvas, VerticalOutput *dockOutput,
			   VerticalRecording *dockRecording, VerticalRecording *dockReplay, QWidget *parent)
	: QWidget(parent),
	  commands(dockCommands),
	  canvas(dockCanvas),
	  output(dockOutput),
	  recording(dockRecording),
	  replay(dockReplay)
{
	setObjectName("CorvaneVerticalCanvasDock");
	setWindowTitle(text("Dock.Title"));
	setMinimumWidth(270);
	setMaximumWidth(540);

	auto *main = new QVBoxLayout(this);
	main->setContentsMargins(4, 4, 4, 4);
	main->setSpacing(4);

	sceneLabel = new QLabel(text("Dock.Title"), this);
	sceneLabel->setAlignment(Qt::AlignCenter);
	sceneLabel->setStyleSheet("font-size: 11px; color: #aaa;");
	main->addWidget(sceneLabel);

	auto *previewBox = new QWidget(this);
	previewBox->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
	previewBox->setStyleSheet("background: #181818;");
	auto *previewRow = new QHBoxLayout(previewBox);
	previewRow->setContentsMargins(0, 0, 0, 0);
	previewRow->setSpacing(0);
	preview = new VerticalPreviewWidget(canvas, previewBox);
	preview->setCommands(commands);
	preview->setToolTip(text("Dock.Preview.ToolTip"));
	connect(preview, &VerticalPreviewWidget::layoutEdited, this, &VerticalDock::refreshLayoutDialogs);
	previewRow->addStretch();
	previewRow->addWidget(preview);
	previewRow->addStretch();
	main->addWidget(previewBox, 1);

	// Everything below the preview scrolls when the dock is short, so that the dock never
	// makes the host's window taller than the host's own docks do.
	auto *controls = new QWidget(this);
	auto *below = new QVBoxLayout(controls);
	below->setContentsMargins(0, 0, 0, 0);
	below->setSpacing(4);

	auto *scenesHeader = new QLabel(text("Dock.Scenes"), this);
	scenesHeader->setStyleSheet(kQuietStyle);
	below->addWidget(scenesHeader);

	sceneList = new QListWidget(this);
	sceneList->setFixedHeight(84);
	sceneList->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
	sceneList->setStyleSheet(
		"QListWidget { font-size: 12px; }QListWidget::item:selected { background: #2a6099; color: white; }");
	connect(sceneList, &QListWidget::itemClicked, this, &VerticalDock::onSceneItemClicked);
	below->addWidget(sceneList);

	auto *sceneButtons = new QGridLayout;
	sceneButtons->setSpacing(4);
	sceneButtons->setContentsMargins(0, 0, 0, 0);
	addButton = make_button(this, text("Dock.AddScene"), text("Dock.AddScene.ToolTip"));
	removeButton = make_button(this, text("Dock.RemoveScene"), text("Dock.RemoveScene.ToolTip"));
	renameButton = make_button(this, text("Dock.RenameScene"), text("Dock.RenameScene.ToolTip"));
	assignButton = make_button(this, text("Dock.AssignScene"), text("Dock.AssignScene.ToolTip"));
	sceneButtons->addWidget(addButton, 0, 0);
	sceneButtons->addWidget(removeButton, 0, 1);
	sceneButtons->addWidget(renameButton, 1, 0);
	sceneButtons->addWidget(assignButton, 1, 1);
	layoutButton = make_button(this, text("Dock.Layout"), text("Dock.Layout.ToolTip"));
	safeAreaCheck = new QCheckBox(text("Dock.SafeArea"), this);
	safeAreaCheck->setToolTip(text("Dock.SafeArea.ToolTip"));
	sceneButtons->addWidget(layoutButton, 2, 0);
	sceneButtons->addWidget(safeAreaCheck, 2, 1);
	connect(addButton, &QPushButton::clicked, this, &VerticalDock::onAddScene);
	connect(removeButton, &QPushButton::clicked, this, &VerticalDock::onRemoveScene);
	connect(renameButton, &QPushButton::clicked, this, &VerticalDock::onRenameScene);
	connect(assignButton, &QPushButton::clicked, this, &VerticalDock::onConfigureScene);
	connect(layoutButton, &QPushButton::clicked, this, &VerticalDock::onEditLayout);
	connect(safeAreaCheck, &QCheckBox::toggled, preview, &VerticalPreviewWidget::setSafeAreaShown);
	below->addLayout(sceneButtons);

	// The transition between vertical scenes, and following the host's scene.
	auto *transitionRow = new QHBoxLayout;
	transitionRow->setSpacing(4);
	auto *transitionLabel = new QLabel(text("Dock.Transition"), this);
	transitionLabel->setStyleSheet(kQuietStyle);
	transitionCombo = new QComboBox(this);
	transitionCombo->setToolTip(text("Dock.Transition.ToolTip"));
	transitionCombo->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
	transitionCombo->setMinimumContentsLength(8);
	durationSpin = new QSpinBox(this);
	durationSpin->setRange(int(kMinTransitionMs), int(kMaxTransitionMs));
	durationSpin->setSingleStep(50);
	durationSpin->setSuffix(" ms");
	durationSpin->setKeyboardTracking(false);
	durationSpin->setToolTip(text("Dock.Transition.ToolTip"));
	transitionRow->addWidget(transitionLabel);
	transitionRow->addWidget(transitionCombo, 1);
	transitionRow->addWidget(durationSpin);
	below->addLayout(transitionRow);
	followCheck = new QCheckBox(text("Dock.Follow"), this);
	followCheck->setToolTip(text("Dock.Follow.ToolTip"));
	below->addWidget(followCheck);
	connect(transitionCombo, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
		&VerticalDock::onTransitionEdited);
	connect(durationSpin, QOverload<int>::of(&QSpinBox::valueChanged), this, &VerticalDock::onTransitionEdited);
	connect(followCheck, &QCheckBox::toggled, this, &VerticalDock::onFollowToggled);

	errorLabel = new QLabel(this);
	errorLabel->setWordWrap(true);
	errorLabel->setStyleSheet(kFailedStyle);
	errorLabel->hide();
	below->addWidget(errorLabel);

	auto *streamButtons = new QHBoxLayout;
	streamButtons->setSpacing(6);
	startButton = make_button(this, text("Dock.Start"), text("Dock.Start.ToolTip"));
	stopButton = make_button(this, text("Dock.Stop"), text("Dock.Stop.ToolTip"));
	connect(startButton, &QPushButton::clicked, this, &VerticalDock::onStartClicked);
	connect(stopButton, &QPushButton::clicked, this, &VerticalDock::onStopClicked);
	streamButtons->addWidget(startButton);
	streamButtons->addWidget(stopButton);
	below->addLayout(streamButtons);

	statusLabel = new QLabel(text("Dock.Stopped"), this);
	statusLabel->setAlignment(Qt::AlignCenter);
	statusLabel->setStyleSheet(kQuietStyle);
	below->addWidget(statusLabel);

	destinationStatusList = new QListWidget(this);
	destinationStatusList->setSelectionMode(QAbstractItemView::NoSelection);
	destinationStatusList->setFocusPolicy(Qt::NoFocus);
	destinationStatusList->setFrameShape(QFrame::NoFrame);
	destinationStatusList->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
	destinationStatusList->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
	destinationStatusList->setStyleSheet("QListWidget { font-size: 11px; background: transparent; }");
	destinationStatusList->setContextMenuPolicy(Qt::CustomContextMenu);
	destinationStatusList->setToolTip(text("Dock.Destination.ToolTip"));
	connect(destinationStatusList, &QListWidget::itemDoubleClicked, this, &VerticalDock::onDestinationToggled);
	connect(destinationStatusList, &QListWidget::customContextMenuRequested, this, &VerticalDock::destinationMenu);
	below->addWidget(destinationStatusList);

	recordButton = make_button(this, text("Dock.Record"), text("Dock.Record.ToolTip"));
	connect(recordButton, &QPushButton::clicked, this, &VerticalDock::onRecordClicked);
	below->addWidget(recordButton);
	auto *replayButtons = new QHBoxLayout;
	replayButton = make_button(this, text("Dock.ReplayStart"), text("Dock.ReplayStart.ToolTip"));
	connect(replayButton, &QPushButton::clicked, this, &VerticalDock::onReplayClicked);
	replayButtons->addWidget(replayButton);
	saveReplayButton = make_button(this, text("Dock.ReplaySave"), text("Dock.ReplaySave.ToolTip"));
	connect(saveReplayButton, &QPushButton::clicked, this, &VerticalDock::onSaveReplayClicked);
	replayButtons->addWidget(saveReplayButton);
	below->addLayout(replayButtons);
	recordingLabel = new QLabel(this);
	replayLabel = new QLabel(this);
	for (QLabel *label : {recordingLabel, replayLabel}) {
		label->setAlignment(Qt::AlignCenter);
		label->setWordWrap(true);
		below->addWidget(label);
	}

	auto *scroll = new ControlsArea(this);
	scroll->setWidget(controls);
	main->addWidget(scroll);

	// Named after their members, for automation and style sheets.
	sceneLabel->setObjectName("sceneLabel");
	sceneList->setObjectName("sceneList");
	addButton->setObjectName("addButton");
	removeButton->setObjectName("removeButton");
	renameButton->setObjectName("renameButton");
	assignButton->setObjectName("assignButton");
	layoutButton->setObjectName("layoutButton");
	safeAreaCheck->setObjectName("safeAreaCheck");
	transitionCombo->setObjectName("transitionCombo");
	durationSpin->setObjectName("durationSpin");
	followCheck->setObjectName("followCheck");
	errorLabel->setObjectName("errorLabel");
	startButton->setObjectName("startButton");
	stopButton->setObjectName("stopButton");
	statusLabel->setObjectName("statusLabel");
	destinationStatusList->setObjectName("destinationStatusList");
	recordButton->setObjectName("recordButton");
	recordingLabel->setObjectName("recordingLabel");
	replayButton->setObjectName("replayButton");
	saveReplayButton->setObjectName("saveReplayButton");
	replayLabel->setObjectName("replayLabel");

	statusTimer = new QTimer(this);
	statusTimer->setInterval(1000);
	connect(statusTimer, &QTimer::timeout, this, &VerticalDock::onStatusTick);
	statusTimer->start();

	onStatusTick();
}

void VerticalDock::setRuntime(VerticalCanvas *newCanvas, VerticalOutput *newOutput, VerticalRecording *newRecording,
			      VerticalRecording *newReplay)
{
	canvas = newCanvas;
	output = newOutput;
	recording = newRecording;
	replay = newReplay;
	if (preview && preview->currentCanvas() != newCanvas) {
		preview->setCanvas(newCanvas);
		preview->update();
	}
	refreshSceneList();
	onStatusTick();
}

void VerticalDock::setCommands(Commands *newCommands)
{
	commands = newCommands;
	preview->setCommands(newCommands);
}

void VerticalDock::refreshSceneList()
{
	sceneList->blockSignals(true);
	sceneList->clear();
	sceneList->blockSignals(false);
	showTransition();
	refreshLayoutDialogs();

	if (!canvas) {
		sceneLabel->setText(text("Dock.NoActiveScene"));
		for (QPushButton *button : {addButton, removeButton, renameButton, assignButton, layoutButton}) {
			if (button)
				button->setEnabled(false);
		}
		return;
	}

	if (addButton)
		addButton->setEnabled(true);
	const std::vector<std::string> names = canvas->scene_names();
	const std::string active = canvas->active_scene_name();
	sceneList->blockSignals(true);
	for (const std::string &name : names) {
		const std::string assigned = canvas->scene_source_name(name);
		const QString suffix = assigned.empty() ? QString() : " [" + from_utf8(assigned) + "]";
		const bool isActive = name == active;
		const QString prefix = isActive ? QString::fromUtf8("\u25BA ") : QString(" ");
		auto *item = new QListWidgetItem(prefix + from_utf8(name) + suffix, sceneList);
		item->setData(Qt::UserRole, from_utf8(name));
		if (isActive) {
			QFont font = item->font();
			font.setWeight(QFont::Bold); // 700 on Qt 6's scale, 75 on Qt 5's

			item->setFont(font);
			sceneList->setCurrentItem(item);
		}
	}
	sceneList->blockSignals(false);

	for (QPushButton *button : {removeButton, renameButton, assignButton, layoutButton}) {
		if (button)
			button->setEnabled(!names.empty());
	}
	sceneLabel->setText(scene_caption(from_utf8(active)));
}

void VerticalDock::run(const std::function<Error(Commands &)> &command)
{
	const Error error = commands ? command(*commands) : Error();
	errorLabel->setText(error_text(error));
	errorLabel->setVisible(bool(error));
	refreshSceneList();
	onStatusTick();
}

void VerticalDock::onSceneItemClicked(QListWidgetItem *item)
{
	if (!item)
		return;
	const std::string name = utf8(item->data(Qt::UserRole).toString());
	run([&](Commands &c) { return c.set_active_scene(name); });
}

void VerticalDock::onAddScene()
{
	if (!canvas)
		return;
	ask_text(this, "addSceneDialog", text("Dock.AddScene.Title"), text("Dock.AddScene.Label"), QString(),
		 [this](const QString &typed) {
			 if (!typed.trimmed().isEmpty())
				 run([&](Commands &c) { return c.create_scene(utf8(typed)); });
		 });
}

void VerticalDock::onRemoveScene()
{
	const QString name = currentSceneName();
	if (!canvas || name.isEmpty())
		return;
	auto *question = new QMessageBox(QMessageBox::Question, text("Dock.RemoveScene.Title"),
					 text("Dock.RemoveScene.Question").arg(name),
					 QMessageBox::Yes | QMessageBox::Cancel, this);
	question->setObjectName("removeSceneDialog");
	question->setWindowModality(Qt::NonModal);
	question->setAttribute(Qt::WA_DeleteOnClose);
	connect(question, &QMessageBox::finished, this, [this, name](int answer) {
		if (answer == QMessageBox::Yes)
			run([&](Commands &c) { return c.remove_scene(utf8(name)); });
	});
	question->show();
}

void VerticalDock::onRenameScene()
{
	const QString oldName = currentSceneName();
	if (!canvas || oldName.isEmpty())
		return;
	ask_text(this, "renameSceneDialog", text("Dock.RenameScene.Title"), text("Dock.RenameScene.Label"), oldName,
		 [this, oldName](const QString &typed) {
			 if (!typed.trimmed().isEmpty())
				 run([&](Commands &c) { return c.rename_scene(utf8(oldName), utf8(typed)); });
		 });
}

void VerticalDock::onConfigureScene()
{
	if (!canvas)
		return;
	const QString name = currentSceneName();
	if (name.isEmpty()) {
		errorLabel->setText(text("Dock.SelectSceneFirst"));
		errorLabel->show();
		return;
	}
	const QString current = from_utf8(canvas->scene_source_name(utf8(name)));
	auto *dialog = new SceneConfigDialog(name, current, this);
	dialog->setObjectName("sceneConfigDialog");
	dialog->setWindowModality(Qt::NonModal);
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	connect(dialog, &QDialog::accepted, this, [this, dialog, name] {
		const std::string source = utf8(dialog->selectedSource());
		run([&](Commands &c) { return c.assign_host_scene(utf8(name), source); });
	});
	dialog->show();
}

void VerticalDock::onEditLayout()
{
	const QString name = currentSceneName();
	if (!canvas || name.isEmpty())
		return;
	for (SceneLayoutDialog *open : findChildren<SceneLayoutDialog *>(QString(), Qt::FindDirectChildrenOnly)) {
		if (open->sceneName() == name && open->isVisible()) {
			open->raise();
			open->activateWindow();
			return;
		}
	}
	auto *dialog = new SceneLayoutDialog(
		name, [this] { return canvas; },
		[this](const std::string &scene, const SceneLayout &layout) {
			return commands ? commands->set_scene_layout(scene, layout) : Error(ErrorCode::NotLoaded);
		},
		this);
	dialog->setObjectName("sceneLayoutDialog");
	dialog->setWindowModality(Qt::NonModal);
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	dialog->show();
}

void VerticalDock::refreshLayoutDialogs()
{
	for (SceneLayoutDialog *open : findChildren<SceneLayoutDialog *>(QString(), Qt::FindDirectChildrenOnly))
		open->refresh();
}

// The canvas's transition and following, shown without sending them back.
void VerticalDock::showTransition()
{
	transitionCombo->setEnabled(canvas != nullptr);
	durationSpin->setEnabled(canvas != nullptr);
	followCheck->setEnabled(canvas != nullptr);
	if (!canvas)
		return;
	const QSignalBlocker quietCombo(transitionCombo);
	const QSignalBlocker quietSpin(durationSpin);
	const QSignalBlocker quietCheck(followCheck);
	// The host registers its transition types before any dock is made.
	if (transitionCombo->count() == 0) {
		const char *id = nullptr;
		for (size_t i = 0; obs_enum_transition_types(i, &id); i++) {
			if (!(obs_get_source_output_flags(id) & OBS_SOURCE_DEPRECATED))
				transitionCombo->addItem(QString::fromUtf8(obs_source_get_display_name(id)),
							 QString::fromUtf8(id));
		}
	}
	const TransitionSettings &transition = canvas->transition();
	const QString kind = from_utf8(transition.kind);
	if (transitionCombo->findData(kind) < 0)
		transitionCombo->addItem(kind, kind);
	transitionCombo->setCurrentIndex(transitionCombo->findData(kind));
	durationSpin->setValue(int(transition.duration_ms));
	followCheck->setChecked(canvas->follow_main());
}

void VerticalDock::onTransitionEdited()
{
	if (!canvas)
		return;
	const TransitionSettings transition{utf8(transitionCombo->currentData().toString()),
					    uint32_t(durationSpin->value())};
	if (transition == canvas->transition())
		return;
	run([&](Commands &c) { return c.set_transition(transition); });
}

void VerticalDock::onFollowToggled(bool follow)
{
	run([follow](Commands &c) { return c.set_follow_main_scene(follow); });
}

void VerticalDock::onStartClicked()
{
	run([](Commands &c) { return c.start_streaming(); });
}

void VerticalDock::onStopClicked()
{
	run([](Commands &c) { return c.stop_streaming(); });
}

void VerticalDock::onRecordClicked()
{
	const bool active = recording && recording->is_active();
	run([active](Commands &c) { return active ? c.stop_recording() : c.start_recording(); });
}

void VerticalDock::onReplayClicked()
{
	const bool active = replay && replay->is_active();
	run([active](Commands &c) { return active ? c.stop_replay_buffer() : c.start_replay_buffer(); });
}

void VerticalDock::onSaveReplayClicked()
{
	run([](Commands &c) { return c.save_replay(); });
}

void VerticalDock::onDestinationToggled(QListWidgetItem *item)
{
	if (!item || !output)
		return;
	const std::string id = utf8(item->data(Qt::UserRole).toString());
	const bool sending_now = item->data(Qt::UserRole + 1).toBool();
	run([&](Commands &c) { return sending_now ? c.stop_streaming(id) : c.start_streaming(id); });
}

void VerticalDock::destinationMenu(const QPoint &at)
{
	QListWidgetItem *item = destinationStatusList->itemAt(at);
	if (!item)
		return;
	auto *menu = new QMenu(this);
	menu->setAttribute(Qt::WA_DeleteOnClose);
	// The line may be gone when the choice is made; its destination is not.
	const std::string id = utf8(item->data(Qt::UserRole).toString());
	const bool sending_now = item->data(Qt::UserRole + 1).toBool();
	menu->addAction(
		text(sending_now ? "Dock.Destination.Stop" : "Dock.Destination.Start"), this, [this, id, sending_now] {
			run([&](Commands &c) { return sending_now ? c.stop_streaming(id) : c.start_streaming(id); });
		});
	menu->popup(destinationStatusList->viewport()->mapToGlobal(at));
}

void VerticalDock::onStatusTick()
{
	const std::vector<DestinationStatus> statuses = output ? output->destinations()
							       : std::vector<DestinationStatus>();
	showDestinations(statuses);
	showRecording();
	showReplay();
	if (!output) {
		statusLabel->setText(text("Dock.NoOutput"));
		statusLabel->setStyleSheet(kQuietStyle);
		startButton->setEnabled(false);
		stopButton->setEnabled(false);
		return;
	}
	const bool streaming = std::any_of(statuses.begin(), statuses.end(),
					   [](const DestinationStatus &status) { return sending(status.state); });
	// Start starts every switched-on destination that is not sending.
	const bool startable = std::any_of(statuses.begin(), statuses.end(), [](const DestinationStatus &status) {
		return status.enabled && !sending(status.state);
	});
	startButton->setEnabled(startable);
	stopButton->setEnabled(output->is_active());
	statusLabel->setText(text(streaming ? "Dock.Streaming" : "Dock.Stopped"));
	statusLabel->setStyleSheet(streaming ? kStreamingStyle : kQuietStyle);
}

// Items are kept and only their text and colour change, so the list does not flicker.
void VerticalDock::showDestinations(const std::vector<DestinationStatus> &statuses)
{
	QListWidget *list = destinationStatusList;
	while (list->count() > int(statuses.size()))
		delete list->takeItem(list->count() - 1);
	while (list->count() < int(statuses.size()))
		(new QListWidgetItem(list))->setFlags(Qt::ItemIsEnabled);
	// An item's text has the list's width less the item's margins.
	list->ensurePolished();
	const QFontMetrics metrics(list->font());
	const int width = list->viewport()->width() - 12;
	for (size_t i = 0; i < statuses.size(); i++) {
		const auto [text, colour] = describe(statuses[i], metrics, width);
		QListWidgetItem *item = list->item(int(i));
		item->setData(Qt::UserRole, from_utf8(statuses[i].id));
		item->setData(Qt::UserRole + 1, sending(statuses[i].state));
		item->setText(text);
		item->setToolTip(text);
		item->setForeground(QColor(colour));
	}
	list->setVisible(list->count() > 0);
	// Rows are one or two lines high; all of them are shown.
	int height = 2 * list->frameWidth();
	for (int row = 0; row < list->count(); row++)
		height += list->sizeHintForRow(row);
	if (list->count() > 0)
		list->setFixedHeight(height);
}

void VerticalDock::showRecording()
{
	const bool active = recording && recording->is_active();
	recordButton->setText(text(active ? "Dock.StopRecording" : "Dock.Record"));
	recordButton->setEnabled(active || output);
	const Error error = recording && !active ? recording->error() : Error();
	const QString file = recording ? QFileInfo(from_utf8(recording->path())).fileName() : QString();
	if (active)
		recordingLabel->setText(
			text(recording->is_paused() ? "Dock.RecordingPaused" : "Dock.Recording").arg(file));
	else if (error)
		recordingLabel->setText(text("Dock.RecordingFailed").arg(error_text(error)));
	else
		recordingLabel->clear();
	recordingLabel->setStyleSheet(error ? kFailedStyle : kQuietStyle);
	recordingLabel->setVisible(!recordingLabel->text().isEmpty());
}

void VerticalDock::showReplay()
{
	const bool active = replay && replay->is_active();
	replayButton->setText(text(active ? "Dock.ReplayStop" : "Dock.ReplayStart"));
	replayButton->setEnabled(active || output);
	saveReplayButton->setEnabled(active);
	const Error error = replay && !active ? replay->error() : Error();
	const QString saved = replay ? QFileInfo(from_utf8(replay->path())).fileName() : QString();
	if (error)
		replayLabel->setText(text("Dock.ReplayFailed").arg(error_text(error)));
	else if (!saved.isEmpty())
		replayLabel->setText(text("Dock.ReplaySaved").arg(saved));
	else if (active)
		replayLabel->setText(text("Dock.ReplayRunning").arg(replay->replay_seconds()));
	else
		replayLabel->clear();
	replayLabel->setStyleSheet(error ? kFailedStyle : kQuietStyle);
	replayLabel->setVisible(!replayLabel->text().isEmpty());
}

QString VerticalDock::currentSceneName() const
{
	const QListWidgetItem *item = sceneList ? sceneList->currentItem() : nullptr;
	return item ? item->data(Qt::UserRole).toString() : QString();
}

} // namespace cv
