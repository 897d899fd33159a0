#pragma once

#include <QString>
#include <QWidget>

#include <vector>

class QLabel;
class QListWidget;
class QListWidgetItem;
class QPushButton;
class QTimer;

namespace cv {

class VerticalCanvas;
class VerticalOutput;
class VerticalPreviewWidget;
class VerticalRecording;
struct DestinationStatus;

// The panel in the host's main window: live preview, the vertical scenes with their
// buttons, Start and Stop for the vertical stream, its status and each destination's
// (with what it sends while it does), and the vertical recording. It keeps no model of its own: lists are read back from the
// canvas, statuses from the output and the recording, actions go to them. The canvas,
// the output and the recording may be replaced or taken away at any time, also while
// one of its dialogs is open.
class VerticalDock : public QWidget {
	Q_OBJECT

public:
	VerticalDock(VerticalCanvas *dockCanvas, VerticalOutput *dockOutput, VerticalRecording *dockRecording,
		     QWidget *parent = nullptr);

	// Any may be null: the dock then shows and does nothing for that part.
	void setRuntime(VerticalCanvas *canvas, VerticalOutput *output, VerticalRecording *recording);
	void refreshSceneList();

public slots:
	void onActiveSceneChanged(QString sceneName);
	void onSceneItemClicked(QListWidgetItem *item);
	void onAddScene();
	void onRemoveScene();
	void onRenameScene();
	void onConfigureScene();
	void onStartClicked();
	void onStopClicked();
	void onRecordClicked();
	// Reads the statuses only, so that it never waits on a connection; once a second.
	void onStatusTick();

signals:
	// The user changed the scene list; it should be saved.
	void scenesChanged();
	// Record was clicked while not recording; the plug-in knows where recordings go.
	void startRecordingRequested();

private:
	QString currentSceneName() const;
	void showDestinations(const std::vector<DestinationStatus> &statuses);
	void showRecording();

	VerticalCanvas *canvas = nullptr;
	VerticalOutput *output = nullptr;
	VerticalRecording *recording = nullptr;
	VerticalPreviewWidget *preview = nullptr;
	QLabel *sceneLabel = nullptr;
	QListWidget *sceneList = nullptr;
	QPushButton *addButton = nullptr;
	QPushButton *removeButton = nullptr;
	QPushButton *renameButton = nullptr;
	QPushButton *assignButton = nullptr;
	QPushButton *startButton = nullptr;
	QPushButton *stopButton = nullptr;
	QLabel *statusLabel = nullptr;
	QListWidget *destinationStatusList = nullptr;
	QPushButton *recordButton = nullptr;
	QLabel *recordingLabel = nullptr;
	QTimer *statusTimer = nullptr;
};

} // namespace cv
