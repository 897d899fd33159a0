#include "dock_placement.h"

#include "base/log.h"
#include "ui/texts.h"

#include <obs-frontend-api.h>

#include <util/config-file.h>

#include <QDataStream>
#include <QDockWidget>
#include <QIODevice>
#include <QMainWindow>

namespace cv {

namespace {

// The host's dock widget around ours, found by its object name.
QDockWidget *host_dock_widget(QMainWindow *main)
{
	return main ? main->findChild<QDockWidget *>(kDockId) : nullptr;
}

// The host keeps the dock layout it saved at exit (QMainWindow::saveState, base64) in its
// global settings, which became per-user settings in OBS 31. The layout names each dock
// widget as QDataStream writes a QString.
bool host_layout_has_dock()
{
#if LIBOBS_API_MAJOR_VER >= 31
	config_t *config = obs_frontend_get_user_config();
#else
	config_t *config = obs_frontend_get_global_config();
#endif
	const char *saved = config ? config_get_string(config, "BasicWindow", "DockState") : nullptr;
	if (!saved || !*saved)
		return false;
	QByteArray name;
	QDataStream out(&name, QIODevice::WriteOnly);
	out << QString(kDockId);
	return QByteArray::fromBase64(QByteArray(saved)).contains(name);
}

QRect screen_rect(const QWidget *widget)
{
	return QRect(widget->mapToGlobal(QPoint(0, 0)), widget->size());
}

const char *area_name(Qt::DockWidgetArea area)
{
	switch (area) {
	case Qt::LeftDockWidgetArea:
		return "left";
	case Qt::RightDockWidgetArea:
		return "right";
	case Qt::TopDockWidgetArea:
		return "top";
	case Qt::BottomDockWidgetArea:
		return "bottom";
	default:
		return "none";
	}
}

} // namespace

QMainWindow *host_main_window()
{
	return static_cast<QMainWindow *>(obs_frontend_get_main_window());
}

void add_dock_to_host(QWidget *widget)
{
#if LIBOBS_API_MAJOR_VER >= 30
	obs_frontend_add_dock_by_id(kDockId, obs_module_text("Dock.Title"), widget);
#else
	// Older hosts take a ready dock widget; it gets the id as object name so that
	// everything else finds it the same way.
	auto *wrapper = new QDockWidget(text("Dock.Title"), host_main_window());
	wrapper->setObjectName(kDockId);
	wrapper->setWidget(widget);
	obs_frontend_add_dock(wrapper);
#endif
}

void settle_dock()
{
	QMainWindow *main = host_main_window();
	QDockWidget *dock = host_dock_widget(main);
	if (!dock)
		return;
	if (host_layout_has_dock()) {
		log_info("Dock placed by the host's saved layout");
		return;
	}
	main->addDockWidget(Qt::RightDockWidgetArea, dock);
	dock->setFloating(false);
	dock->show();
	log_info("Dock placed on the right of the host's preview");
}

std::optional<DockPlacement> dock_placement()
{
	QMainWindow *main = host_main_window();
	QDockWidget *dock = host_dock_widget(main);
	if (!dock)
		return std::nullopt;
	DockPlacement now;
	now.visible = dock->isVisible();
	now.floating = dock->isFloating();
	now.area = now.floating ? "none" : area_name(main->dockWidgetArea(dock));
	if (now.visible) {
		const QRect mine = screen_rect(dock);
		for (const QDockWidget *other : main->findChildren<QDockWidget *>())
			if (other != dock && other->isVisible() && screen_rect(other).intersects(mine))
				now.covers.push_back(other->objectName().toStdString());
	}
	return now;
}

} // namespace cv
