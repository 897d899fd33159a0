#pragma once

// The vertical dock inside the host's main window: created once, the first time the
// front end is ready, and handed each new runtime. The module keeps only a guarded
// pointer; the host owns the widget. Callers hold runtime_mutex.
namespace cv {

class VerticalDock;

inline constexpr const char *kDockId = "corvane-vertical-canvas";
inline constexpr const char *kDockTitle = "Vertical Canvas";

// Null when the dock was never made or the host has deleted it.
VerticalDock *current_dock();

// Creates and registers the dock with its saved placement, or only re-attaches it.
void register_dock();
// Hands the dock the current canvas and output (either may be null).
void attach_dock();
// Hands the dock null pointers before the runtime goes away.
void detach_dock();
// Writes the dock's placement into the global file (not saved here).
void record_dock_state();
// Drops the guarded pointer at unload; the widget stays the host's.
void forget_dock();

} // namespace cv
