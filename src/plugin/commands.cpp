#include "plugin.h"

#include "hotkeys.h"
#include "remote_control.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "output/vertical_recording.h"
#include "ui/vertical_dock.h"

#include <obs-frontend-api.h>
#include <util/config-file.h>
#include <util/util.hpp>

#include <QString>

#include <algorithm>
#include <cstring>

// What the dock, the hotkeys and websocket clients ask the plug-in to do.

namespace cv {

namespace {

constexpr const char *kNoCanvas = "There is no vertical canvas: the profile's canvas settings cannot be used";

// The host's recording format for the profile, as its output settings name it.
std::string host_recording_format()
{
	config_t *profile = obs_frontend_get_profile_config();
	if (!profile)
		return {};
	const char *mode = config_get_string(profile, "Output", "Mode");
	const char *section = mode && strcmp(mode, "Advanced") == 0 ? "AdvOut" : "SimpleOutput";
	for (const char *key : {"RecFormat2", "RecFormat"})
		if (const char *format = config_get_string(profile, section, key); format && *format)
			return format;
	return {};
}

// As the dock trims what is typed.
std::string trimmed(const std::string &name)
{
	return QString::fromUtf8(name.c_str()).trimmed().toUtf8().toStdString();
}

} // namespace

void Plugin::on_hotkey(HotkeyAction action)
{
	const char *name = "";
	std::string error;
	switch (action) {
	case HotkeyAction::StartStreaming:
		name = "start streaming";
		error = start_streaming();
		break;
	case HotkeyAction::StopStreaming:
		name = "stop streaming";
		error = stop_streaming();
		break;
	case HotkeyAction::StartRecording:
		name = "start recording";
		error = start_recording();
		break;
	case HotkeyAction::StopRecording:
		name = "stop recording";
		error = stop_recording();
		break;
	case HotkeyAction::NextScene:
		name = "next scene";
		error = step_scene(1);
		break;
	case HotkeyAction::PreviousScene:
		name = "previous scene";
		error = step_scene(-1);
		break;
	}
	if (!error.empty())
		log_warning("Hotkey %s: %s", name, error.c_str());
	// Websocket clients hear of it now, not at the next look.
	if (remote_)
		remote_->report_changes();
}

std::string Plugin::start_streaming()
{
	if (!output_)
		return kNoCanvas;
	if (output_->is_active() || output_->start())
		return {};
	std::string why;
	for (const DestinationStatus &status : output_->destinations())
		if (status.enabled && !status.error.empty())
			why += (why.empty() ? "" : "; ") + status.name + ": " + status.error;
	return why.empty() ? "No destination is switched on" : why;
}

std::string Plugin::stop_streaming()
{
	if (output_ && output_->is_active())
		output_->stop();
	return {};
}

std::string Plugin::start_recording()
{
	if (!recording_)
		return kNoCanvas;
	if (recording_->is_active())
		return {};
	BPtr<char> folder = obs_frontend_get_current_record_output_path();
	if (recording_->start(folder ? folder.Get() : "", host_recording_format()))
		return {};
	const std::string error = recording_->error();
	return error.empty() ? "The vertical recording could not start" : error;
}

std::string Plugin::stop_recording()
{
	if (recording_ && recording_->is_active())
		recording_->stop();
	return {};
}

std::string Plugin::step_scene(int step)
{
	if (!canvas_)
		return kNoCanvas;
	const std::vector<std::string> names = canvas_->scene_names();
	if (names.empty())
		return "There are no vertical scenes";
	const auto count = int(names.size());
	const auto found = std::find(names.begin(), names.end(), canvas_->active_scene_name());
	// From no active scene, one step forward is the first, one back the last.
	const int from = found == names.end() ? (step > 0 ? -1 : 0) : int(found - names.begin());
	return set_active_scene(names[size_t(((from + step) % count + count) % count)]);
}

std::string Plugin::set_active_scene(const std::string &name)
{
	if (!canvas_)
		return kNoCanvas;
	if (!canvas_->set_active_scene(name))
		return "No vertical scene is named \"" + name + "\"";
	// Saved with the next save of the list, as a click in the dock is.
	if (dock_)
		dock_->refreshSceneList();
	return {};
}

std::string Plugin::create_scene(const std::string &typed)
{
	const std::string name = trimmed(typed);
	if (!canvas_)
		return kNoCanvas;
	if (name.empty())
		return "A scene name cannot be empty";
	if (!canvas_->create_scene(name))
		return "A scene named \"" + name + "\" already exists";
	scenes_edited();
	return {};
}

std::string Plugin::remove_scene(const std::string &name)
{
	if (!canvas_)
		return kNoCanvas;
	if (!canvas_->remove_scene(name))
		return "No vertical scene is named \"" + name + "\"";
	scenes_edited();
	return {};
}

std::string Plugin::assign_host_scene(const std::string &name, const std::string &host_scene)
{
	if (!canvas_)
		return kNoCanvas;
	const std::vector<std::string> names = canvas_->scene_names();
	if (std::find(names.begin(), names.end(), name) == names.end())
		return "No vertical scene is named \"" + name + "\"";
	if (!host_scene.empty()) {
		OBSSourceAutoRelease source = obs_get_source_by_name(host_scene.c_str());
		if (!source || !obs_scene_from_source(source))
			return "No OBS scene is named \"" + host_scene + "\"";
	}
	canvas_->assign_scene_source(name, host_scene);
	scenes_edited();
	return {};
}

void Plugin::scenes_edited()
{
	save_scenes();
	if (dock_)
		dock_->refreshSceneList();
}

} // namespace cv
