#pragma once

// The vertical dock inside the host's main window: handed to the host once, placed where
// the host's own saved layout has it, and described for websocket clients.

#include <optional>
#include <string>
#include <vector>

class QMainWindow;
class QWidget;

namespace cv {

// Its title is the locale text "Dock.Title".
inline constexpr const char *kDockId = "corvane-vertical-canvas";

// The host's main window; null without a front end.
QMainWindow *host_main_window();

// Adds `widget` to the host's docks under kDockId. Called as modules load, before the
// host restores the dock layout it saved at its last exit: the host then puts the dock
// back with its own docks (tabbed, floating or hidden as it was), and saves it with them.
void add_dock_to_host(QWidget *widget);
// Once the host has restored its layout: a dock that layout does not have (the first
// start, or a layout saved before the plug-in was installed) is docked on the right of
// the host's preview, shown, rather than left where the host puts docks it does not know.
void settle_dock();

struct DockPlacement {
	bool visible = false;
	bool floating = false;
	// "left", "right", "top", "bottom", or "none" when floating.
	std::string area;
	// The object names of the host's shown docks that it overlaps on screen.
	std::vector<std::string> covers;
};

// Where the dock is now; nothing when the host has no such dock.
std::optional<DockPlacement> dock_placement();

} // namespace cv
