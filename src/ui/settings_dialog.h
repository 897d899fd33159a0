#pragma once

#include "base/settings.h"

#include <QDialog>

#include <functional>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QListWidget;
class QListWidgetItem;
class QPushButton;
class QSpinBox;

namespace cv {

// The per-profile settings form: the stream's destinations (name, address, key, on or
// off), encoding, canvas size and frame rate, behaviour switches and the audio track.
// Shows the settings it is given and hands the edited ones to `save` on Save.
class SettingsDialog : public QDialog {
	Q_OBJECT

public:
	using SaveFunction = std::function<void(const PluginConfig &)>;

	SettingsDialog(const PluginConfig &settings, SaveFunction save, QWidget *parent = nullptr);

protected:
	void showEvent(QShowEvent *event) override;

private slots:
	void on_save_clicked();
	void on_toggle_key_visibility();
	void on_add_destination();
	void on_remove_destination();
	void on_destination_selected(int row);
	void on_destination_checked(QListWidgetItem *item);

private:
	void build();
	void load();
	// The destination the fields edit, or null.
	DestinationSettings *current();
	QString display_name(size_t index) const;
	void update_destination_buttons();

	PluginConfig settings;
	SaveFunction save;
	QListWidget *destinationList = nullptr;
	QPushButton *addDestinationButton = nullptr;
	QPushButton *removeDestinationButton = nullptr;
	QLineEdit *nameEdit = nullptr;
	QLineEdit *urlEdit = nullptr;
	QLineEdit *keyEdit = nullptr;
	QPushButton *keyToggle = nullptr;
	QSpinBox *bitrateSpin = nullptr;
	QSpinBox *widthSpin = nullptr;
	QSpinBox *heightSpin = nullptr;
	QSpinBox *fpsNumSpin = nullptr;
	QSpinBox *fpsDenSpin = nullptr;
	QCheckBox *autoStartCheck = nullptr;
	QCheckBox *autoRecordCheck = nullptr;
	QCheckBox *sceneAudioCheck = nullptr;
	QComboBox *audioTrackCombo = nullptr;
	QComboBox *presetCombo = nullptr;
};

} // namespace cv
