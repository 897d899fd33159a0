#include "display_widget.h"

#include "base/log.h"

#include <graphics/graphics.h>
#include <obs-config.h>
#include <obs-nix-platform.h>

#include <QDockWidget>
#include <QGuiApplication>
#include <QPlatformSurfaceEvent>
#include <QResizeEvent>
#include <QTimer>
#include <QWindow>
#include <qpa/qplatformnativeinterface.h>

#include <algorithm>

namespace cv {

namespace {

constexpr uint32_t kBackground = 0x080808;
// How long after Qt made a surface the display is made on it: Qt gives it its role
// (its place in the parent window's surface) only after announcing it.
constexpr int kSurfaceSettle = 50; // ms

// Which window system libobs draws for, when Qt runs on the same one.
enum class WindowSystem { X11, Wayland, Other };

WindowSystem window_system()
{
	const QString qt = QGuiApplication::platformName();
	const obs_nix_platform_type obs = obs_get_nix_platform();
	if (obs == OBS_NIX_PLATFORM_X11_EGL)
		return qt == "xcb" ? WindowSystem::X11 : WindowSystem::Other;
#ifdef ENABLE_WAYLAND
	if (obs == OBS_NIX_PLATFORM_WAYLAND)
		return qt.startsWith("wayland") ? WindowSystem::Wayland : WindowSystem::Other;
#endif
	return WindowSystem::Other;
}

// The window's wl_surface, which Qt makes when it first shows the window (Qt 5 destroys it
// again when it hides the window); Qt hands it out only through its platform interface.
void *wayland_surface(QWindow *window)
{
	QPlatformNativeInterface *native = QGuiApplication::platformNativeInterface();
	return native ? native->nativeResourceForWindow("surface", window) : nullptr;
}

} // namespace

DisplayWidget::DisplayWidget(QWidget *parent) : QWidget(parent)
{
	setAttribute(Qt::WA_DontCreateNativeAncestors);
	setAttribute(Qt::WA_NativeWindow);
	setAttribute(Qt::WA_PaintOnScreen);
	setAttribute(Qt::WA_NoSystemBackground);
	watchWindow();
}

DisplayWidget::~DisplayWidget()
{
	destroyDisplay();
}

QPaintEngine *DisplayWidget::paintEngine() const
{
	return nullptr;
}

void DisplayWidget::whileNotDrawing(const std::function<void()> &change)
{
	// Taking the callback off waits for a frame being drawn with it.
	if (display)
		obs_display_remove_draw_callback(display, draw, this);
	change();
	if (display)
		obs_display_add_draw_callback(display, draw, this);
}

void DisplayWidget::watchWindow()
{
	QWindow *window = windowHandle();
	if (!window || window == watched)
		return;
	if (watched)
		watched->removeEventFilter(this);
	watched = window;
	window->installEventFilter(this);
}

QSize DisplayWidget::pixelSize() const
{
	const qreal ratio = devicePixelRatioF();
	return QSize(std::max(int(width() * ratio), 1), std::max(int(height() * ratio), 1));
}

void DisplayWidget::watchTopLevel()
{
	QWidget *top = window();
	if (top != this && top != topLevel) {
		if (topLevel)
			topLevel->removeEventFilter(this);
		topLevel = top;
		top->installEventFilter(this);
	}
	QDockWidget *within = nullptr;
	for (QWidget *up = parentWidget(); up && !within; up = up->parentWidget())
		within = qobject_cast<QDockWidget *>(up);
	if (within == dock)
		return;
	disconnect(dockShown);
	dock = within;
	dockSeen = !dock || !dock->visibleRegion().isEmpty();
	if (dock)
		dockShown = connect(dock, &QDockWidget::visibilityChanged, this, [this](bool visible) {
			dockSeen = visible;
			enableForTopLevel();
		});
}

void DisplayWidget::enableForTopLevel()
{
	if (display)
		obs_display_set_enabled(display, dockSeen && !(topLevel && topLevel->isMinimized()));
}

void DisplayWidget::showEvent(QShowEvent *event)
{
	QWidget::showEvent(event);
	watchTopLevel();
	switch (window_system()) {
	case WindowSystem::X11:
		createDisplay();
		break;
	case WindowSystem::Wayland:
		// Qt makes the surface right after this event.
		createSoon();
		break;
	case WindowSystem::Other:
		log_warning(
			"Display widget: OBS draws for another window system than Qt's '%s', skipping display create",
			qUtf8Printable(QGuiApplication::platformName()));
		break;
	}
}

void DisplayWidget::createSoon()
{
	if (createPending)
		return;
	createPending = true;
	QTimer::singleShot(kSurfaceSettle, this, [this] {
		createPending = false;
		createDisplay();
	});
}

void DisplayWidget::createDisplay()
{
	if (!isVisible())
		return;
	const QSize size = pixelSize();
	gs_init_data init = {};
	init.cx = uint32_t(size.width());
	init.cy = uint32_t(size.height());
	init.format = GS_RGBA;
	init.zsformat = GS_ZS_NONE;

	switch (window_system()) {
	case WindowSystem::X11: {
		if (display)
			return;
		// The X window, on the display connection libobs already draws with.
		const WId window = winId();
		if (!window) {
			log_warning("Display widget: no native window yet, skipping display create");
			return;
		}
		init.window.id = uint32_t(window);
		init.window.display = obs_get_nix_platform_display();
		break;
	}
	case WindowSystem::Wayland: {
		winId();
		watchWindow();
		QWindow *window = windowHandle();
		void *current = window ? wayland_surface(window) : nullptr;
		if (display && current == surface)
			return;
		// A display on another surface than the window's own is drawing on one Qt has
		// replaced.
		destroyDisplay();
		if (!current) {
			// Qt 5 does not say when a child window is exposed, so this also runs before
			// its surface is there; only an exposed window without one is wrong.
			if (window && window->isExposed())
				log_warning(
					"Display widget: the window has no Wayland surface, trying again at its next expose");
			return;
		}
		init.window.display = current;
		break;
	}
	case WindowSystem::Other:
		return;
	}

	display = obs_display_create(&init, kBackground);
	if (!display) {
		log_error("Display widget: obs_display_create failed");
		return;
	}
	surface = init.window.display;
	obs_display_add_draw_callback(display, draw, this);
	enableForTopLevel();
	log_debug("Display widget: display created (%ux%u)", init.cx, init.cy);
}

bool DisplayWidget::event(QEvent *event)
{
	// Reparenting (a dock floated or docked) can give the widget a new native window.
	if (event->type() == QEvent::ParentChange)
		watchTopLevel();
	if (event->type() == QEvent::WinIdChange && window_system() == WindowSystem::Wayland) {
		watchWindow();
		createSoon();
	}
	return QWidget::event(event);
}

bool DisplayWidget::eventFilter(QObject *object, QEvent *event)
{
	const QEvent::Type type = event->type();
	if (object == topLevel && type == QEvent::WindowStateChange) {
		enableForTopLevel();
		return QWidget::eventFilter(object, event);
	}
	if (object != watched || (type != QEvent::Expose && type != QEvent::PlatformSurface) ||
	    window_system() != WindowSystem::Wayland)
		return QWidget::eventFilter(object, event);
	if (type == QEvent::Expose) {
		createDisplay();
	} else {
		switch (static_cast<QPlatformSurfaceEvent *>(event)->surfaceEventType()) {
		case QPlatformSurfaceEvent::SurfaceCreated:
			// Drawn on once Qt has given the new surface its place in the parent's.
			createSoon();
			break;
		case QPlatformSurfaceEvent::SurfaceAboutToBeDestroyed:
			// Sent while the surface still exists: libobs must be done with it first.
			destroyDisplay();
			break;
		}
	}
	return QWidget::eventFilter(object, event);
}

void DisplayWidget::hideEvent(QHideEvent *event)
{
	QWidget::hideEvent(event);
	destroyDisplay();
}

void DisplayWidget::destroyDisplay()
{
	if (!display)
		return;
	obs_display_remove_draw_callback(display, draw, this);
	obs_display_destroy(display);
	display = nullptr;
	surface = nullptr;
	log_debug("Display widget: display destroyed");
}

void DisplayWidget::resizeEvent(QResizeEvent *event)
{
	QWidget::resizeEvent(event);
	if (display) {
		const QSize size = pixelSize();
		obs_display_resize(display, uint32_t(size.width()), uint32_t(size.height()));
	} else if (window_system() == WindowSystem::Wayland) {
		createSoon();
	}
}

void DisplayWidget::draw(void *param, uint32_t cx, uint32_t cy)
{
	// The display's clear leaves every pixel opaque, but blending over it lowers the alpha
	// (the safe area's tint, a scene item's blend mode). A Wayland compositor blends the
	// window by that alpha and would let what lies under the preview show through: the
	// picture keeps the clear's alpha, as on X11. (glClear heeds the mask, so it is lifted
	// again for the next clear.)
	gs_enable_color(true, true, true, false);
	static_cast<DisplayWidget *>(param)->drawDisplay(cx, cy);
	gs_enable_color(true, true, true, true);
}

void draw_tint(float x, float y, float width, float height, uint32_t argb)
{
	gs_effect_t *solid = obs_get_base_effect(OBS_EFFECT_SOLID);
	gs_effect_set_color(gs_effect_get_param_by_name(solid, "color"), argb);
	gs_blend_state_push();
	gs_enable_blending(true);
	gs_blend_function(GS_BLEND_SRCALPHA, GS_BLEND_INVSRCALPHA);
	gs_matrix_push();
	gs_matrix_translate3f(x, y, 0.0f);
	gs_matrix_scale3f(width, height, 1.0f);
	while (gs_effect_loop(solid, "Solid"))
		gs_draw_sprite(nullptr, 0, 1, 1);
	gs_matrix_pop();
	gs_blend_state_pop();
}

} // namespace cv
