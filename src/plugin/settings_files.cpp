#include "settings_files.h"

#include "base/log.h"

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/platform.h>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <variant>

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

// The profile's file holds stream keys: it is kept readable and writable by its owner
// only. Such files by handle, with their paths, for the saves.
std::mutex owner_only_mutex;
std::map<const config_t *, std::string> owner_only_files;

std::string owner_only_path(const config_t *config)
{
	std::lock_guard lock(owner_only_mutex);
	const auto found = owner_only_files.find(config);
	return found == owner_only_files.end() ? std::string() : found->second;
}

void restrict_to_owner(const std::string &path, const char *what)
{
	namespace fs = std::filesystem;
	std::error_code error;
	fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::replace, error);
	if (error)
		log_warning("Could not make the %s config readable by its owner only (%s): %s", what,
			    error.message().c_str(), path.c_str());
}

// Opens one of the files; `what` names it in the log.
void open_file(ConfigFile &file, const std::string &path, const char *what)
{
	{
		std::lock_guard lock(owner_only_mutex);
		owner_only_files.erase(file);
	}
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
	if (std::filesystem::path(path).filename() != kProfileConfigFile)
		return;
	{
		std::lock_guard lock(owner_only_mutex);
		owner_only_files[file] = path;
	}
	constexpr auto others = std::filesystem::perms::group_all | std::filesystem::perms::others_all;
	if (std::filesystem::exists(status) && (status.permissions() & others) != std::filesystem::perms::none)
		restrict_to_owner(path, what);
}

// Saves the way every save of this plug-in does: a "tmp" file first, no backup. A file
// nothing was read from or written to says all there is already (and older hosts report
// writing an empty file as a failure).
void save_file(config_t *config, const char *what)
{
	if (!config || config_num_sections(config) == 0)
		return;
	// The host writes the "tmp" file anew but keeps the mode of one that is there, so
	// the keys are never readable by others, not even while it is written.
	const std::string owner_only = owner_only_path(config);
	if (!owner_only.empty()) {
		const int fd = open((owner_only + ".tmp").c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
		if (fd >= 0) {
			fchmod(fd, 0600);
			close(fd);
		}
	}
	if (config_save_safe(config, "tmp", nullptr) != CONFIG_SUCCESS)
		log_warning("Failed to save %s config", what);
	else if (!owner_only.empty())
		restrict_to_owner(owner_only, what);
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

// The profile's settings besides the destinations, with the keys they are kept under.
struct Field {
	const char *key;
	std::variant<std::string PluginConfig::*, uint32_t PluginConfig::*, bool PluginConfig::*> member;
};

const Field kFields[] = {
	{"videobitrate", &PluginConfig::videobitrate},
	{"canvaswidth", &PluginConfig::canvaswidth},
	{"canvasheight", &PluginConfig::canvasheight},
	{"fpsnum", &PluginConfig::fpsnum},
	{"fpsden", &PluginConfig::fpsden},
	{"autostartwithmain", &PluginConfig::autostartwithmain},
	{"autorecordwithmain", &PluginConfig::autorecordwithmain},
	{"encoder", &PluginConfig::encoder},
	{"encoderpreset", &PluginConfig::encoderpreset},
	{"keyintsec", &PluginConfig::keyintsec},
	{"lowlatency", &PluginConfig::lowlatency},
	{"useactivesceneaudio", &PluginConfig::useactivesceneaudio},
	{"audiotrack", &PluginConfig::audiotrack},
	{"replayseconds", &PluginConfig::replayseconds},
	{"replaywithmain", &PluginConfig::replaywithmain},
};

// The first destination lives in the main section; the others in "Destination2", ...
constexpr const char *kDestinationKeys[] = {"name", "url", "key", "enabled", "id", "service"};

std::string destination_section(size_t index)
{
	return "Destination" + std::to_string(index + 1);
}

bool has_section(config_t *config, const char *section)
{
	for (const char *key : kDestinationKeys)
		if (config_has_user_value(config, section, key))
			return true;
	return false;
}

std::string scene_key(uint64_t position, const char *what)
{
	return "scene_" + std::to_string(position) + "_" + what;
}

} // namespace

void SettingsFiles::open_global()
{
	open_file(global_, host_string(obs_module_get_config_path(obs_current_module(), kGlobalConfigFile)), "global");
}

void SettingsFiles::open_profile()
{
	const std::string dir = host_string(obs_frontend_get_current_profile_path());
	open_file(profile_, dir.empty() ? dir : dir + "/" + kProfileConfigFile, "profile");
	if (!profile_)
		return;
	const PluginConfig defaults;
	for (const Field &field : kFields)
		std::visit(
			[&](auto member) {
				using Value = std::decay_t<decltype(defaults.*member)>;
				if constexpr (std::is_same_v<Value, std::string>)
					config_set_default_string(profile_, kSection, field.key,
								  (defaults.*member).c_str());
				else if constexpr (std::is_same_v<Value, bool>)
					config_set_default_bool(profile_, kSection, field.key, defaults.*member);
				else
					config_set_default_uint(profile_, kSection, field.key, defaults.*member);
			},
			field.member);
	config_set_default_string(profile_, kSection, "rtmpurl", "");
	config_set_default_string(profile_, kSection, "streamkey", "");
	config_set_default_string(profile_, kSection, "name1", default_destination_name(0).c_str());
	config_set_default_bool(profile_, kSection, "enabled1", true);
}

PluginConfig SettingsFiles::profile() const
{
	PluginConfig c;
	if (!profile_)
		return c;
	for (const Field &field : kFields)
		std::visit(
			[&](auto member) {
				using Value = std::decay_t<decltype(c.*member)>;
				if constexpr (std::is_same_v<Value, std::string>)
					c.*member = get_string(profile_, kSection, field.key);
				else if constexpr (std::is_same_v<Value, bool>)
					c.*member = config_get_bool(profile_, kSection, field.key);
				else
					c.*member = get_uint32(profile_, field.key);
			},
			field.member);
	c.destinations = {{get_string(profile_, kSection, "name1"), get_string(profile_, kSection, "rtmpurl"),
			   get_string(profile_, kSection, "streamkey"), config_get_bool(profile_, kSection, "enabled1"),
			   get_string(profile_, kSection, "id1"), get_string(profile_, kSection, "service1")}};
	for (size_t i = 1; i < kMaxDestinations; i++) {
		const std::string section = destination_section(i);
		if (!has_section(profile_, section.c_str()))
			continue;
		const bool enabled = !config_has_user_value(profile_, section.c_str(), "enabled") ||
				     config_get_bool(profile_, section.c_str(), "enabled");
		c.destinations.push_back({get_string(profile_, section.c_str(), "name"),
					  get_string(profile_, section.c_str(), "url"),
					  get_string(profile_, section.c_str(), "key"), enabled,
					  get_string(profile_, section.c_str(), "id"),
					  get_string(profile_, section.c_str(), "service")});
	}
	return c;
}

void SettingsFiles::set_profile(const PluginConfig &c)
{
	if (!profile_)
		return;
	for (const Field &field : kFields)
		std::visit(
			[&](auto member) {
				using Value = std::decay_t<decltype(c.*member)>;
				if constexpr (std::is_same_v<Value, std::string>)
					config_set_string(profile_, kSection, field.key, (c.*member).c_str());
				else if constexpr (std::is_same_v<Value, bool>)
					config_set_bool(profile_, kSection, field.key, c.*member);
				else
					config_set_uint(profile_, kSection, field.key, c.*member);
			},
			field.member);
	const DestinationSettings first = c.destinations.empty() ? DestinationSettings{} : c.destinations[0];
	config_set_string(profile_, kSection, "name1", first.name.c_str());
	config_set_string(profile_, kSection, "rtmpurl", first.url.c_str());
	config_set_string(profile_, kSection, "streamkey", first.key.c_str());
	config_set_bool(profile_, kSection, "enabled1", first.enabled);
	config_set_string(profile_, kSection, "id1", first.id.c_str());
	config_set_string(profile_, kSection, "service1", first.service.c_str());
	for (size_t i = 1; i < kMaxDestinations; i++) {
		const std::string section = destination_section(i);
		if (i >= c.destinations.size()) {
			for (const char *key : kDestinationKeys)
				config_remove_value(profile_, section.c_str(), key);
			continue;
		}
		const DestinationSettings &d = c.destinations[i];
		config_set_string(profile_, section.c_str(), "name", d.name.c_str());
		config_set_string(profile_, section.c_str(), "url", d.url.c_str());
		config_set_string(profile_, section.c_str(), "key", d.key.c_str());
		config_set_bool(profile_, section.c_str(), "enabled", d.enabled);
		config_set_string(profile_, section.c_str(), "id", d.id.c_str());
		config_set_string(profile_, section.c_str(), "service", d.service.c_str());
	}
	save_file(profile_, "profile");
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

void SettingsFiles::save()
{
	save_file(global_, "global");
	save_file(profile_, "profile");
}

} // namespace cv
