#pragma once

#include "base/settings.h"

#include <QDialog>

#include <functional>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QListWidget;
class QLabel;
class QListWidgetItem;
class QPushButton;
class QSpinBox;

namespace cv {

// The per-profile settings form: the stream's destinations (name, address, key, on or
// off), encoding, canvas size and frame rate, behaviour switches and the audio track.
// Shows the settings it is given, with the values of the profile's file that could not
// be used, and hands the edited ones to `save` on Save. It does not block the host's
// window. Addresses and keys show as dots until asked for.
class SettingsDialog : public QDialog {
	Q_OBJECT

public:
	using SaveFunction = std::function<void(const PluginConfig &)>;

	// `busy`: a vertical stream or recording runs, so canvas and audio changes wait for
	// it to stop.
	SettingsDialog(const PluginConfig &settings, const std::vector<SettingWarning> &warnings, bool busy,
		       SaveFunction save, QWidget *parent = nullptr);

protected:
	void showEvent(QShowEvent *event) override;

private slots:
	void on_save_clicked();
	void on_toggle_key_visibility();
	void on_toggle_url_visibility();
	void on_add_destination();
	void on_remove_destination();
	void on_destination_selected(int row);
	void on_destination_checked(QListWidgetItem *item);

private:
	void build(const std::vector<SettingWarning> &warnings, bool busy);
	void load();
	// The destination the fields edit, or null.
	DestinationSettings *current();
	QString display_name(size_t index) const;
	void update_destination_buttons();
	// The URL field masked while it holds a secret, and the note on the SRT key.
	void update_secrets();
	// The address fields of a typed address or of one of the host's services, and what
	// the service allows.
	void show_service();
	void update_service_note();
	// The chosen encoder's presets, and whether low latency applies to it.
	void show_encoder_presets(const std::string &preset);

	PluginConfig settings;
	SaveFunction save;
	QListWidget *destinationList = nullptr;
	QPushButton *addDestinationButton = nullptr;
	QPushButton *removeDestinationButton = nullptr;
	QLineEdit *nameEdit = nullptr;
	QLineEdit *urlEdit = nullptr;
	QLineEdit *keyEdit = nullptr;
	QPushButton *keyToggle = nullptr;
	QPushButton *urlToggle = nullptr;
	QLabel *keyNote = nullptr;
	QLabel *validationLabel = nullptr;
	QComboBox *serviceCombo = nullptr;
	QComboBox *serverCombo = nullptr;
	QLabel *serviceNote = nullptr;
	QLabel *urlLabel = nullptr;
	QLabel *serverLabel = nullptr;
	QWidget *urlRowWidget = nullptr;
	QWidget *serverRowWidget = nullptr;
	QComboBox *encoderCombo = nullptr;
	QSpinBox *keyintSpin = nullptr;
	QCheckBox *lowLatencyCheck = nullptr;
	QSpinBox *bitrateSpin = nullptr;
	QSpinBox *widthSpin = nullptr;
	QSpinBox *heightSpin = nullptr;
	QSpinBox *fpsNumSpin = nullptr;
	QSpinBox *fpsDenSpin = nullptr;
	QCheckBox *autoStartCheck = nullptr;
	QCheckBox *autoRecordCheck = nullptr;
	QSpinBox *replaySecondsSpin = nullptr;
	QCheckBox *replayWithMainCheck = nullptr;
	QCheckBox *sceneAudioCheck = nullptr;
	QComboBox *audioTrackCombo = nullptr;
	QComboBox *presetCombo = nullptr;
};

} // namespace cv
