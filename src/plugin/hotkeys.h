#pragma once

// The plug-in's hotkeys, registered with the host's front end: they appear in its
// Settings → Hotkeys, which saves their bindings with its own in the profile's settings,
// and they are read back from there at start-up and at every profile switch. Websocket
// clients trigger them by name.

#include <obs.h>

#include <QObject>

#include <functional>

namespace cv {

enum class HotkeyAction {
	StartStreaming,
	StopStreaming,
	StartRecording,
	StopRecording,
	StartReplayBuffer,
	StopReplayBuffer,
	SaveReplay,
	NextScene,
	PreviousScene,
};

class Hotkeys {
public:
	// `act` runs on the host's UI thread, whatever thread the hotkey fired on; never
	// after the hotkeys are gone.
	explicit Hotkeys(std::function<void(HotkeyAction)> act);
	~Hotkeys();
	Hotkeys(const Hotkeys &) = delete;
	Hotkeys &operator=(const Hotkeys &) = delete;

	// The bindings the host keeps for them in the current profile.
	void load_bindings();

private:
	template<HotkeyAction action> static bool on_pair_key(void *data, obs_hotkey_pair_id, obs_hotkey_t *, bool);
	template<HotkeyAction action> static void on_key(void *data, obs_hotkey_id, obs_hotkey_t *, bool pressed);
	void fire(HotkeyAction action);

	std::function<void(HotkeyAction)> act_;
	QObject context_; // what posted actions run for; they die with it
	obs_hotkey_pair_id streaming_ = OBS_INVALID_HOTKEY_PAIR_ID;
	obs_hotkey_pair_id recording_ = OBS_INVALID_HOTKEY_PAIR_ID;
	obs_hotkey_pair_id replay_ = OBS_INVALID_HOTKEY_PAIR_ID;
	obs_hotkey_id save_replay_ = OBS_INVALID_HOTKEY_ID;
	obs_hotkey_id next_scene_ = OBS_INVALID_HOTKEY_ID;
	obs_hotkey_id previous_scene_ = OBS_INVALID_HOTKEY_ID;
};

} // namespace cv
