#include "settings_files.h"

#include "base/log.h"

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/platform.h>

#include <algorithm>
#include <filesystem>
#include <string>

namespace cv {

namespace {

constexpr const char *kSection = "VerticalCanvas";
constexpr const char *kScenes = "Scenes";
// Scene positions beyond this are never read, so a hand-edited count of billions cannot
// keep the host busy; no real list comes near it.
constexpr uint64_t kMaxScenePositions = 10000;

std::string host_string(char *text)
{
	BPtr<char> owned(text);
	return owned ? std::string(owned.Get()) : std::string();
}

// Opens one of the files; `what` names it in the log.
void open_file(ConfigFile &file, const std::string &path, const char *what)
{
	file.Close();
	if (path.empty()) {
		log_warning("Could not resolve %s config path", what);
		return;
	}
	std::error_code error;
	const std::filesystem::path parent = std::filesystem::path(path).parent_path();
	if (!parent.empty())
		os_mkdirs(parent.c_str());
	// The host's reader takes a folder or a pipe for a file of absurd size and aborts
	// the process; only a regular file (or none, to be created) goes to it.
	const auto status = std::filesystem::status(path, error);
	const bool openable = !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
	if (!openable || file.Open(path.c_str(), CONFIG_OPEN_ALWAYS) != CONFIG_SUCCESS) {
		// The host may leave a half-made handle behind on failure.
		file.Close();
		log_warning("Failed to open %s config: %s", what, path.c_str());
		return;
	}
	log_info("Loaded the %s config from %s", what, path.c_str());
}

// Saves the way every save of this plug-in does: a "tmp" file first, no backup. A file
// nothing was read from or written to says all there is already (and older hosts report
// writing an empty file as a failure).
void save_file(config_t *config, const char *what)
{
	if (config && config_num_sections(config) > 0 && config_save_safe(config, "tmp", nullptr) != CONFIG_SUCCESS)
		log_warning("Failed to save %s config", what);
}

std::string get_string(config_t *config, const char *section, const char *key)
{
	const char *value = config_get_string(config, section, key);
	return value ? value : "";
}

// A hand-edited number past 32 bits reads as the largest one rather than wrapping
// around to some small, plausible value.
uint32_t get_uint32(config_t *config, const char *key)
{
	return uint32_t(std::min<uint64_t>(config_get_uint(config, kSection, key), UINT32_MAX));
}

std::string scene_key(uint64_t position, const char *what)
{
	return "scene_" + std::to_string(position) + "_" + what;
}

} // namespace

void SettingsFiles::open_global()
{
	open_file(global_, host_string(obs_module_get_config_path(obs_current_module(), kGlobalConfigFile)), "global");
	dock_ = {};
	if (!global_)
		return;
	// Read before the defaults are registered: newer hosts count a registered default
	// as a value in the file.
	if (config_has_user_value(global_, kSection, "dockvisible"))
		dock_.visible = config_get_bool(global_, kSection, "dockvisible");
	if (config_has_user_value(global_, kSection, "dockfloating"))
		dock_.floating = config_get_bool(global_, kSection, "dockfloating");
	const DockState defaults;
	config_set_default_bool(global_, kSection, "dockvisible", true);
	config_set_default_bool(global_, kSection, "dockfloating", true);
	config_set_default_int(global_, kSection, "dockarea", defaults.area);
	config_set_default_string(global_, kSection, "dockgeometry", "");
	dock_.area = config_get_int(global_, kSection, "dockarea");
	dock_.geometry = get_string(global_, kSection, "dockgeometry");
}

void SettingsFiles::open_profile()
{
	const std::string dir = host_string(obs_frontend_get_current_profile_path());
	open_file(profile_, dir.empty() ? dir : dir + "/" + kProfileConfigFile, "profile");
	if (!profile_)
		return;
	const PluginConfig d;
	config_set_default_string(profile_, kSection, "rtmpurl", d.rtmpurl.c_str());
	config_set_default_string(profile_, kSection, "streamkey", d.streamkey.c_str());
	config_set_default_uint(profile_, kSection, "videobitrate", d.videobitrate);
	config_set_default_uint(profile_, kSection, "canvaswidth", d.canvaswidth);
	config_set_default_uint(profile_, kSection, "canvasheight", d.canvasheight);
	config_set_default_uint(profile_, kSection, "fpsnum", d.fpsnum);
	config_set_default_uint(profile_, kSection, "fpsden", d.fpsden);
	config_set_default_bool(profile_, kSection, "autostartwithmain", d.autostartwithmain);
	config_set_default_string(profile_, kSection, "encoderpreset", d.encoderpreset.c_str());
	config_set_default_bool(profile_, kSection, "useactivesceneaudio", d.useactivesceneaudio);
}

PluginConfig SettingsFiles::profile() const
{
	PluginConfig c;
	if (!profile_)
		return c;
	c.rtmpurl = get_string(profile_, kSection, "rtmpurl");
	c.streamkey = get_string(profile_, kSection, "streamkey");
	c.videobitrate = get_uint32(profile_, "videobitrate");
	c.canvaswidth = get_uint32(profile_, "canvaswidth");
	c.canvasheight = get_uint32(profile_, "canvasheight");
	c.fpsnum = get_uint32(profile_, "fpsnum");
	c.fpsden = get_uint32(profile_, "fpsden");
	c.autostartwithmain = config_get_bool(profile_, kSection, "autostartwithmain");
	c.encoderpreset = get_string(profile_, kSection, "encoderpreset");
	c.useactivesceneaudio = config_get_bool(profile_, kSection, "useactivesceneaudio");
	return c;
}

void SettingsFiles::set_profile(const PluginConfig &c)
{
	if (!profile_)
		return;
	config_set_string(profile_, kSection, "rtmpurl", c.rtmpurl.c_str());
	config_set_string(profile_, kSection, "streamkey", c.streamkey.c_str());
	config_set_uint(profile_, kSection, "videobitrate", c.videobitrate);
	config_set_uint(profile_, kSection, "canvaswidth", c.canvaswidth);
	config_set_uint(profile_, kSection, "canvasheight", c.canvasheight);
	config_set_uint(profile_, kSection, "fpsnum", c.fpsnum);
	config_set_uint(profile_, kSection, "fpsden", c.fpsden);
	config_set_bool(profile_, kSection, "autostartwithmain", c.autostartwithmain);
	config_set_string(profile_, kSection, "encoderpreset", c.encoderpreset.c_str());
	config_set_bool(profile_, kSection, "useactivesceneaudio", c.useactivesceneaudio);
	save_file(profile_, "profile");
}

void SettingsFiles::set_dock(const DockState &state)
{
	dock_ = state;
	if (!global_)
		return;
	config_set_bool(global_, kSection, "dockvisible", state.visible.value_or(true));
	config_set_bool(global_, kSection, "dockfloating", state.floating.value_or(true));
	config_set_int(global_, kSection, "dockarea", state.area);
	config_set_string(global_, kSection, "dockgeometry", state.geometry.c_str());
}

SceneList SettingsFiles::scenes() const
{
	SceneList list;
	if (!global_)
		return list;
	const uint64_t count = config_get_uint(global_, kScenes, "count");
	if (count > kMaxScenePositions)
		log_warning("Saved scene count %llu is implausible — reading the first %llu positions",
			    (unsigned long long)count, (unsigned long long)kMaxScenePositions);
	for (uint64_t i = 0; i < std::min(count, kMaxScenePositions); i++) {
		const std::string name = get_string(global_, kScenes, scene_key(i, "name").c_str());
		if (!name.empty())
			list.scenes.push_back({name, get_string(global_, kScenes, scene_key(i, "source").c_str())});
	}
	list.active = get_string(global_, kScenes, "activescene");
	return list;
}

void SettingsFiles::set_scenes(const SceneList &list)
{
	if (!global_)
		return;
	config_set_uint(global_, kScenes, "count", list.scenes.size());
	config_set_string(global_, kScenes, "activescene", list.active.c_str());
	for (size_t i = 0; i < list.scenes.size(); i++) {
		config_set_string(global_, kScenes, scene_key(i, "name").c_str(), list.scenes[i].name.c_str());
		config_set_string(global_, kScenes, scene_key(i, "source").c_str(), list.scenes[i].source.c_str());
	}
	save_file(global_, "global");
	log_info("Scene list saved (%zu scene(s))", list.scenes.size());
}

void SettingsFiles::save()
{
	save_file(global_, "global");
	save_file(profile_, "profile");
}

} // namespace cv
