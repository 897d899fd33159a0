#include "vertical_preview.h"

#include "base/log.h"
#include "base/placement.h"
#include "canvas/vertical_canvas.h"

#include <graphics/graphics.h>
#include <obs-nix-platform.h>
#include <obs.hpp>

#include <QResizeEvent>

#include <algorithm>

namespace cv {

namespace {

constexpr uint32_t kBackground = 0x080808;
constexpr int kMinimumWidth = 135;
constexpr int kMinimumHeight = 240;

} // namespace

VerticalPreviewWidget::VerticalPreviewWidget(VerticalCanvas *previewCanvas, QWidget *parent)
	: QWidget(parent),
	  canvas(previewCanvas)
{
	setAttribute(Qt::WA_NativeWindow);
	setAttribute(Qt::WA_PaintOnScreen);
	setAttribute(Qt::WA_NoSystemBackground);
	setMinimumSize(kMinimumWidth, kMinimumHeight);
	setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

VerticalPreviewWidget::~VerticalPreviewWidget()
{
	destroyDisplay();
}

void VerticalPreviewWidget::setCanvas(VerticalCanvas *newCanvas)
{
	// Taking the callback off waits for a frame being drawn with it.
	if (display)
		obs_display_remove_draw_callback(display, draw, this);
	canvas = newCanvas;
	if (display)
		obs_display_add_draw_callback(display, draw, this);
}

QSize VerticalPreviewWidget::minimumSizeHint() const
{
	return QSize(kMinimumWidth, kMinimumHeight);
}

QPaintEngine *VerticalPreviewWidget::paintEngine() const
{
	return nullptr;
}

void VerticalPreviewWidget::showEvent(QShowEvent *event)
{
	QWidget::showEvent(event);
	const WId window = winId();
	if (display)
		return;
	if (!window) {
		log_warning("VerticalPreviewWidget: HWND not ready, skipping display create");
		return;
	}

	gs_init_data init = {};
	init.cx = uint32_t(std::max(width(), 1));
	init.cy = uint32_t(std::max(height(), 1));
	init.format = GS_RGBA;
	init.zsformat = GS_ZS_NONE;
	// The X window, on the display connection libobs already draws with. A Wayland
	// surface is only reachable through Qt's private API, so there is no preview there.
	if (obs_get_nix_platform() != OBS_NIX_PLATFORM_X11_EGL) {
		log_warning("VerticalPreviewWidget: preview needs X11, skipping display create");
		return;
	}
	init.window.id = uint32_t(window);
	init.window.display = obs_get_nix_platform_display();

	display = obs_display_create(&init, kBackground);
	if (!display) {
		log_error("VerticalPreviewWidget: obs_display_create failed");
		return;
	}
	obs_display_add_draw_callback(display, draw, this);
	log_debug("VerticalPreviewWidget: display created (%ux%u)", init.cx, init.cy);
}

void VerticalPreviewWidget::hideEvent(QHideEvent *event)
{
	QWidget::hideEvent(event);
	destroyDisplay();
}

void VerticalPreviewWidget::destroyDisplay()
{
	if (!display)
		return;
	obs_display_remove_draw_callback(display, draw, this);
	obs_display_destroy(display);
	display = nullptr;
	log_debug("VerticalPreviewWidget: display destroyed");
}

void VerticalPreviewWidget::resizeEvent(QResizeEvent *event)
{
	QWidget::resizeEvent(event);
	// Held to 9:16 of the height at every size. (Lifting the limit once the width is
	// within it lets the layout widen the preview again, and the two then take turns.)
	setMaximumWidth(std::max(preview_width_limit(height()), minimumWidth()));
	if (display)
		obs_display_resize(display, uint32_t(std::max(width(), 1)), uint32_t(std::max(height(), 1)));
}

// Graphics thread. The callback is taken off before the canvas changes or the display
// goes, so the canvas stays while a frame is drawn.
void VerticalPreviewWidget::draw(void *param, uint32_t cx, uint32_t cy)
{
	auto *self = static_cast<VerticalPreviewWidget *>(param);
	VerticalCanvas *canvas = self->canvas;
	if (!canvas)
		return;
	const PreviewViewport viewport = preview_viewport(cx, cy, canvas->width(), canvas->height());
	gs_viewport_push();
	gs_projection_push();
	gs_set_viewport(int(viewport.x), int(viewport.y), int(viewport.width), int(viewport.height));
	gs_ortho(0.0f, float(canvas->width()), 0.0f, float(canvas->height()), -100.0f, 100.0f);
	canvas->render();
	gs_projection_pop();
	gs_viewport_pop();
}

} // namespace cv
