#pragma once

// The plug-in itself: it owns the settings files, the per-profile runtime (the vertical
// canvas, the vertical output, the recording and the replay buffer, built from the current profile's
// settings) and the wiring to the host's front end: its events in the order the host
// sends them, the scene collection's save and load, the Tools menu item and the dock. The
// host's UI thread alone calls it.

#include "host_scene_watch.h"
#include "settings_files.h"

#include "base/commands.h"

#include <obs-frontend-api.h>

#include <QObject>
#include <QPointer>

#include <memory>
#include <string>

namespace cv {

class Hotkeys;
enum class HotkeyAction;
class RemoteControl;
class SettingsDialog;
class VerticalCanvas;
class VerticalDock;
class VerticalOutput;
class VerticalRecording;

class Plugin : public Commands {
public:
	Plugin();
	~Plugin() override;
	Plugin(const Plugin &) = delete;
	Plugin &operator=(const Plugin &) = delete;

	// Reads the settings, builds the runtime and joins the front end. A profile whose
	// values cannot be used gets their defaults, with a warning; the plug-in always loads.
	bool load();
	// Once every module is loaded: offers the requests of the host's websocket server,
	// when it has one.
	void post_load();
	// Leaves the front end, saves everything and takes the runtime down.
	void unload();

	// What the front end reports. An event raised while another is handled is dropped.
	void handle_event(enum obs_frontend_event event);
	// The host saves (`saving`) or loads its scene collection: the vertical scenes are in it.
	void handle_collection(obs_data_t *data, bool saving);
	// The settings dialog's Save: stored, and used at once where nothing runs that
	// depends on it, else when the vertical stream and recording have stopped.
	void save_settings(const PluginConfig &config);
	void open_settings_dialog();

	// Commands.
	Error start_streaming(const std::string &destination_id = {}) override;
	Error stop_streaming(const std::string &destination_id = {}) override;
	Error start_recording() override;
	Error stop_recording() override;
	Error start_replay_buffer() override;
	Error stop_replay_buffer() override;
	Error save_replay() override;
	Error step_scene(int step) override;
	Error set_active_scene(const std::string &name) override;
	Error create_scene(const std::string &name) override;
	Error remove_scene(const std::string &name) override;
	Error rename_scene(const std::string &name, const std::string &new_name) override;
	Error assign_host_scene(const std::string &name, const std::string &host_scene) override;
	Error set_scene_layout(const std::string &name, const SceneLayout &layout) override;
	Error set_transition(const TransitionSettings &transition) override;
	Error set_follow_main_scene(bool follow) override;
	// The id of the destination of that name (the first when several share it); empty
	// when none has it.
	std::string destination_id(const std::string &name) const;

	const PluginConfig &settings() const { return settings_; }
	// Warnings about the profile's values that could not be used.
	const std::vector<SettingWarning> &setting_warnings() const { return warnings_; }
	// Null while there is no runtime.
	VerticalCanvas *canvas() const { return canvas_.get(); }
	VerticalOutput *output() const { return output_.get(); }
	VerticalRecording *recording() const { return recording_.get(); }
	VerticalRecording *replay_buffer() const { return replay_.get(); }
	// From a profile change while something vertical ran until its outputs have stopped
	// and the new profile is taken up.
	bool profile_switching() const { return profile_pending_; }
	// Null until the front end has finished loading, or once the host deleted it.
	VerticalDock *dock() const;
	// Null unless the settings dialog is open.
	SettingsDialog *settings_dialog() const;

private:
	bool build_runtime();
	// Stops and lets go of the output and the recording, and of the canvas unless kept.
	void take_down_runtime(bool keep_canvas = false);
	void take_up_profile();
	void show_runtime();
	void on_hotkey(HotkeyAction action);
	Error start_file_output(VerticalRecording *file_output, uint32_t replay_seconds = 0);
	Error stop_file_output(VerticalRecording *file_output);
	// A replay's file is complete: websocket clients and the dock hear of it.
	void replay_saved(const std::string &path);
	void scenes_edited();
	// A layout changed: shown, told, and saved once the edits pause.
	void layout_edited();
	// The canvas moves to the vertical scene showing the host's program scene, if any.
	void follow_main_scene();
	void on_host_scene_event(const HostSceneEvent &event);
	void on_output_idle();
	void apply_pending();
	void on_profile_changing();
	void on_profile_changed();
	void release_collection();
	void settle_collection();
	void check_host_video();

	SettingsFiles files_;
	PluginConfig settings_;
	std::vector<SettingWarning> warnings_;
	std::unique_ptr<VerticalCanvas> canvas_;
	std::unique_ptr<VerticalOutput> output_;
	std::unique_ptr<VerticalRecording> recording_; // shares the output's encode
	std::unique_ptr<VerticalRecording> replay_;    // so does the replay buffer
	// The vertical scenes while there is no canvas (between profiles).
	SceneList scenes_;
	QPointer<VerticalDock> dock_;
	QPointer<SettingsDialog> settings_dialog_;
	std::unique_ptr<Hotkeys> hotkeys_;
	std::unique_ptr<RemoteControl> remote_;
	std::unique_ptr<HostSceneWatch> host_scenes_;
	// Queued calls to this object run for it and die with it.
	std::unique_ptr<QObject> context_;
	QMetaObject::Connection record_clicked_;
	bool joined_front_end_ = false;
	bool handling_event_ = false;
	// The collection's own vertical scenes have been read since it was loaded.
	bool collection_read_ = false;
	// Canvas settings saved while something ran, for when it has stopped.
	bool canvas_pending_ = false;
	// The host's own video settings it could not apply while the vertical output ran.
	bool host_video_pending_ = false;
	// A profile switch came while the vertical outputs ran: the new profile is taken up
	// once they have stopped.
	bool profile_pending_ = false;
	bool settings_requested_ = false;
	bool save_pending_ = false;
};

} // namespace cv
