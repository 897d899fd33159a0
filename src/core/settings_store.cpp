#include "settings_store.h"

#include "config_paths.h"
#include "plugin_config.h"
#include "plugin_log.h"
#include "runtime.h"

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/bmem.h>
#include <util/platform.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>

namespace cv {

namespace {

config_t *global_handle = nullptr;
bool dock_floating_written = false;
bool dock_visible_written = false;
config_t *profile_handle = nullptr;

const PluginConfig kFallback{};

// Takes ownership of a host-allocated string and returns a copy (empty for null).
std::string take_host_string(char *text)
{
	std::string copy = text ? text : "";
	bfree(text);
	return copy;
}

void close_handle(config_t *&handle)
{
	if (handle) {
		config_close(handle);
		handle = nullptr;
	}
}

// Reopens one of the two files; `lower` and `upper` name it in the log lines.
bool open_handle(config_t *&handle, const std::string &path, const char *lower, const char *upper)
{
	close_handle(handle);
	if (path.empty()) {
		blog(LOG_WARNING, "[%s] Could not resolve %s config path", kLogTag, lower);
		return false;
	}
	ensure_parent_dir(path);
	// The host's reader takes a folder or a pipe for a file of absurd size and aborts
	// the process; only a regular file (or none, to be created) goes to it.
	std::error_code error;
	const auto status = std::filesystem::status(path, error);
	const bool openable = !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
	if (!openable || config_open(&handle, path.c_str(), CONFIG_OPEN_ALWAYS) != CONFIG_SUCCESS) {
		// The host may leave a half-made handle behind on failure.
		close_handle(handle);
		blog(LOG_WARNING, "[%s] Failed to open %s config: %s", kLogTag, lower, path.c_str());
		return false;
	}
	blog(LOG_INFO, "[%s] %s config loaded from: %s", kLogTag, upper, path.c_str());
	return true;
}

const char *get_string(const char *key, const std::string &fallback)
{
	if (!profile_handle)
		return fallback.c_str();
	const char *value = config_get_string(profile_handle, kConfigSection, key);
	return value ? value : "";
}

// A hand-edited number past 32 bits reads as the largest one rather than wrapping
// around to some small, plausible value.
uint32_t get_uint(const char *key, uint32_t fallback)
{
	if (!profile_handle)
		return fallback;
	const uint64_t value = config_get_uint(profile_handle, kConfigSection, key);
	return uint32_t(std::min<uint64_t>(value, UINT32_MAX));
}

bool get_bool(const char *key, bool fallback)
{
	return profile_handle ? config_get_bool(profile_handle, kConfigSection, key) : fallback;
}

void set_string(const char *key, const char *value)
{
	if (profile_handle && value)
		config_set_string(profile_handle, kConfigSection, key, value);
}

void set_uint(const char *key, uint32_t value)
{
	if (profile_handle)
		config_set_uint(profile_handle, kConfigSection, key, value);
}

void set_bool(const char *key, bool value)
{
	if (profile_handle)
		config_set_bool(profile_handle, kConfigSection, key, value);
}

} // namespace

config_t *global_config()
{
	return global_handle;
}

config_t *profile_config()
{
	return profile_handle;
}

bool dock_value_written(const char *key)
{
	if (strcmp(key, "dockfloating") == 0)
		return dock_floating_written;
	if (strcmp(key, "dockvisible") == 0)
		return dock_visible_written;
	return false;
}

void load_global_config()
{
	close_handle(global_handle);
	dock_floating_written = false;
	dock_visible_written = false;
	const std::string path = take_host_string(obs_module_get_config_path(obs_current_module(), kGlobalConfigFile));
	if (!open_handle(global_handle, path, "global", "Global"))
		return;

	// Read before the defaults are registered: newer hosts count a registered default
	// as a value in the file.
	dock_floating_written = config_has_user_value(global_handle, kConfigSection, "dockfloating");
	dock_visible_written = config_has_user_value(global_handle, kConfigSection, "dockvisible");

	const DockState defaults;
	config_set_default_bool(global_handle, kConfigSection, "dockvisible", defaults.dockvisible);
	config_set_default_bool(global_handle, kConfigSection, "dockfloating", defaults.dockfloating);
	config_set_default_int(global_handle, kConfigSection, "dockarea", defaults.dockarea);
	config_set_default_string(global_handle, kConfigSection, "dockgeometry", defaults.dockgeometry.c_str());
}

void load_profile_config()
{
	if (!open_handle(profile_handle, profile_config_path(), "profile", "Profile"))
		return;

	const PluginConfig &d = kFallback;
	config_t *c = profile_handle;
	config_set_default_string(c, kConfigSection, "rtmpurl", d.rtmpurl.c_str());
	config_set_default_string(c, kConfigSection, "streamkey", d.streamkey.c_str());
	config_set_default_uint(c, kConfigSection, "videobitrate", d.videobitrate);
	config_set_default_uint(c, kConfigSection, "canvaswidth", d.canvaswidth);
	config_set_default_uint(c, kConfigSection, "canvasheight", d.canvasheight);
	config_set_default_uint(c, kConfigSection, "fpsnum", d.fpsnum);
	config_set_default_uint(c, kConfigSection, "fpsden", d.fpsden);
	config_set_default_bool(c, kConfigSection, "autostartwithmain", d.autostartwithmain);
	config_set_default_string(c, kConfigSection, "encoderpreset", d.encoderpreset.c_str());
	config_set_default_bool(c, kConfigSection, "useactivesceneaudio", d.useactivesceneaudio);
}

std::string profile_config_path()
{
	return profile_config_path_in(take_host_string(obs_frontend_get_current_profile_path()));
}

void ensure_parent_dir(const std::string &path)
{
	if (path.empty())
		return;
	const std::string dir = parent_dir_of(path);
	if (!dir.empty())
		os_mkdirs(dir.c_str());
}

bool save_config_file(config_t *config)
{
	// Nothing was read or set, so the file already says all there is. (The older hosts
	// report writing an empty file as a failure.)
	if (config_num_sections(config) == 0)
		return true;
	return config_save_safe(config, "tmp", nullptr) == CONFIG_SUCCESS;
}

void save_and_close_configs()
{
	if (global_handle && !save_config_file(global_handle))
		blog(LOG_WARNING, "[%s] Failed to save global config", kLogTag);
	if (profile_handle && !save_config_file(profile_handle))
		blog(LOG_WARNING, "[%s] Failed to save profile config", kLogTag);
	close_handle(global_handle);
	close_handle(profile_handle);
}

const char *rtmpurl()
{
	return get_string("rtmpurl", kFallback.rtmpurl);
}
const char *streamkey()
{
	return get_string("streamkey", kFallback.streamkey);
}
uint32_t videobitrate()
{
	return get_uint("videobitrate", kFallback.videobitrate);
}
uint32_t canvaswidth()
{
	return get_uint("canvaswidth", kFallback.canvaswidth);
}
uint32_t canvasheight()
{
	return get_uint("canvasheight", kFallback.canvasheight);
}
uint32_t fpsnum()
{
	return get_uint("fpsnum", kFallback.fpsnum);
}
uint32_t fpsden()
{
	return get_uint("fpsden", kFallback.fpsden);
}
bool autostartwithmain()
{
	return get_bool("autostartwithmain", kFallback.autostartwithmain);
}
const char *encoderpreset()
{
	return get_string("encoderpreset", kFallback.encoderpreset);
}
bool useactivesceneaudio()
{
	return get_bool("useactivesceneaudio", kFallback.useactivesceneaudio);
}

void set_rtmpurl(const char *value)
{
	set_string("rtmpurl", value);
}
void set_streamkey(const char *value)
{
	set_string("streamkey", value);
}
void set_videobitrate(uint32_t value)
{
	set_uint("videobitrate", value);
}
void set_canvaswidth(uint32_t value)
{
	set_uint("canvaswidth", value);
}
void set_canvasheight(uint32_t value)
{
	set_uint("canvasheight", value);
}
void set_fpsnum(uint32_t value)
{
	set_uint("fpsnum", value);
}
void set_fpsden(uint32_t value)
{
	set_uint("fpsden", value);
}
void set_autostartwithmain(bool value)
{
	set_bool("autostartwithmain", value);
}
void set_encoderpreset(const char *value)
{
	set_string("encoderpreset", value);
}
void set_useactivesceneaudio(bool value)
{
	set_bool("useactivesceneaudio", value);
}

void save_profile_config()
{
	std::lock_guard lock(runtime_mutex());
	push_output_config();
	if (profile_handle && !save_config_file(profile_handle))
		blog(LOG_WARNING, "[%s] Failed to save profile config", kLogTag);
}

} // namespace cv
