#include "vertical_preview.h"

#include "preview_viewport.h"

#include "canvas/cover_placement.h"
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
	std::lock_guard lock(canvasMutex);
	canvas = newCanvas;
}

VerticalCanvas *VerticalPreviewWidget::currentCanvas() const
{
	std::lock_guard lock(canvasMutex);
	return canvas;
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
		blog(LOG_WARNING, "[corvane] VerticalPreviewWidget: HWND not ready, skipping display create");
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
		blog(LOG_WARNING, "[corvane] VerticalPreviewWidget: preview needs X11, skipping display create");
		return;
	}
	init.window.id = uint32_t(window);
	init.window.display = obs_get_nix_platform_display();

	display = obs_display_create(&init, kBackground);
	if (!display) {
		blog(LOG_ERROR, "[corvane] VerticalPreviewWidget: obs_display_create failed");
		return;
	}
	obs_display_add_draw_callback(display, draw, this);
	blog(LOG_INFO, "[corvane] VerticalPreviewWidget: display created (%ux%u)", init.cx, init.cy);
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
	blog(LOG_INFO, "[corvane] VerticalPreviewWidget: display destroyed");
}

void VerticalPreviewWidget::resizeEvent(QResizeEvent *event)
{
	QWidget::resizeEvent(event);
	const int limit = preview_width_limit(height());
	setMaximumWidth(width() > limit ? limit : QWIDGETSIZE_MAX);
	if (display)
		obs_display_resize(display, uint32_t(std::max(width(), 1)), uint32_t(std::max(height(), 1)));
}

// Graphics thread. Removing this callback before the display goes away keeps a
// teardown from racing a frame; the widget's own lock keeps a runtime that is being
// replaced from going away under one.
void VerticalPreviewWidget::draw(void *param, uint32_t cx, uint32_t cy)
{
	auto *self = static_cast<VerticalPreviewWidget *>(param);
	std::lock_guard lock(self->canvasMutex);
	VerticalCanvas *canvas = self->canvas;
	if (!canvas)
		return;
	const uint32_t canvas_width = canvas->width();
	const uint32_t canvas_height = canvas->height();
	const OBSSource source = canvas->active_source();
	if (!canvas_width || !canvas_height || !source)
		return;
	const uint32_t source_width = obs_source_get_width(source);
	const uint32_t source_height = obs_source_get_height(source);
	if (!source_width || !source_height)
		return;

	const PreviewViewport viewport = preview_viewport(cx, cy, canvas_width, canvas_height);
	const CoverPlacement cover = cover_placement(canvas_width, canvas_height, source_width, source_height);

	gs_viewport_push();
	gs_projection_push();
	gs_set_viewport(int(viewport.x), int(viewport.y), int(viewport.width), int(viewport.height));
	gs_ortho(0.0f, float(canvas_width), 0.0f, float(canvas_height), -100.0f, 100.0f);
	gs_matrix_push();
	gs_matrix_translate3f(cover.x, cover.y, 0.0f);
	gs_matrix_scale3f(cover.scale, cover.scale, 1.0f);
	obs_source_video_render(source);
	gs_matrix_pop();
	gs_projection_pop();
	gs_viewport_pop();
}

} // namespace cv
