#include "dock_registry.h"

#include "plugin_config.h"
#include "plugin_log.h"
#include "runtime.h"
#include "settings_store.h"

#include "ui/vertical_dock.h"

#include <obs-frontend-api.h>

#include <QByteArray>
#include <QDockWidget>
#include <QMainWindow>
#include <QPointer>

namespace cv {

namespace {

QPointer<VerticalDock> dock;

QMainWindow *main_window()
{
	return static_cast<QMainWindow *>(obs_frontend_get_main_window());
}

// The host's dock widget around ours, found by its object name.
QDockWidget *host_dock_widget(QMainWindow *main)
{
	return main ? main->findChild<QDockWidget *>(kDockId) : nullptr;
}

void add_to_host(QMainWindow *main, VerticalDock *widget)
{
#if LIBOBS_API_MAJOR_VER >= 30
	(void)main;
	obs_frontend_add_dock_by_id(kDockId, kDockTitle, widget);
#else
	// Older hosts take a ready dock widget; it gets the id as object name so that
	// everything below finds it the same way.
	auto *wrapper = new QDockWidget(QString::fromUtf8(kDockTitle), main);
	wrapper->setObjectName(kDockId);
	wrapper->setWidget(widget);
	obs_frontend_add_dock(wrapper);
#endif
}

void apply_dock_state(QMainWindow *main, QDockWidget *host_dock)
{
	config_t *config = global_config();
	if (!host_dock || !config)
		return;

	const char *geometry = config_get_string(config, kConfigSection, "dockgeometry");
	if (geometry && *geometry)
		host_dock->restoreGeometry(QByteArray::fromBase64(QByteArray(geometry)));

	if (dock_value_written("dockfloating") && !config_get_bool(config, kConfigSection, "dockfloating")) {
		const int64_t area = config_get_int(config, kConfigSection, "dockarea");
		main->removeDockWidget(host_dock);
		main->addDockWidget(area > 0 ? Qt::DockWidgetArea(area) : Qt::RightDockWidgetArea, host_dock);
		host_dock->setFloating(false);
	} else {
		host_dock->setFloating(true);
	}

	const bool visible = dock_value_written("dockvisible") ? config_get_bool(config, kConfigSection, "dockvisible")
							       : true;
	host_dock->setVisible(visible);
}

} // namespace

VerticalDock *current_dock()
{
	return dock.data();
}

void attach_dock()
{
	if (!dock)
		return;
	dock->setRuntime(runtime_canvas(), runtime_output());
	dock->refreshSceneList();
}

void detach_dock()
{
	if (dock)
		dock->setRuntime(nullptr, nullptr);
}

void register_dock()
{
	QMainWindow *main = main_window();
	if (!main)
		return;
	if (dock) {
		attach_dock();
		return;
	}

	dock = new VerticalDock(runtime_canvas(), runtime_output(), main);
	add_to_host(main, dock);
	apply_dock_state(main, host_dock_widget(main));
	blog(LOG_INFO, "[%s] Vertical Canvas dock registered", kLogTag);
	attach_dock();
}

void record_dock_state()
{
	config_t *config = global_config();
	QMainWindow *main = main_window();
	QDockWidget *host_dock = host_dock_widget(main);
	if (!config || !host_dock)
		return;
	const bool visible = host_dock->isVisible();
	const bool floating = host_dock->isFloating();
	config_set_bool(config, kConfigSection, "dockvisible", visible);
	config_set_bool(config, kConfigSection, "dockfloating", floating);
	config_set_int(config, kConfigSection, "dockarea", int64_t(main->dockWidgetArea(host_dock)));
	config_set_string(config, kConfigSection, "dockgeometry", host_dock->saveGeometry().toBase64().constData());
	blog(LOG_INFO, "[%s] Dock state saved (floating=%s, visible=%s)", kLogTag, floating ? "yes" : "no",
	     visible ? "yes" : "no");
}

void forget_dock()
{
	dock = nullptr;
}

} // namespace cv
