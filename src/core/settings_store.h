#pragma once

#include <util/config-file.h>

#include <cstdint>
#include <string>

// The plug-in's two config files: the global one (dock placement, vertical scene
// list) and the current profile's one (stream and canvas settings). Each stays open
// while the module is loaded; the profile file is reopened on every profile change.
// None of these functions lock; save_profile_config takes the runtime lock.
namespace cv {

void load_global_config();
// Whether "dockfloating" or "dockvisible" was in the global file when it was opened
// (a registered default does not count).
bool dock_value_written(const char *key);
void load_profile_config();

// Null while the file is not open.
config_t *global_config();
config_t *profile_config();

std::string profile_config_path();
void ensure_parent_dir(const std::string &path);

// Saves a config file the way every save of this module does ("tmp" temporary file,
// no backup). Returns false when it could not be written.
bool save_config_file(config_t *config);

// Saves both files (logging a failed save) and closes them; used at unload.
void save_and_close_configs();

// Each getter returns the profile file's value, or its fallback while none is open.
// String getters return text owned by the config, valid until the key is set again
// or the file is closed.
const char *rtmpurl();
const char *streamkey();
uint32_t videobitrate();
uint32_t canvaswidth();
uint32_t canvasheight();
uint32_t fpsnum();
uint32_t fpsden();
bool autostartwithmain();
const char *encoderpreset();
bool useactivesceneaudio();

// Setters write into the open profile file (never save it) and do nothing while no
// file is open; the string setters also ignore a null value.
void set_rtmpurl(const char *value);
void set_streamkey(const char *value);
void set_videobitrate(uint32_t value);
void set_canvaswidth(uint32_t value);
void set_canvasheight(uint32_t value);
void set_fpsnum(uint32_t value);
void set_fpsden(uint32_t value);
void set_autostartwithmain(bool value);
void set_encoderpreset(const char *value);
void set_useactivesceneaudio(bool value);

// Hands the new output settings to the live output, then writes the profile file.
void save_profile_config();

} // namespace cv
