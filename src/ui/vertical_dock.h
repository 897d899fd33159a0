#pragma once

#include <QString>
#include <QWidget>

#include <functional>
#include <vector>

class QCheckBox;
class QComboBox;
class QLabel;
class QListWidget;
class QListWidgetItem;
class QPushButton;
class QSpinBox;
class QTimer;

namespace cv {

class Commands;
class VerticalCanvas;
class VerticalOutput;
class VerticalPreviewWidget;
class VerticalRecording;
struct DestinationStatus;
struct Error;

// The panel in the host's main window: live preview, the vertical scenes with their
// buttons, Start and Stop for the vertical stream, its status and each destination's
// (with what it sends while it does; a destination's line starts or stops it alone), and
// the vertical recording and replay buffer. It keeps no model of its own: lists are read back from the
// canvas, statuses from the output and the recording, and every action goes through the
// plug-in's commands, the same the hotkeys and websocket clients use. Nothing it shows
// blocks the host's window. The canvas, the output and the recording may be replaced or
// taken away at any time, also while one of its dialogs is open.
class VerticalDock : public QWidget {
	Q_OBJECT

public:
	VerticalDock(Commands *dockCommands, VerticalCanvas *dockCanvas, VerticalOutput *dockOutput,
		     VerticalRecording *dockRecording, VerticalRecording *dockReplay, QWidget *parent = nullptr);

	// Any may be null: the dock then shows and does nothing for that part.
	void setRuntime(VerticalCanvas *canvas, VerticalOutput *output, VerticalRecording *recording,
			VerticalRecording *replay);
	void setCommands(Commands *newCommands);
	void refreshSceneList();

public slots:
	void onSceneItemClicked(QListWidgetItem *item);
	void onAddScene();
	void onRemoveScene();
	void onRenameScene();
	void onConfigureScene();
	// Opens the selected scene's layout dialog, or raises it when it is open.
	void onEditLayout();
	void onTransitionEdited();
	void onFollowToggled(bool follow);
	void onStartClicked();
	void onStopClicked();
	void onRecordClicked();
	void onReplayClicked();
	void onSaveReplayClicked();
	// Starts the destination of that line when it is not sending, else stops it.
	void onDestinationToggled(QListWidgetItem *item);
	// Reads the statuses only, so that it never waits on a connection; once a second.
	void onStatusTick();

private:
	QString currentSceneName() const;
	// Runs a command; what went wrong shows below the scene buttons.
	void run(const std::function<Error(Commands &)> &command);
	void showDestinations(const std::vector<DestinationStatus> &statuses);
	void showRecording();
	void showReplay();
	void destinationMenu(const QPoint &at);
	void showTransition();
	// The open layout dialogs read the canvas again.
	void refreshLayoutDialogs();

	Commands *commands = nullptr;
	VerticalCanvas *canvas = nullptr;
	VerticalOutput *output = nullptr;
	VerticalRecording *recording = nullptr;
	VerticalRecording *replay = nullptr;
	VerticalPreviewWidget *preview = nullptr;
	QLabel *sceneLabel = nullptr;
	QListWidget *sceneList = nullptr;
	QPushButton *addButton = nullptr;
	QPushButton *removeButton = nullptr;
	QPushButton *renameButton = nullptr;
	QPushButton *assignButton = nullptr;
	QPushButton *layoutButton = nullptr;
	QComboBox *transitionCombo = nullptr;
	QSpinBox *durationSpin = nullptr;
	QCheckBox *followCheck = nullptr;
	QCheckBox *safeAreaCheck = nullptr;
	QLabel *errorLabel = nullptr;
	QPushButton *startButton = nullptr;
	QPushButton *stopButton = nullptr;
	QLabel *statusLabel = nullptr;
	QListWidget *destinationStatusList = nullptr;
	QPushButton *recordButton = nullptr;
	QLabel *recordingLabel = nullptr;
	QPushButton *replayButton = nullptr;
	QPushButton *saveReplayButton = nullptr;
	QLabel *replayLabel = nullptr;
	QTimer *statusTimer = nullptr;
};

} // namespace cv
