#include "hotkeys.h"

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <obs.hpp>
#include <util/config-file.h>

#include <QMetaObject>

namespace cv {

namespace {

constexpr const char *kStartStreaming = "CorvaneVertical.StartStreaming";
constexpr const char *kStopStreaming = "CorvaneVertical.StopStreaming";
constexpr const char *kStartRecording = "CorvaneVertical.StartRecording";
constexpr const char *kStopRecording = "CorvaneVertical.StopRecording";
constexpr const char *kStartReplayBuffer = "CorvaneVertical.StartReplayBuffer";
constexpr const char *kStopReplayBuffer = "CorvaneVertical.StopReplayBuffer";
constexpr const char *kSaveReplay = "CorvaneVertical.SaveReplay";
constexpr const char *kNextScene = "CorvaneVertical.NextScene";
constexpr const char *kPreviousScene = "CorvaneVertical.PreviousScene";

// The host's Settings → Hotkeys saves a front-end hotkey under its name in the profile's
// [Hotkeys] section, as {"bindings": [...]}.
OBSDataArrayAutoRelease saved_bindings(config_t *profile, const char *name)
{
	const char *json = profile ? config_get_string(profile, "Hotkeys", name) : nullptr;
	OBSDataAutoRelease saved = json && *json ? obs_data_create_from_json(json) : nullptr;
	return saved ? obs_data_get_array(saved, "bindings") : nullptr;
}

} // namespace

Hotkeys::Hotkeys(std::function<void(HotkeyAction)> act) : act_(std::move(act))
{
	using A = HotkeyAction;
	streaming_ = obs_hotkey_pair_register_frontend(kStartStreaming, obs_module_text("Hotkey.StartStreaming"),
						       kStopStreaming, obs_module_text("Hotkey.StopStreaming"),
						       on_pair_key<A::StartStreaming>, on_pair_key<A::StopStreaming>,
						       this, this);
	recording_ = obs_hotkey_pair_register_frontend(kStartRecording, obs_module_text("Hotkey.StartRecording"),
						       kStopRecording, obs_module_text("Hotkey.StopRecording"),
						       on_pair_key<A::StartRecording>, on_pair_key<A::StopRecording>,
						       this, this);
	replay_ = obs_hotkey_pair_register_frontend(kStartReplayBuffer, obs_module_text("Hotkey.StartReplayBuffer"),
						    kStopReplayBuffer, obs_module_text("Hotkey.StopReplayBuffer"),
						    on_pair_key<A::StartReplayBuffer>, on_pair_key<A::StopReplayBuffer>,
						    this, this);
	save_replay_ = obs_hotkey_register_frontend(kSaveReplay, obs_module_text("Hotkey.SaveReplay"),
						    on_key<A::SaveReplay>, this);
	next_scene_ = obs_hotkey_register_frontend(kNextScene, obs_module_text("Hotkey.NextScene"),
						   on_key<A::NextScene>, this);
	previous_scene_ = obs_hotkey_register_frontend(kPreviousScene, obs_module_text("Hotkey.PreviousScene"),
						       on_key<A::PreviousScene>, this);
}

// Unregistering waits for a callback running on another thread; none comes after it.
Hotkeys::~Hotkeys()
{
	obs_hotkey_pair_unregister(streaming_);
	obs_hotkey_pair_unregister(recording_);
	obs_hotkey_pair_unregister(replay_);
	obs_hotkey_unregister(save_replay_);
	obs_hotkey_unregister(next_scene_);
	obs_hotkey_unregister(previous_scene_);
}

void Hotkeys::load_bindings()
{
	config_t *profile = obs_frontend_get_profile_config();
	if (!profile)
		return;
	obs_hotkey_pair_load(streaming_, saved_bindings(profile, kStartStreaming),
			     saved_bindings(profile, kStopStreaming));
	obs_hotkey_pair_load(recording_, saved_bindings(profile, kStartRecording),
			     saved_bindings(profile, kStopRecording));
	obs_hotkey_pair_load(replay_, saved_bindings(profile, kStartReplayBuffer),
			     saved_bindings(profile, kStopReplayBuffer));
	obs_hotkey_load(save_replay_, saved_bindings(profile, kSaveReplay));
	obs_hotkey_load(next_scene_, saved_bindings(profile, kNextScene));
	obs_hotkey_load(previous_scene_, saved_bindings(profile, kPreviousScene));
}

// A pair's key that reports "changed" is held as pressed by the host until its release,
// and the other key of the pair is ignored meanwhile; a trigger that never releases
// (some websocket servers press only) would block it for good. So a key acts on its
// press and reports nothing.
template<HotkeyAction action> bool Hotkeys::on_pair_key(void *data, obs_hotkey_pair_id, obs_hotkey_t *, bool pressed)
{
	if (pressed)
		static_cast<Hotkeys *>(data)->fire(action);
	return false;
}

template<HotkeyAction action> void Hotkeys::on_key(void *data, obs_hotkey_id, obs_hotkey_t *, bool pressed)
{
	if (pressed)
		static_cast<Hotkeys *>(data)->fire(action);
}

// Called with the host's hotkey lock held, on its hotkey thread, the UI thread or a
// websocket thread: the action is only posted.
void Hotkeys::fire(HotkeyAction action)
{
	QMetaObject::invokeMethod(
		&context_, [this, action] { act_(action); }, Qt::QueuedConnection);
}

} // namespace cv
