#include "dock_placement.h"

#include "ui/texts.h"

#include <obs-frontend-api.h>

#include <QByteArray>
#include <QDockWidget>
#include <QMainWindow>

namespace cv {

namespace {

// The host's dock widget around ours, found by its object name.
QDockWidget *host_dock_widget(QMainWindow *main)
{
	return main ? main->findChild<QDockWidget *>(kDockId) : nullptr;
}

} // namespace

QMainWindow *host_main_window()
{
	return static_cast<QMainWindow *>(obs_frontend_get_main_window());
}

void add_dock_to_host(QWidget *widget, const DockState &state)
{
	QMainWindow *main = host_main_window();
#if LIBOBS_API_MAJOR_VER >= 30
	obs_frontend_add_dock_by_id(kDockId, obs_module_text("Dock.Title"), widget);
#else
	// Older hosts take a ready dock widget; it gets the id as object name so that
	// everything else finds it the same way.
	auto *wrapper = new QDockWidget(text("Dock.Title"), main);
	wrapper->setObjectName(kDockId);
	wrapper->setWidget(widget);
	obs_frontend_add_dock(wrapper);
#endif
	QDockWidget *dock = host_dock_widget(main);
	if (!dock)
		return;
	if (!state.geometry.empty())
		dock->restoreGeometry(QByteArray::fromBase64(QByteArray::fromStdString(state.geometry)));
	if (!state.floating.value_or(true)) {
		main->removeDockWidget(dock);
		main->addDockWidget(state.area > 0 ? Qt::DockWidgetArea(state.area) : Qt::RightDockWidgetArea, dock);
		dock->setFloating(false);
	} else {
		dock->setFloating(true);
	}
	dock->setVisible(state.visible.value_or(true));
}

std::optional<DockState> dock_placement()
{
	QMainWindow *main = host_main_window();
	QDockWidget *dock = host_dock_widget(main);
	if (!dock)
		return std::nullopt;
	DockState now;
	now.visible = dock->isVisible();
	now.floating = dock->isFloating();
	now.area = int64_t(main->dockWidgetArea(dock));
	now.geometry = dock->saveGeometry().toBase64().toStdString();
	return now;
}

} // namespace cv
