#pragma once

// The plug-in itself: it owns the settings files, the per-profile runtime (the vertical
// canvas and the vertical output, built from the current profile's settings and built
// again at every profile switch) and the wiring to the host's front end: its events,
// the Tools menu item and the dock. The host's UI thread alone calls it.

#include "settings_files.h"

#include <obs-frontend-api.h>

#include <QPointer>

#include <memory>

namespace cv {

class VerticalCanvas;
class VerticalDock;
class VerticalOutput;
class VerticalRecording;

class Plugin {
public:
	Plugin();
	~Plugin();
	Plugin(const Plugin &) = delete;
	Plugin &operator=(const Plugin &) = delete;

	// Reads the settings, builds the runtime and joins the front end. False when the
	// canvas cannot be built: the host then refuses the module.
	bool load();
	// Leaves the front end, saves everything and takes the runtime down.
	void unload();

	// What the front end reports. An event raised while another is handled is dropped.
	void handle_event(enum obs_frontend_event event);
	// The settings dialog's Save: stored, and used from the next start of the stream
	// (stream settings) or the next profile switch (canvas settings).
	void save_settings(const PluginConfig &config);
	void open_settings_dialog();
	// Records the vertical canvas into the host's recording folder, in its format.
	bool start_recording();

	const PluginConfig &settings() const { return settings_; }
	// Null while there is no runtime (a profile's canvas could not be built).
	VerticalCanvas *canvas() const { return canvas_.get(); }
	VerticalOutput *output() const { return output_.get(); }
	VerticalRecording *recording() const { return recording_.get(); }
	// Null until the front end has finished loading, or once the host deleted it.
	VerticalDock *dock() const;

private:
	bool build_runtime();
	void take_down_runtime();
	void save_scenes();
	void show_runtime();
	void on_profile_changed();

	SettingsFiles files_;
	PluginConfig settings_;
	std::unique_ptr<VerticalCanvas> canvas_;
	std::unique_ptr<VerticalOutput> output_;
	std::unique_ptr<VerticalRecording> recording_; // shares the output's encode
	QPointer<VerticalDock> dock_;
	QMetaObject::Connection scenes_changed_;
	QMetaObject::Connection record_clicked_;
	bool joined_front_end_ = false;
	bool handling_event_ = false;
};

} // namespace cv
