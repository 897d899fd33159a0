#pragma once

#include <string>

// A stand-in for the host's front-end API: its events, main window and profile folder,
// as the test decides.
namespace cvtest::frontend {

// Reported as the current profile's folder; empty makes the front end answer null.
void set_profile_dir(const std::string &dir);
// What obs_frontend_get_main_window reports (a QMainWindow*), null by default.
void set_main_window(void *window);
void reset();

// Delivers a front-end event to every callback added, as the host does.
void fire_event(int event);
// Runs `hook` inside the next dock registration, as a host would that raises an event
// from inside a call the plug-in makes.
void on_next_add_dock(void (*hook)());

} // namespace cvtest::frontend
