#include "display_widget.h"

#include "base/log.h"

#include <graphics/graphics.h>
#include <obs-nix-platform.h>

#include <QGuiApplication>
#include <QResizeEvent>

#include <algorithm>

namespace cv {

namespace {

constexpr uint32_t kBackground = 0x080808;

} // namespace

DisplayWidget::DisplayWidget(QWidget *parent) : QWidget(parent)
{
	setAttribute(Qt::WA_DontCreateNativeAncestors);
	setAttribute(Qt::WA_NativeWindow);
	setAttribute(Qt::WA_PaintOnScreen);
	setAttribute(Qt::WA_NoSystemBackground);
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

void DisplayWidget::showEvent(QShowEvent *event)
{
	QWidget::showEvent(event);
	if (display)
		return;
	// The X window, on the display connection libobs already draws with. A Wayland
	// surface is only reachable through Qt's private API, so there is no picture there.
	if (obs_get_nix_platform() != OBS_NIX_PLATFORM_X11_EGL || QGuiApplication::platformName() != "xcb") {
		log_warning("Display widget: the picture needs X11, skipping display create");
		return;
	}
	const WId window = winId();
	if (!window) {
		log_warning("Display widget: no native window yet, skipping display create");
		return;
	}

	gs_init_data init = {};
	init.cx = uint32_t(std::max(width(), 1));
	init.cy = uint32_t(std::max(height(), 1));
	init.format = GS_RGBA;
	init.zsformat = GS_ZS_NONE;
	init.window.id = uint32_t(window);
	init.window.display = obs_get_nix_platform_display();

	display = obs_display_create(&init, kBackground);
	if (!display) {
		log_error("Display widget: obs_display_create failed");
		return;
	}
	obs_display_add_draw_callback(display, draw, this);
	log_debug("Display widget: display created (%ux%u)", init.cx, init.cy);
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
	log_debug("Display widget: display destroyed");
}

void DisplayWidget::resizeEvent(QResizeEvent *event)
{
	QWidget::resizeEvent(event);
	if (display)
		obs_display_resize(display, uint32_t(std::max(width(), 1)), uint32_t(std::max(height(), 1)));
}

void DisplayWidget::draw(void *param, uint32_t cx, uint32_t cy)
{
	static_cast<DisplayWidget *>(param)->drawDisplay(cx, cy);
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
