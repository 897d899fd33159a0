#include "fake_frontend.h"

#include <obs-frontend-api.h>
#include <obs.h>
#include <util/bmem.h>

#include <QDockWidget>
#include <QMainWindow>

namespace cvtest::frontend {

namespace {

std::string profile_dir;
void *main_window = nullptr;
std::vector<std::string> menu_items;
std::vector<std::pair<obs_frontend_event_cb, void *>> event_callbacks;
std::vector<std::string> scene_order;
void (*add_dock_hook)() = nullptr;

void run_add_dock_hook()
{
	auto *hook = add_dock_hook;
	add_dock_hook = nullptr;
	if (hook)
		hook();
}
bool scene_order_set = false;

} // namespace

void set_profile_dir(const std::string &dir)
{
	profile_dir = dir;
}

void set_scene_order(const std::vector<std::string> &names)
{
	scene_order = names;
	scene_order_set = true;
}

void on_next_add_dock(void (*hook)())
{
	add_dock_hook = hook;
}

void set_main_window(void *window)
{
	main_window = window;
}

void reset()
{
	profile_dir.clear();
	main_window = nullptr;
	menu_items.clear();
	event_callbacks.clear();
	scene_order.clear();
	scene_order_set = false;
	add_dock_hook = nullptr;
}

void fire_event(int event)
{
	const auto callbacks = event_callbacks;
	for (const auto &[callback, data] : callbacks)
		callback(obs_frontend_event(event), data);
}

size_t event_callback_count()
{
	return event_callbacks.size();
}

std::vector<std::string> tools_menu_items()
{
	return menu_items;
}

} // namespace cvtest::frontend

char *obs_frontend_get_current_profile_path(void)
{
	const std::string &dir = cvtest::frontend::profile_dir;
	return dir.empty() ? nullptr : bstrdup(dir.c_str());
}

void *obs_frontend_get_main_window(void)
{
	return cvtest::frontend::main_window;
}

void obs_frontend_add_tools_menu_item(const char *name, obs_frontend_cb callback, void *private_data)
{
	(void)callback;
	(void)private_data;
	cvtest::frontend::menu_items.push_back(name);
}

// The host's scenes, each with a new reference.
void obs_frontend_get_scenes(struct obs_frontend_source_list *sources)
{
	std::vector<obs_source_t *> scenes;
	if (cvtest::frontend::scene_order_set) {
		for (const std::string &name : cvtest::frontend::scene_order) {
			if (obs_source_t *source = obs_get_source_by_name(name.c_str()))
				scenes.push_back(source);
		}
	} else {
		obs_enum_scenes(
			[](void *param, obs_source_t *scene) {
				static_cast<std::vector<obs_source_t *> *>(param)->push_back(obs_source_get_ref(scene));
				return true;
			},
			&scenes);
	}
	sources->sources.array = static_cast<obs_source_t **>(bmalloc(sizeof(obs_source_t *) * (scenes.size() + 1)));
	for (size_t i = 0; i < scenes.size(); i++)
		sources->sources.array[i] = scenes[i];
	sources->sources.num = scenes.size();
	sources->sources.capacity = scenes.size() + 1;
}

void obs_frontend_add_event_callback(obs_frontend_event_cb callback, void *private_data)
{
	cvtest::frontend::event_callbacks.emplace_back(callback, private_data);
}

void obs_frontend_remove_event_callback(obs_frontend_event_cb callback, void *private_data)
{
	auto &callbacks = cvtest::frontend::event_callbacks;
	for (auto it = callbacks.begin(); it != callbacks.end(); ++it) {
		if (it->first == callback && it->second == private_data) {
			callbacks.erase(it);
			return;
		}
	}
}

// Like the host: the widget goes into a dock widget named after the id, on the right
// of the main window.
#if LIBOBS_API_MAJOR_VER >= 30
bool obs_frontend_add_dock_by_id(const char *id, const char *title, void *widget)
{
	auto *main = static_cast<QMainWindow *>(cvtest::frontend::main_window);
	if (!main)
		return false;
	auto *dock = new QDockWidget(QString::fromUtf8(title), main);
	dock->setObjectName(QString::fromUtf8(id));
	dock->setWidget(static_cast<QWidget *>(widget));
	main->addDockWidget(Qt::RightDockWidgetArea, dock);
	cvtest::frontend::run_add_dock_hook();
	return true;
}
#else
void *obs_frontend_add_dock(void *dock)
{
	auto *main = static_cast<QMainWindow *>(cvtest::frontend::main_window);
	if (main)
		main->addDockWidget(Qt::RightDockWidgetArea, static_cast<QDockWidget *>(dock));
	cvtest::frontend::run_add_dock_hook();
	return nullptr;
}
#endif
