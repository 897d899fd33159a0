#pragma once

#include <QString>
#include <QWidget>

class QLabel;
class QListWidget;
class QListWidgetItem;
class QPushButton;
class QTimer;

namespace cv {

class VerticalCanvas;
class VerticalOutput;
class VerticalPreviewWidget;

// The panel in the host's main window: live preview, the vertical scenes with their
// buttons, Start and Stop for the vertical stream and its status. It keeps no model of
// its own: lists are read back from the canvas, actions go to the canvas or the output.
// The canvas and the output may be replaced or taken away at any time, also while one
// of its dialogs is open.
class VerticalDock : public QWidget {
	Q_OBJECT

public:
	VerticalDock(VerticalCanvas *dockCanvas, VerticalOutput *dockOutput, QWidget *parent = nullptr);

	// Either may be null: the dock then shows and does nothing for that part.
	void setRuntime(VerticalCanvas *canvas, VerticalOutput *output);
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
	void onStatusTick();

signals:
	// The user changed the scene list; it should be saved.
	void scenesChanged();

private:
	QString currentSceneName() const;

	VerticalCanvas *canvas = nullptr;
	VerticalOutput *output = nullptr;
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
	QTimer *statusTimer = nullptr;
};

} // namespace cv
