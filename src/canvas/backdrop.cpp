#include "backdrop.h"

#include "base/log.h"
#include "base/placement.h"

#include <graphics/matrix4.h>
#include <obs-module.h>
#include <util/util.hpp>

#include <algorithm>
#include <mutex>

namespace cv {

namespace {

// The blur's copy is this many times smaller on each axis than the canvas.
constexpr uint32_t kReduction = 8;
// Horizontal and vertical passes, each widening the blur.
constexpr int kBlurRounds = 2;
constexpr float kDim = 0.6f;

struct Backdrop {
	std::mutex mutex; // guards the settings below
	OBSWeakSourceAutoRelease host;
	bool blur = false;
	uint32_t rgb = 0;
	uint32_t width = 0;
	uint32_t height = 0;

	// The graphics thread's alone.
	gs_effect_t *effect = nullptr;
	bool effect_failed = false;
	gs_texrender_t *copies[2] = {nullptr, nullptr};
};

const char *backdrop_name(void *)
{
	return "Vertical backdrop";
}

void *backdrop_create(obs_data_t *, obs_source_t *)
{
	return new Backdrop;
}

void backdrop_destroy(void *data)
{
	auto *backdrop = static_cast<Backdrop *>(data);
	obs_enter_graphics();
	gs_effect_destroy(backdrop->effect);
	for (gs_texrender_t *copy : backdrop->copies)
		gs_texrender_destroy(copy);
	obs_leave_graphics();
	delete backdrop;
}

uint32_t backdrop_width(void *data)
{
	auto *backdrop = static_cast<Backdrop *>(data);
	std::lock_guard lock(backdrop->mutex);
	return backdrop->width;
}

uint32_t backdrop_height(void *data)
{
	auto *backdrop = static_cast<Backdrop *>(data);
	std::lock_guard lock(backdrop->mutex);
	return backdrop->height;
}

void draw_colour(uint32_t rgb, uint32_t width, uint32_t height)
{
	gs_effect_t *solid = obs_get_base_effect(OBS_EFFECT_SOLID);
	vec4 colour;
	vec4_set(&colour, float(rgb >> 16 & 0xFF) / 255.0f, float(rgb >> 8 & 0xFF) / 255.0f, float(rgb & 0xFF) / 255.0f,
		 1.0f);
	gs_effect_set_vec4(gs_effect_get_param_by_name(solid, "color"), &colour);
	while (gs_effect_loop(solid, "Solid"))
		gs_draw_sprite(nullptr, 0, width, height);
}

bool load_effect(Backdrop &backdrop)
{
	if (backdrop.effect || backdrop.effect_failed)
		return backdrop.effect != nullptr;
	BPtr<char> file = obs_module_file("effects/blur.effect");
	char *errors = nullptr;
	backdrop.effect = file ? gs_effect_create_from_file(file, &errors) : nullptr;
	if (!backdrop.effect) {
		backdrop.effect_failed = true;
		log_error("The blurred background's shader could not be loaded: %s",
			  errors ? errors
			  : file ? file.Get()
				 : "effects/blur.effect is missing");
	}
	bfree(errors);
	return backdrop.effect != nullptr;
}

// Draws `texture` into `target` (of its size) through one blur pass along `step`.
bool blur_pass(gs_effect_t *effect, gs_texture_t *texture, gs_texrender_t *target, uint32_t width, uint32_t height,
	       float step_x, float step_y)
{
	gs_texrender_reset(target);
	if (!gs_texrender_begin(target, width, height))
		return false;
	gs_ortho(0.0f, float(width), 0.0f, float(height), -100.0f, 100.0f);
	vec2 texel;
	vec2_set(&texel, step_x, step_y);
	gs_effect_set_vec2(gs_effect_get_param_by_name(effect, "texel"), &texel);
	gs_effect_set_texture(gs_effect_get_param_by_name(effect, "image"), texture);
	while (gs_effect_loop(effect, "Blur"))
		gs_draw_sprite(texture, 0, width, height);
	gs_texrender_end(target);
	return true;
}

// The host scene covering the canvas, small, blurred; null when it cannot be made.
gs_texture_t *blurred_copy(Backdrop &backdrop, obs_source_t *host, uint32_t width, uint32_t height)
{
	if (!load_effect(backdrop))
		return nullptr;
	for (gs_texrender_t *&copy : backdrop.copies)
		if (!copy)
			copy = gs_texrender_create(GS_RGBA, GS_ZS_NONE);
	const uint32_t small_width = std::max(width / kReduction, 1u);
	const uint32_t small_height = std::max(height / kReduction, 1u);
	const uint32_t host_width = obs_source_get_width(host), host_height = obs_source_get_height(host);

	gs_texrender_t *first = backdrop.copies[0];
	gs_texrender_reset(first);
	if (!gs_texrender_begin(first, small_width, small_height))
		return nullptr;
	vec4 black;
	vec4_zero(&black);
	gs_clear(GS_CLEAR_COLOR, &black, 0.0f, 0);
	gs_ortho(0.0f, float(width), 0.0f, float(height), -100.0f, 100.0f);
	const CoverPlacement cover = cover_placement(width, height, host_width, host_height);
	gs_matrix_push();
	gs_matrix_translate3f(cover.x, cover.y, 0.0f);
	gs_matrix_scale3f(cover.scale, cover.scale, 1.0f);
	obs_source_video_render(host);
	gs_matrix_pop();
	gs_texrender_end(first);

	gs_blend_state_push();
	gs_blend_function(GS_BLEND_ONE, GS_BLEND_ZERO);
	bool made = true;
	for (int round = 0; made && round < kBlurRounds; round++) {
		made = blur_pass(backdrop.effect, gs_texrender_get_texture(backdrop.copies[0]), backdrop.copies[1],
				 small_width, small_height, 1.0f / float(small_width), 0.0f) &&
		       blur_pass(backdrop.effect, gs_texrender_get_texture(backdrop.copies[1]), backdrop.copies[0],
				 small_width, small_height, 0.0f, 1.0f / float(small_height));
	}
	gs_blend_state_pop();
	return made ? gs_texrender_get_texture(backdrop.copies[0]) : nullptr;
}

void backdrop_render(void *data, gs_effect_t *)
{
	auto *backdrop = static_cast<Backdrop *>(data);
	OBSSourceAutoRelease host;
	bool blur;
	uint32_t rgb, width, height;
	{
		std::lock_guard lock(backdrop->mutex);
		host = obs_weak_source_get_source(backdrop->host);
		blur = backdrop->blur;
		rgb = backdrop->rgb;
		width = backdrop->width;
		height = backdrop->height;
	}
	if (!width || !height)
		return;
	gs_texture_t *blurred = blur && host ? blurred_copy(*backdrop, host, width, height) : nullptr;
	if (blurred) {
		gs_effect_t *effect = backdrop->effect;
		gs_effect_set_float(gs_effect_get_param_by_name(effect, "dim"), kDim);
		gs_effect_set_texture(gs_effect_get_param_by_name(effect, "image"), blurred);
		while (gs_effect_loop(effect, "Dim"))
			gs_draw_sprite(blurred, 0, width, height);
	} else {
		draw_colour(blur ? 0 : rgb, width, height);
	}
	if (!host)
		return;
	const CoverPlacement fit =
		fit_placement(width, height, obs_source_get_width(host), obs_source_get_height(host));
	gs_matrix_push();
	gs_matrix_translate3f(fit.x, fit.y, 0.0f);
	gs_matrix_scale3f(fit.scale, fit.scale, 1.0f);
	obs_source_video_render(host);
	gs_matrix_pop();
}

void register_backdrop()
{
	if (obs_source_get_display_name(kBackdropSourceId))
		return;
	obs_source_info info = {};
	info.id = kBackdropSourceId;
	info.type = OBS_SOURCE_TYPE_INPUT;
	info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_CUSTOM_DRAW | OBS_SOURCE_CAP_DISABLED |
			    OBS_SOURCE_DO_NOT_DUPLICATE;
	info.get_name = backdrop_name;
	info.create = backdrop_create;
	info.destroy = backdrop_destroy;
	info.get_width = backdrop_width;
	info.get_height = backdrop_height;
	info.video_render = backdrop_render;
	obs_register_source(&info);
}

} // namespace

OBSSourceAutoRelease make_backdrop()
{
	register_backdrop();
	return obs_source_create_private(kBackdropSourceId, "cv_vertical_backdrop", nullptr);
}

void set_backdrop(obs_source_t *backdrop, obs_source_t *host, bool blur, uint32_t rgb, uint32_t canvas_width,
		  uint32_t canvas_height)
{
	auto *data = backdrop ? static_cast<Backdrop *>(obs_obj_get_data(backdrop)) : nullptr;
	if (!data)
		return;
	OBSWeakSourceAutoRelease weak = host ? obs_source_get_weak_source(host) : nullptr;
	std::lock_guard lock(data->mutex);
	data->host = std::move(weak);
	data->blur = blur;
	data->rgb = rgb;
	data->width = canvas_width;
	data->height = canvas_height;
}

} // namespace cv
