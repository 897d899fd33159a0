#pragma once

// The vertical dock inside the host's main window: handed to the host once, placed as
// the user left it, and its placement read back when the host exits.

#include "base/settings.h"

class QDockWidget;
class QMainWindow;
class QWidget;

namespace cv {

// Its title is the locale text "Dock.Title".
inline constexpr const char *kDockId = "corvane-vertical-canvas";

// The host's main window; null without a front end.
QMainWindow *host_main_window();

// Adds `widget` to the host's docks under kDockId and places it by `state`.
void add_dock_to_host(QWidget *widget, const DockState &state);
// Where the dock is now; nothing when the host has no such dock.
std::optional<DockState> dock_placement();

} // namespace cv
