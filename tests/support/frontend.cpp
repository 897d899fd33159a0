#include "frontend.h"

#include <obs-frontend-api.h>
#include <util/bmem.h>

#include <QDockWidget>
#include <QMainWindow>

#include <utility>
#include <vector>

namespace cvtest::frontend {

namespace {

std::string profile_dir;
QMainWindow *main_window = nullptr;
std::vector<std::pair<obs_frontend_event_cb, void *>> callbacks;
void (*add_dock_hook)() = nullptr;

void added_dock(QDockWidget *dock)
{
	if (main_window)
		main_window->addDockWidget(Qt::RightDockWidgetArea, dock);
	if (auto *hook = std::exchange(add_dock_hook, nullptr))
		hook();
}

} // namespace

void set_profile_dir(const std::string &dir)
{
	profile_dir = dir;
}

void set_main_window(void *window)
{
	main_window = static_cast<QMainWindow *>(window);
}

void reset()
{
	profile_dir.clear();
	main_window = nullptr;
	callbacks.clear();
	add_dock_hook = nullptr;
}

void fire_event(int event)
{
	for (const auto &[callback, data] : std::vector(callbacks))
		callback(obs_frontend_event(event), data);
}

void on_next_add_dock(void (*hook)())
{
	add_dock_hook = hook;
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
	return nullptr;
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

void obs_frontend_add_event_callback(obs_frontend_event_cb callback, void *data)
{
	callbacks.emplace_back(callback, data);
}

void obs_frontend_remove_event_callback(obs_frontend_event_cb callback, void *data)
{
	for (auto it = callbacks.begin(); it != callbacks.end(); ++it)
		if (it->first == callback && it->second == data) {
			callbacks.erase(it);
			return;
		}
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
