#include "plugin.h"

#include "hotkeys.h"
#include "remote_control.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "output/vertical_recording.h"
#include "stream/stream_url.h"
#include "ui/vertical_dock.h"

#include <obs-frontend-api.h>
#include <util/config-file.h>
#include <util/util.hpp>

#include <QTimer>

#include <algorithm>
#include <cstring>

// What the dock, the hotkeys and websocket clients ask the plug-in to do.

namespace cv {

namespace {

// How long layout edits wait before the collection is saved: a drag is one save.
constexpr int kLayoutSaveDelayMs = 500;

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

// As typed, less the blanks around it; every other byte as it is.
std::string trimmed(const std::string &name)
{
	return trim_blanks(name);
}

const char *action_name(HotkeyAction action)
{
	switch (action) {
	case HotkeyAction::StartStreaming:
		return "start streaming";
	case HotkeyAction::StopStreaming:
		return "stop streaming";
	case HotkeyAction::StartRecording:
		return "start recording";
	case HotkeyAction::StopRecording:
		return "stop recording";
	case HotkeyAction::StartReplayBuffer:
		return "start replay buffer";
	case HotkeyAction::StopReplayBuffer:
		return "stop replay buffer";
	case HotkeyAction::SaveReplay:
		return "save replay";
	case HotkeyAction::NextScene:
		return "next scene";
	case HotkeyAction::PreviousScene:
		break;
	}
	return "previous scene";
}

} // namespace

void Plugin::on_hotkey(HotkeyAction action)
{
	Error error;
	switch (action) {
	case HotkeyAction::StartStreaming:
		error = start_streaming();
		break;
	case HotkeyAction::StopStreaming:
		error = stop_streaming();
		break;
	case HotkeyAction::StartRecording:
		error = start_recording();
		break;
	case HotkeyAction::StopRecording:
		error = stop_recording();
		break;
	case HotkeyAction::StartReplayBuffer:
		error = start_replay_buffer();
		break;
	case HotkeyAction::StopReplayBuffer:
		error = stop_replay_buffer();
		break;
	case HotkeyAction::SaveReplay:
		error = save_replay();
		break;
	case HotkeyAction::NextScene:
		error = step_scene(1);
		break;
	case HotkeyAction::PreviousScene:
		error = step_scene(-1);
		break;
	}
	if (error)
		log_warning("Hotkey %s: %s", action_name(action), english(error).c_str());
}

Error Plugin::start_streaming(const std::string &destination_id)
{
	if (!output_)
		return ErrorCode::NoCanvas;
	if (profile_pending_)
		return ErrorCode::ProfileSwitching;
	const Error error = output_->start(destination_id);
	// Websocket clients hear of it now, not at the next look.
	if (remote_)
		remote_->report_changes();
	return error;
}

Error Plugin::stop_streaming(const std::string &destination_id)
{
	if (!output_)
		return ErrorCode::NoCanvas;
	const std::vector<DestinationStatus> destinations = output_->destinations();
	if (!destination_id.empty() &&
	    std::none_of(destinations.begin(), destinations.end(),
			 [&](const DestinationStatus &status) { return status.id == destination_id; }))
		return {ErrorCode::NoSuchDestination, destination_id};
	output_->stop(destination_id);
	if (remote_)
		remote_->report_changes();
	return {};
}

std::string Plugin::destination_id(const std::string &name) const
{
	if (!output_)
		return {};
	for (const DestinationStatus &status : output_->destinations())
		if (status.name == name)
			return status.id;
	return {};
}

// Into the host's recording folder, in its recording format.
Error Plugin::start_file_output(VerticalRecording *file_output, uint32_t replay_seconds)
{
	if (!file_output)
		return ErrorCode::NoCanvas;
	if (profile_pending_)
		return ErrorCode::ProfileSwitching;
	if (file_output->is_active())
		return {};
	BPtr<char> folder = obs_frontend_get_current_record_output_path();
	const Error error = file_output->start(folder ? folder.Get() : "", host_recording_format(), replay_seconds);
	if (remote_)
		remote_->report_changes();
	return error;
}

Error Plugin::stop_file_output(VerticalRecording *file_output)
{
	if (file_output && file_output->is_active())
		file_output->stop();
	if (remote_)
		remote_->report_changes();
	return {};
}

Error Plugin::start_recording()
{
	return start_file_output(recording_.get());
}

Error Plugin::stop_recording()
{
	return stop_file_output(recording_.get());
}

Error Plugin::start_replay_buffer()
{
	return start_file_output(replay_.get(), settings_.replayseconds);
}

Error Plugin::stop_replay_buffer()
{
	return stop_file_output(replay_.get());
}

Error Plugin::save_replay()
{
	return replay_ ? replay_->save() : Error(ErrorCode::ReplayNotRunning);
}

void Plugin::replay_saved(const std::string &path)
{
	if (remote_)
		remote_->report_replay_saved(path);
}

Error Plugin::step_scene(int step)
{
	if (!canvas_)
		return ErrorCode::NoCanvas;
	const std::vector<std::string> names = canvas_->scene_names();
	if (names.empty())
		return ErrorCode::NoScenes;
	const auto count = int(names.size());
	const auto found = std::find(names.begin(), names.end(), canvas_->active_scene_name());
	// From no active scene, one step forward is the first, one back the last.
	const int from = found == names.end() ? (step > 0 ? -1 : 0) : int(found - names.begin());
	return set_active_scene(names[size_t(((from + step) % count + count) % count)]);
}

Error Plugin::set_active_scene(const std::string &name)
{
	if (!canvas_)
		return ErrorCode::NoCanvas;
	if (!canvas_->set_active_scene(name))
		return {ErrorCode::NoSuchScene, name};
	scenes_edited();
	return {};
}

Error Plugin::create_scene(const std::string &typed)
{
	const std::string name = trimmed(typed);
	if (!canvas_)
		return ErrorCode::NoCanvas;
	if (name.empty())
		return ErrorCode::SceneNameEmpty;
	if (!canvas_->create_scene(name))
		return {ErrorCode::SceneExists, name};
	scenes_edited();
	return {};
}

Error Plugin::remove_scene(const std::string &name)
{
	if (!canvas_)
		return ErrorCode::NoCanvas;
	if (!canvas_->remove_scene(name))
		return {ErrorCode::NoSuchScene, name};
	scenes_edited();
	return {};
}

Error Plugin::rename_scene(const std::string &name, const std::string &typed)
{
	const std::string new_name = trimmed(typed);
	if (!canvas_)
		return ErrorCode::NoCanvas;
	const std::vector<std::string> names = canvas_->scene_names();
	if (std::find(names.begin(), names.end(), name) == names.end())
		return {ErrorCode::NoSuchScene, name};
	if (new_name.empty())
		return ErrorCode::SceneNameEmpty;
	if (new_name == name)
		return {};
	if (!canvas_->rename_scene(name, new_name))
		return {ErrorCode::SceneExists, new_name};
	scenes_edited();
	return {};
}

Error Plugin::assign_host_scene(const std::string &name, const std::string &host_scene)
{
	if (!canvas_)
		return ErrorCode::NoCanvas;
	const std::vector<std::string> names = canvas_->scene_names();
	if (std::find(names.begin(), names.end(), name) == names.end())
		return {ErrorCode::NoSuchScene, name};
	if (!host_scene.empty()) {
		OBSSourceAutoRelease source = obs_get_source_by_name(host_scene.c_str());
		if (!source || !obs_scene_from_source(source))
			return {ErrorCode::NoSuchHostScene, host_scene};
	}
	canvas_->assign_scene_source(name, host_scene);
	scenes_edited();
	return {};
}

Error Plugin::set_scene_layout(const std::string &name, const SceneLayout &layout)
{
	if (!canvas_)
		return ErrorCode::NoCanvas;
	if (!canvas_->scene_layout(name))
		return {ErrorCode::NoSuchScene, name};
	const SourceSize size = canvas_->scene_source_size(name);
	if (Error error = layout_problem(layout, size.width, size.height))
		return error;
	canvas_->set_scene_layout(name, layout);
	layout_edited();
	return {};
}

Error Plugin::set_transition(const TransitionSettings &transition)
{
	if (!canvas_)
		return ErrorCode::NoCanvas;
	if (transition.duration_ms < kMinTransitionMs || transition.duration_ms > kMaxTransitionMs)
		return {ErrorCode::OutOfRange, "transitionDuration [50, 20000]"};
	if (!canvas_->set_transition(transition))
		return {ErrorCode::NoSuchTransition, transition.kind};
	scenes_edited();
	return {};
}

Error Plugin::set_follow_main_scene(bool follow)
{
	if (!canvas_)
		return ErrorCode::NoCanvas;
	canvas_->set_follow_main(follow);
	log_info("The vertical canvas %s OBS's scene", follow ? "follows" : "no longer follows");
	if (follow)
		follow_main_scene();
	scenes_edited();
	return {};
}

void Plugin::follow_main_scene()
{
	if (!canvas_ || !canvas_->follow_main())
		return;
	OBSSourceAutoRelease program = obs_frontend_get_current_scene();
	const std::string name = canvas_->scene_showing(program);
	if (name.empty() || name == canvas_->active_scene_name())
		return;
	log_info("Following OBS's scene '%s' to vertical scene '%s'", obs_source_get_name(program), name.c_str());
	set_active_scene(name);
}

void Plugin::layout_edited()
{
	if (remote_)
		remote_->report_changes();
	if (save_pending_ || !context_)
		return;
	save_pending_ = true;
	QTimer::singleShot(kLayoutSaveDelayMs, context_.get(), [this] {
		save_pending_ = false;
		obs_frontend_save();
	});
}

// Kept in the host's scene collection, which the host saves a moment later.
void Plugin::scenes_edited()
{
	obs_frontend_save();
	if (dock_)
		dock_->refreshSceneList();
	if (remote_)
		remote_->report_changes();
}

} // namespace cv
