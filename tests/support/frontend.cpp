#include "frontend.h"

#include <obs-frontend-api.h>
#include <obs.hpp>
#include <util/bmem.h>
#include <util/platform.h>
#include <util/util.hpp>

#include <QDockWidget>
#include <QMainWindow>

#include <algorithm>
#include <utility>
#include <vector>

namespace cvtest::frontend {

namespace {

std::string profile_dir;
config_t *profile_config = nullptr;
// The profile's settings when the test gives none; libobs counts its memory.
ConfigFile own_profile_config;
QMainWindow *main_window = nullptr;
// The host's own settings (global.ini, user.ini from OBS 31): its saved dock layout.
ConfigFile host_config;
std::vector<std::pair<obs_frontend_event_cb, void *>> callbacks;
obs_weak_source_t *current_scene = nullptr;
std::vector<std::pair<obs_frontend_save_cb, void *>> save_callbacks;

template<typename Callback> void forget(std::vector<std::pair<Callback, void *>> &list, Callback callback, void *data)
{
	const auto it = std::find(list.begin(), list.end(), std::pair{callback, data});
	if (it != list.end())
		list.erase(it);
}
OBSDataAutoRelease collection;
void (*profile_config_hook)() = nullptr;

void added_dock(QDockWidget *dock)
{
	if (main_window)
		main_window->addDockWidget(Qt::RightDockWidgetArea, dock);
}

// The time spent in the host's video resets.
uint64_t reset_ns = 0;

// The host's ResetVideo: the profile's video settings over the running ones.
int reset_video()
{
	obs_video_info video = {};
	if (!obs_get_video_info(&video))
		return OBS_VIDEO_FAIL;
	if (profile_config) {
		video.base_width = uint32_t(config_get_uint(profile_config, "Video", "BaseCX"));
		video.base_height = uint32_t(config_get_uint(profile_config, "Video", "BaseCY"));
		video.output_width = uint32_t(config_get_uint(profile_config, "Video", "OutputCX"));
		video.output_height = uint32_t(config_get_uint(profile_config, "Video", "OutputCY"));
	}
	const uint64_t began = os_gettime_ns();
	const int result = obs_reset_video(&video);
	reset_ns += os_gettime_ns() - began;
	return result;
}

void save()
{
	collection = obs_data_create();
	for (const auto &[callback, data] : std::vector(save_callbacks))
		callback(collection, true, data);
}

} // namespace

uint64_t video_reset_ns()
{
	return reset_ns;
}

void set_profile_dir(const std::string &dir)
{
	profile_dir = dir;
}

void set_profile_config(config_t *config)
{
	profile_config = config;
}

void set_main_window(void *window)
{
	main_window = static_cast<QMainWindow *>(window);
}

void reset()
{
	profile_dir.clear();
	profile_config = nullptr;
	own_profile_config.Close();
	main_window = nullptr;
	callbacks.clear();
	save_callbacks.clear();
	collection = nullptr;
	profile_config_hook = nullptr;
	host_config.Close();
	obs_weak_source_release(current_scene);
	current_scene = nullptr;
}

void fire_event(int event)
{
	for (const auto &[callback, data] : std::vector(callbacks))
		callback(obs_frontend_event(event), data);
}

void switch_scene(obs_source_t *scene)
{
	obs_weak_source_release(current_scene);
	current_scene = scene ? obs_source_get_weak_source(scene) : nullptr;
	fire_event(OBS_FRONTEND_EVENT_SCENE_CHANGED);
}

void on_next_profile_config(void (*hook)())
{
	profile_config_hook = hook;
}

void set_saved_dock_layout(const std::string &base64)
{
	if (!host_config)
		host_config.OpenString("");
	config_set_string(host_config, "BasicWindow", "DockState", base64.c_str());
}

void restore_dock_layout()
{
	if (!main_window)
		return;
	const char *saved = host_config ? config_get_string(host_config, "BasicWindow", "DockState") : nullptr;
	if (saved && *saved && main_window->restoreState(QByteArray::fromBase64(saved)))
		return;
	// The host's "reset docks": every dock of a plug-in floats, hidden.
	for (QDockWidget *dock : main_window->findChildren<QDockWidget *>())
		if (dock->objectName().startsWith("corvane")) {
			dock->setFloating(true);
			dock->hide();
		}
}

obs_data_t *saved_collection()
{
	obs_data_addref(collection);
	return collection.Get();
}

void load_collection(obs_data_t *modules)
{
	for (const auto &[callback, data] : std::vector(save_callbacks))
		callback(modules, false, data);
}

int switch_profile(const std::string &dir, uint32_t width, uint32_t height)
{
	fire_event(OBS_FRONTEND_EVENT_PROFILE_CHANGING);
	// The host swaps in the new profile's folder and settings, then resets its video
	// from them; a refused reset leaves the old video running without a word.
	profile_dir = dir;
	if (!profile_config) {
		if (!own_profile_config)
			own_profile_config.OpenString("");
		profile_config = own_profile_config;
	}
	for (const char *key : {"BaseCX", "OutputCX"})
		config_set_uint(profile_config, "Video", key, width);
	for (const char *key : {"BaseCY", "OutputCY"})
		config_set_uint(profile_config, "Video", key, height);
	const int result = reset_video();
	fire_event(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
	return result;
}

void switch_collection(const std::function<void()> &make, obs_data_t *modules)
{
	save();
	fire_event(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGING);
	for (uint32_t channel = 0; channel < MAX_CHANNELS; channel++)
		obs_set_output_source(channel, nullptr);
	auto remove = [](void *, obs_source_t *source) {
		obs_source_remove(source);
		return true;
	};
	obs_enum_scenes(remove, nullptr);
	obs_enum_sources(remove, nullptr);
	fire_event(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CLEANUP);
	make();
	if (modules)
		load_collection(modules);
	fire_event(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED);
}

} // namespace cvtest::frontend

using namespace cvtest::frontend;

char *obs_frontend_get_current_profile_path(void)
{
	return profile_dir.empty() ? nullptr : bstrdup(profile_dir.c_str());
}

// The host's recording folder is the profile's folder; its format the default one.
char *obs_frontend_get_current_record_output_path(void)
{
	return obs_frontend_get_current_profile_path();
}

config_t *obs_frontend_get_profile_config(void)
{
	if (auto *hook = std::exchange(profile_config_hook, nullptr))
		hook();
	return profile_config;
}

config_t *obs_frontend_get_global_config(void)
{
	return host_config;
}

config_t *obs_frontend_get_user_config(void)
{
	return host_config;
}

void *obs_frontend_get_main_window(void)
{
	return main_window;
}

void obs_frontend_add_tools_menu_item(const char *, obs_frontend_cb, void *) {}

// The host's scenes in the order libobs keeps them, each with a reference of its own.
// Newer GCC cannot see that darray's growth never leaves its array null.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
void obs_frontend_get_scenes(struct obs_frontend_source_list *sources)
{
	da_init(sources->sources);
	obs_enum_scenes(
		[](void *param, obs_source_t *scene) {
			auto *list = static_cast<obs_frontend_source_list *>(param);
			da_push_back(list->sources, &scene);
			obs_source_get_ref(scene);
			return true;
		},
		sources);
}
#pragma GCC diagnostic pop

obs_source_t *obs_frontend_get_current_scene(void)
{
	using namespace cvtest::frontend;
	return current_scene ? obs_weak_source_get_source(current_scene) : nullptr;
}

void obs_frontend_add_event_callback(obs_frontend_event_cb callback, void *data)
{
	callbacks.emplace_back(callback, data);
}

void obs_frontend_remove_event_callback(obs_frontend_event_cb callback, void *data)
{
	forget(callbacks, callback, data);
}

void obs_frontend_add_save_callback(obs_frontend_save_cb callback, void *data)
{
	save_callbacks.emplace_back(callback, data);
}

void obs_frontend_remove_save_callback(obs_frontend_save_cb callback, void *data)
{
	forget(save_callbacks, callback, data);
}

// The host saves its collection a moment later; here at once.
void obs_frontend_save(void)
{
	save();
}

// As the host: the profile's video settings, refused while an output runs.
void obs_frontend_reset_video(void)
{
	reset_video();
}

// Like the host: the widget goes into a dock widget named after the id.
#if LIBOBS_API_MAJOR_VER >= 30
bool obs_frontend_add_dock_by_id(const char *id, const char *title, void *widget)
{
	auto *dock = new QDockWidget(QString::fromUtf8(title), main_window);
	dock->setObjectName(QString::fromUtf8(id));
	dock->setWidget(static_cast<QWidget *>(widget));
	added_dock(dock);
	return true;
}
#else
void *obs_frontend_add_dock(void *dock)
{
	added_dock(static_cast<QDockWidget *>(dock));
	return nullptr;
}
#endif
