#include "vertical_preview.h"

#include "base/commands.h"
#include "base/placement.h"
#include "canvas/vertical_canvas.h"

#include <graphics/graphics.h>

#include <QMouseEvent>
#include <QResizeEvent>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace cv {

namespace {

constexpr int kMinimumWidth = 135;
constexpr int kMinimumHeight = 240;
constexpr double kZoomPerNotch = 1.1;
constexpr uint32_t kSafeAreaTint = 0x50E04040;

QPoint event_point(const QMouseEvent *event)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
	return event->position().toPoint();
#else
	return event->pos();
#endif
}

} // namespace

VerticalPreviewWidget::VerticalPreviewWidget(VerticalCanvas *previewCanvas, QWidget *parent)
	: DisplayWidget(parent),
	  canvas(previewCanvas)
{
	setMinimumSize(kMinimumWidth, kMinimumHeight);
	setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

VerticalPreviewWidget::~VerticalPreviewWidget()
{
	destroyDisplay();
}

void VerticalPreviewWidget::setCanvas(VerticalCanvas *newCanvas)
{
	whileNotDrawing([&] { canvas = newCanvas; });
	dragging = false;
}

QSize VerticalPreviewWidget::minimumSizeHint() const
{
	return QSize(kMinimumWidth, kMinimumHeight);
}

void VerticalPreviewWidget::resizeEvent(QResizeEvent *event)
{
	// Held to 9:16 of the height at every size. (Lifting the limit once the width is
	// within it lets the layout widen the preview again, and the two then take turns.)
	setMaximumWidth(std::max(preview_width_limit(height()), minimumWidth()));
	DisplayWidget::resizeEvent(event);
}

void VerticalPreviewWidget::editCover(const std::function<void(SceneLayout &, const SourceSize &)> &edit)
{
	if (!canvas || !commands)
		return;
	const std::string name = canvas->active_scene_name();
	std::optional<SceneLayout> layout = canvas->scene_layout(name);
	if (!layout || layout->kind != LayoutKind::Cover)
		return;
	const SceneLayout before = *layout;
	edit(*layout, canvas->scene_source_size(name));
	if (*layout != before && !commands->set_scene_layout(name, *layout))
		emit layoutEdited();
}

void VerticalPreviewWidget::mousePressEvent(QMouseEvent *event)
{
	if (event->button() != Qt::LeftButton)
		return DisplayWidget::mousePressEvent(event);
	dragging = true;
	dragFrom = event_point(event);
}

void VerticalPreviewWidget::mouseMoveEvent(QMouseEvent *event)
{
	if (!dragging || !canvas)
		return DisplayWidget::mouseMoveEvent(event);
	const QPoint at = event_point(event);
	const QPoint moved = at - dragFrom;
	dragFrom = at;
	const uint32_t cx = canvas->width(), cy = canvas->height();
	const PreviewViewport viewport = preview_viewport(uint32_t(width()), uint32_t(height()), cx, cy);
	if (!viewport.width || !viewport.height)
		return;
	// Widget pixels to canvas pixels.
	const double dx = moved.x() * double(cx) / viewport.width;
	const double dy = moved.y() * double(cy) / viewport.height;
	editCover([&](SceneLayout &layout, const SourceSize &size) {
		const Focus focus = dragged_focus(cx, cy, size.width, size.height, layout, dx, dy);
		layout.focus_x = focus.x;
		layout.focus_y = focus.y;
	});
}

void VerticalPreviewWidget::mouseReleaseEvent(QMouseEvent *event)
{
	if (event->button() == Qt::LeftButton)
		dragging = false;
	DisplayWidget::mouseReleaseEvent(event);
}

void VerticalPreviewWidget::wheelEvent(QWheelEvent *event)
{
	const double notches = event->angleDelta().y() / 120.0;
	if (notches == 0.0)
		return DisplayWidget::wheelEvent(event);
	editCover([&](SceneLayout &layout, const SourceSize &) {
		layout.zoom = std::clamp(layout.zoom * std::pow(kZoomPerNotch, notches), kMinZoom, kMaxZoom);
	});
	event->accept();
}

// Graphics thread. The callback is taken off before the canvas changes or the display
// goes, so the canvas stays while a frame is drawn.
void VerticalPreviewWidget::drawDisplay(uint32_t cx, uint32_t cy)
{
	if (!canvas)
		return;
	const float width = float(canvas->width()), height = float(canvas->height());
	const PreviewViewport viewport = preview_viewport(cx, cy, canvas->width(), canvas->height());
	gs_viewport_push();
	gs_projection_push();
	gs_set_viewport(int(viewport.x), int(viewport.y), int(viewport.width), int(viewport.height));
	gs_ortho(0.0f, width, 0.0f, height, -100.0f, 100.0f);
	canvas->render_scaled({viewport, canvas->width(), canvas->height()});
	if (safeArea) {
		for (const Zone &zone : safe_area_zones())
			draw_tint(zone.x * width, zone.y * height, zone.width * width, zone.height * height,
				  kSafeAreaTint);
	}
	gs_projection_pop();
	gs_viewport_pop();
}

} // namespace cv
