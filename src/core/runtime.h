#pragma once

#include "canvas/canvas_format.h"
#include "output/output_config.h"

#include <mutex>

// The per-profile runtime: one vertical canvas and one vertical output, built from
// the current profile's settings and rebuilt when the profile changes.
namespace cv {

class VerticalCanvas;
class VerticalOutput;

// Module-wide lock over the runtime, both config files and the dock pointer.
std::recursive_mutex &runtime_mutex();

// Both null, or both set. Read with runtime_mutex held.
VerticalCanvas *runtime_canvas();
VerticalOutput *runtime_output();

// The records the runtime is built from, read from the open profile file or the
// fallbacks when none is open.
CanvasConfig canvas_config_from_profile();
OutputConfig output_config_from_profile();

// Caller holds runtime_mutex.
bool create_runtime_from_current_profile();
void destroy_runtime(bool save_scenes);

// Hands the profile's url, key, bitrate and preset to the live output, if any.
void push_output_config();

} // namespace cv
