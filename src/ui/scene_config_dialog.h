#pragma once

#include <QDialog>
#include <QString>

class QListWidget;

namespace cv {

// Chooses the host scene a vertical scene shows. The first entry, "(None)", stands for
// no assignment; the dialog itself changes nothing.
class SceneConfigDialog : public QDialog {
	Q_OBJECT

public:
	SceneConfigDialog(const QString &sceneName, const QString &currentSource, QWidget *parent = nullptr);

	// The chosen host scene's name; empty for "(None)" or when nothing is chosen.
	QString selectedSource() const;

private slots:
	void onItemDoubleClicked();

private:
	QListWidget *sourceList = nullptr;
};

} // namespace cv
