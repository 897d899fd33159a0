#pragma once

#include "base/settings.h"

#include <QDialog>

#include <functional>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace cv {

// The per-profile settings form: stream address and key, encoding, canvas size and
// frame rate, behaviour switches. Shows the settings it is given and hands the edited
// ones to `save` on Save.
class SettingsDialog : public QDialog {
	Q_OBJECT

public:
	using SaveFunction = std::function<void(const PluginConfig &)>;

	SettingsDialog(const PluginConfig &settings, SaveFunction save, QWidget *parent = nullptr);

private slots:
	void on_save_clicked();
	void on_toggle_key_visibility();

private:
	void build();
	void load();

	PluginConfig settings;
	SaveFunction save;
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

} // namespace cv
