#include "runtime.h"

#include "dock_registry.h"
#include "plugin_log.h"
#include "scene_list_store.h"
#include "settings_store.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"

#include <algorithm>

namespace cv {

namespace {

// Owned here; created and deleted only by the two functions below.
VerticalCanvas *canvas = nullptr;
VerticalOutput *output = nullptr;

struct CanvasFormat {
	uint32_t width = 1080;
	uint32_t height = 1920;
	uint32_t fps_num = 30;
	uint32_t fps_den = 1;
};
CanvasFormat last_canvas_format;

} // namespace

std::recursive_mutex &runtime_mutex()
{
	static std::recursive_mutex mutex;
	return mutex;
}

VerticalCanvas *runtime_canvas()
{
	return canvas;
}

VerticalOutput *runtime_output()
{
	return output;
}

CanvasConfig canvas_config_from_profile()
{
	CanvasConfig config;
	config.width = canvaswidth();
	config.height = canvasheight();
	config.fps_num = fpsnum();
	config.fps_den = fpsden();
	config.use_active_scene_audio = useactivesceneaudio();
	return config;
}

OutputConfig output_config_from_profile()
{
	OutputConfig config;
	config.url = rtmpurl();
	config.key = streamkey();
	const uint32_t kbps = videobitrate();
	config.bitrate_kbps = std::clamp(kbps, kMinVideoKbps, kMaxVideoKbps);
	if (config.bitrate_kbps != kbps)
		blog(LOG_WARNING, "[%s] Video bitrate %u kbps is out of range — using %u kbps", kLogTag, kbps,
		     config.bitrate_kbps);
	config.encoder_preset = encoderpreset();
	// Never read from a file: the encoder is always chosen by the fallback order.
	config.preferred_encoder = "auto";
	return config;
}

bool create_runtime_from_current_profile()
{
	if (canvas || output) {
		blog(LOG_WARNING, "[%s] create_runtime_from_current_profile called while runtime is still alive",
		     kLogTag);
		return false;
	}

	const CanvasConfig canvas_config = canvas_config_from_profile();
	auto *new_canvas = new VerticalCanvas(canvas_config);
	if (!new_canvas->init()) {
		blog(LOG_ERROR, "[%s] Canvas init failed", kLogTag);
		delete new_canvas;
		return false;
	}

	auto *new_output = new VerticalOutput(new_canvas, output_config_from_profile());
	if (!new_output->init()) {
		blog(LOG_ERROR, "[%s] Output init failed", kLogTag);
		delete new_output;
		new_canvas->shutdown();
		delete new_canvas;
		return false;
	}

	canvas = new_canvas;
	output = new_output;
	last_canvas_format = {canvas_config.width, canvas_config.height, canvas_config.fps_num, canvas_config.fps_den};
	blog(LOG_INFO, "[%s] Runtime created: %ux%u @ %u/%u fps", kLogTag, canvas_config.width, canvas_config.height,
	     canvas_config.fps_num, canvas_config.fps_den);
	return true;
}

void destroy_runtime(bool save_scenes)
{
	if (save_scenes)
		save_scene_list();
	detach_dock();

	if (output) {
		if (output->is_active())
			output->stop();
		delete output;
		output = nullptr;
	}
	if (canvas) {
		canvas->shutdown();
		delete canvas;
		canvas = nullptr;
	}
}

void push_output_config()
{
	if (output)
		output->update_config(output_config_from_profile());
}

} // namespace cv
