#pragma once

#include <QDialog>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace cv {

// The per-profile settings form: stream address and key, encoding, canvas size and
// frame rate, behaviour switches. Reads the profile's settings once when built and
// writes them once on Save.
class SettingsDialog : public QDialog {
	Q_OBJECT

public:
	explicit SettingsDialog(QWidget *parent = nullptr);

private slots:
	void on_save_clicked();
	void on_toggle_key_visibility();

private:
	void build();
	void load();

	QLineEdit *urlEdit = nullptr;
	QLineEdit *keyEdit = nullptr;
	QPushButton *keyToggle = nullptr;
	QSpinBox *bitrateSpin = nullptr;
	QSpinBox *widthSpin = nullptr;
	QSpinBox *heightSpin = nullptr;
	QSpinBox *fpsNumSpin = nullptr;
	QSpinBox *fpsDenSpin = nullptr;
	QCheckBox *autoStartCheck = nullptr;
	QCheckBox *sceneAudioCheck = nullptr;
	QComboBox *presetCombo = nullptr;
};

// The Tools menu action: runs the dialog modally over `parent` (the host's main window
// when null); it deletes itself when closed.
void open_settings_dialog(QWidget *parent = nullptr);

} // namespace cv
