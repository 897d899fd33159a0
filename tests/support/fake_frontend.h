#pragma once

#include <cstddef>
#include <string>
#include <vector>

// A stand-in for the host program's front-end API, for host tests that run libobs
// without the real program. The test decides what the front end reports.
namespace cvtest::frontend {

// Directory reported as the current profile's; empty makes the front end answer null.
void set_profile_dir(const std::string &dir);
// The names of the host's scenes in the order the front end lists them; until set, the
// order libobs enumerates them in.
void set_scene_order(const std::vector<std::string> &names);
// What obs_frontend_get_main_window reports (a QWidget*), null by default.
void set_main_window(void *window);
void reset();

// Delivers a front-end event to every callback the plug-in added.
void fire_event(int event);
size_t event_callback_count();

// Runs `hook` inside the next dock registration, as a host would that raises an event
// from inside a call the plug-in makes.
void on_next_add_dock(void (*hook)());

// The names of the Tools menu items added.
std::vector<std::string> tools_menu_items();

} // namespace cvtest::frontend
