#pragma once

// The plug-in itself: it owns the settings files, the per-profile runtime (the vertical
// canvas and the vertical output, built from the current profile's settings and built
// again at every profile switch) and the wiring to the host's front end: its events,
// the Tools menu item and the dock. The host's UI thread alone calls it.

#include "settings_files.h"

#include <obs-frontend-api.h>

#include <QPointer>

#include <memory>
#include <string>

namespace cv {

class Hotkeys;
enum class HotkeyAction;
class RemoteControl;
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
	// Once every module is loaded: offers the requests of the host's websocket server,
	// when it has one.
	void post_load();
	// Leaves the front end, saves everything and takes the runtime down.
	void unload();

	// What the front end reports. An event raised while another is handled is dropped.
	void handle_event(enum obs_frontend_event event);
	// The settings dialog's Save: stored, and used from the next start of the stream
	// (stream settings) or the next profile switch (canvas settings).
	void save_settings(const PluginConfig &config);
	void open_settings_dialog();

	// What the dock, the hotkeys and websocket clients ask for. Each returns an empty
	// text when it is done, or why not, in English, for the log and the caller.
	std::string start_streaming();
	std::string stop_streaming();
	// Records the vertical canvas into the host's recording folder, in its format.
	std::string start_recording();
	std::string stop_recording();
	// The vertical scene `step` places after the active one, wrapping around the list.
	std::string step_scene(int step);
	std::string set_active_scene(const std::string &name);
	// Scene edits keep the dock's rules (names trimmed, unique) and are saved at once.
	std::string create_scene(const std::string &name);
	std::string remove_scene(const std::string &name);
	// An empty host scene name leaves the vertical scene showing nothing.
	std::string assign_host_scene(const std::string &name, const std::string &host_scene);

	const PluginConfig &settings() const { return settings_; }
	// Null while there is no runtime (a profile's canvas could not be built).
	VerticalCanvas *canvas() const { return canvas_.get(); }
	VerticalOutput *output() const { return output_.get(); }
	VerticalRecording *recording() const { return recording_.get(); }
	// Null until the front end has finished loading, or once the host deleted it.
	VerticalDock *dock() const;

private:
	bool build_runtime();
	void scenes_edited();
	void on_hotkey(HotkeyAction action);
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
	std::unique_ptr<Hotkeys> hotkeys_;
	std::unique_ptr<RemoteControl> remote_;
	QMetaObject::Connection scenes_changed_;
	QMetaObject::Connection record_clicked_;
	bool joined_front_end_ = false;
	bool handling_event_ = false;
};

} // namespace cv
