#pragma once

// The vertical scene list in the global settings file (section "Scenes"): shared by
// all profiles, saved from whichever runtime is alive and restored into the next.
namespace cv {

// Caller holds runtime_mutex. Write the list and save the global file.
void save_scene_list();
// Takes runtime_mutex itself; for scene edits from the dock.
void save_scene_list_locked();
// Caller holds runtime_mutex. Rebuild the canvas's scenes from the file.
void restore_scene_list();
// Caller holds runtime_mutex. Assign every stored source once more.
void reapply_scene_sources();

} // namespace cv
