#pragma once

#include <obs.h>
#include <util/config-file.h>

#include <cstdint>
#include <functional>
#include <string>

// A stand-in for the host's front-end API: its events, main window, profile and scene
// collection, as the test decides, and the host's own sequences of them.
namespace cvtest::frontend {

// Reported as the current profile's folder; empty makes the front end answer null.
void set_profile_dir(const std::string &dir);
// The profile's host settings (basic.ini), or null; not owned.
void set_profile_config(config_t *config);
// What obs_frontend_get_main_window reports (a QMainWindow*), null by default.
void set_main_window(void *window);
void reset();

// Delivers a front-end event to every callback added, as the host does.
void fire_event(int event);
// Runs `hook` inside the plug-in's next look at the profile's settings, as a host would
// that raises an event from inside a call the plug-in makes.
void on_next_profile_config(void (*hook)());
// The dock layout the host saved at its last exit (its main window's saveState in base64,
// kept in its own settings); none before the first exit.
void set_saved_dock_layout(const std::string &base64);
// The host's start-up once modules are loaded: the saved dock layout restored, or without
// one, its reset of the docks, which floats and hides those of plug-ins.
void restore_dock_layout();

// The scene collection's module data as the plug-in last saved it (the host saves on
// obs_frontend_save); a new reference.
obs_data_t *saved_collection();
// The host's load of a collection's module data, as at start-up and at a switch.
void load_collection(obs_data_t *modules);

// The host's switch of its program scene: the scene becomes current (what
// obs_frontend_get_current_scene reports), then SCENE_CHANGED.
void switch_scene(obs_source_t *scene);

// The time the host's video resets have taken so far, in ns.
uint64_t video_reset_ns();
// The host's profile switch: PROFILE_CHANGING, the new profile swapped in (its folder, and
// `width` x `height` in its video settings), the host's video reset from it,
// PROFILE_CHANGED. The reset's result, which the host itself ignores.
int switch_profile(const std::string &dir, uint32_t width, uint32_t height);
// The host's scene collection switch: its save of the old one, SCENE_COLLECTION_CHANGING,
// every source removed and released (as it clears its scene data), SCENE_COLLECTION_CLEANUP,
// `make` building the new collection's sources, the load of `modules` (null for a
// collection that has none), SCENE_COLLECTION_CHANGED.
void switch_collection(const std::function<void()> &make, obs_data_t *modules);

} // namespace cvtest::frontend
