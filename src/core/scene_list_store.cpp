#include "scene_list_store.h"

#include "plugin_log.h"
#include "runtime.h"
#include "settings_store.h"

#include "canvas/vertical_canvas.h"

#include <algorithm>
#include <mutex>
#include <string>

namespace cv {

namespace {

constexpr const char *kSection = "Scenes";
constexpr const char *kDefaultScene = "Scene 1";

// Positions beyond this are never read, so a hand-edited count of billions cannot
// keep the host busy; no real list comes near it.
constexpr uint64_t kMaxRestoredPositions = 10000;

std::string scene_key(uint64_t position, const char *what)
{
	return "scene_" + std::to_string(position) + "_" + what;
}

} // namespace

void save_scene_list()
{
	config_t *config = global_config();
	VerticalCanvas *canvas = runtime_canvas();
	if (!config || !canvas)
		return;

	const std::vector<std::string> names = canvas->scene_names();
	const std::string active = canvas->active_scene_name();
	config_set_uint(config, kSection, "count", names.size());
	config_set_string(config, kSection, "activescene", active.c_str());
	for (size_t i = 0; i < names.size(); i++) {
		const std::string source = canvas->scene_source_name(names[i]);
		config_set_string(config, kSection, scene_key(i, "name").c_str(), names[i].c_str());
		config_set_string(config, kSection, scene_key(i, "source").c_str(), source.c_str());
	}

	if (!save_config_file(config))
		blog(LOG_WARNING, "[%s] Failed to save global config", kLogTag);
	blog(LOG_INFO, "[%s] Scene list saved (%zu scene(s))", kLogTag, names.size());
}

void save_scene_list_locked()
{
	std::lock_guard lock(runtime_mutex());
	save_scene_list();
}

void restore_scene_list()
{
	config_t *config = global_config();
	VerticalCanvas *canvas = runtime_canvas();
	if (!config || !canvas)
		return;

	const uint64_t count = config_get_uint(config, kSection, "count");
	if (count == 0) {
		blog(LOG_INFO, "[%s] No saved scenes — keeping default Scene 1", kLogTag);
		return;
	}

	canvas->remove_scene(kDefaultScene);

	if (count > kMaxRestoredPositions)
		blog(LOG_WARNING, "[%s] Saved scene count %llu is implausible — reading the first %llu positions",
		     kLogTag, (unsigned long long)count, (unsigned long long)kMaxRestoredPositions);
	const uint64_t positions = std::min(count, kMaxRestoredPositions);
	for (uint64_t i = 0; i < positions; i++) {
		const char *name = config_get_string(config, kSection, scene_key(i, "name").c_str());
		if (!name || !*name)
			continue;
		const char *source = config_get_string(config, kSection, scene_key(i, "source").c_str());
		// A name that exists already is refused here; its source is still assigned.
		canvas->create_scene(name);
		if (source && *source)
			canvas->assign_scene_source(name, source);
	}

	const char *active = config_get_string(config, kSection, "activescene");
	if (active && *active)
		canvas->set_active_scene(active);

	blog(LOG_INFO, "[%s] Restored %llu scene(s), active: %s", kLogTag, (unsigned long long)count,
	     active ? active : "(none)");
}

void reapply_scene_sources()
{
	VerticalCanvas *canvas = runtime_canvas();
	if (!canvas)
		return;

	for (const std::string &name : canvas->scene_names()) {
		const std::string source = canvas->scene_source_name(name);
		if (source.empty())
			continue;
		blog(LOG_INFO, "[%s] Re-applying source '%s' → scene '%s'", kLogTag, source.c_str(), name.c_str());
		canvas->assign_scene_source(name, source);
	}
}

} // namespace cv
