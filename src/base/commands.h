#pragma once

// What the dock, the hotkeys and websocket clients can ask of the plug-in: one set of
// commands with one set of rules (scene names trimmed and unique, edits saved at once).
// Each says why when it cannot do what was asked. The host's UI thread alone calls them.

#include "errors.h"
#include "scene_layout.h"

#include <string>

namespace cv {

class Commands {
public:
	virtual ~Commands() = default;

	// Every switched-on destination that is not live, or only the one with this id.
	virtual Error start_streaming(const std::string &destination_id = {}) = 0;
	virtual Error stop_streaming(const std::string &destination_id = {}) = 0;
	// Records the vertical canvas into the host's recording folder, in its format.
	virtual Error start_recording() = 0;
	virtual Error stop_recording() = 0;
	// Keeps the last seconds of the vertical canvas in memory, to save as a clip into the
	// host's recording folder, in its format.
	virtual Error start_replay_buffer() = 0;
	virtual Error stop_replay_buffer() = 0;
	// An error when the replay buffer does not run.
	virtual Error save_replay() = 0;
	// The vertical scene `step` places after the active one, wrapping around the list.
	virtual Error step_scene(int step) = 0;
	virtual Error set_active_scene(const std::string &name) = 0;
	virtual Error create_scene(const std::string &name) = 0;
	virtual Error remove_scene(const std::string &name) = 0;
	virtual Error rename_scene(const std::string &name, const std::string &new_name) = 0;
	// An empty host scene name leaves the vertical scene showing nothing.
	virtual Error assign_host_scene(const std::string &name, const std::string &host_scene) = 0;
	// How the scene frames its host scene, checked against that scene's size. Shown at
	// once; saved a moment later, so that a drag does not write the collection at every
	// step.
	virtual Error set_scene_layout(const std::string &name, const SceneLayout &layout) = 0;
	// The transition between vertical scenes: one of the host's transition types, with a
	// duration of 50 to 20000 ms.
	virtual Error set_transition(const TransitionSettings &transition) = 0;
	// Whether the canvas follows the host's program scene; switched on, it follows at once.
	virtual Error set_follow_main_scene(bool follow) = 0;
};

} // namespace cv
