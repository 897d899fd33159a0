#include "host_session.h"

#include "xvfb.h"

#include <obs-module.h>
#include <obs.hpp>
#include <obs-nix-platform.h>
#include <util/bmem.h>

#include <X11/Xlib.h>

#include <vector>

// Provided by the plug-in's own entry points, linked into the program.
extern "C" void obs_module_set_pointer(obs_module_t *module);

namespace cvtest {

namespace {

Xvfb &process_xvfb()
{
	static Xvfb xvfb;
	return xvfb;
}

Display *x_display = nullptr;

bool load_host_module(const char *name, std::string *error)
{
	obs_module_t *module = nullptr;
	const std::string bin = std::string(CV_HOST_PLUGIN_DIR) + "/" + name + ".so";
	const std::string data = std::string(CV_HOST_PLUGIN_DATA_DIR) + "/" + name;
	if (obs_open_module(&module, bin.c_str(), data.c_str()) != MODULE_SUCCESS) {
		*error = "cannot open " + bin;
		return false;
	}
	if (!obs_init_module(module)) {
		*error = std::string("cannot initialise ") + name;
		return false;
	}
	return true;
}

// Newer hosts keep a source that was never removed until shutdown and count it as leaked.
void remove_public_sources()
{
	std::vector<OBSSource> sources;
	auto collect = [](void *param, obs_source_t *source) {
		static_cast<std::vector<OBSSource> *>(param)->emplace_back(source);
		return true;
	};
	obs_enum_scenes(collect, &sources);
	obs_enum_sources(collect, &sources);
	for (obs_source_t *source : sources)
		obs_source_remove(source);
}

} // namespace

void stop_process_xvfb()
{
	process_xvfb().stop();
}

HostSession::~HostSession()
{
	stop();
}

bool HostSession::start(const HostOptions &options, const std::string &config_root, std::string *error)
{
	if (process_xvfb().display().empty() && !process_xvfb().start(error))
		return false;

	x_display = XOpenDisplay(nullptr);
	if (!x_display) {
		*error = "cannot open " + process_xvfb().display();
		return false;
	}
	obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
	obs_set_nix_platform_display(x_display);

	if (!obs_startup("en-US", config_root.c_str(), nullptr)) {
		*error = "obs_startup failed";
		return false;
	}
	started_ = true;

	obs_audio_info audio = {};
	audio.samples_per_sec = 48000;
	audio.speakers = SPEAKERS_STEREO;
	if (!obs_reset_audio(&audio)) {
		*error = "obs_reset_audio failed";
		return false;
	}

	if (options.video) {
		obs_video_info video = {};
		video.graphics_module = "libobs-opengl";
		video.fps_num = options.fps_num;
		video.fps_den = options.fps_den;
		video.base_width = video.output_width = options.width;
		video.base_height = video.output_height = options.height;
		video.output_format = options.format;
		video.colorspace = options.colorspace;
		video.range = VIDEO_RANGE_PARTIAL;
		video.adapter = 0;
		video.gpu_conversion = true;
		video.scale_type = OBS_SCALE_BICUBIC;
		const int result = obs_reset_video(&video);
		if (result != OBS_VIDEO_SUCCESS) {
			*error = "obs_reset_video failed with " + std::to_string(result);
			return false;
		}
	}

	// Colour sources, to build scenes from.
	if (!load_host_module("image-source", error))
		return false;
	if (options.encoders && (!load_host_module("obs-x264", error) || !load_host_module("obs-ffmpeg", error)))
		return false;
	if (options.outputs && !load_host_module("obs-outputs", error))
		return false;

	// The plug-in finds its config folder through its module handle; a stub module of
	// the same name gives it a real one.
	obs_module_t *stub = nullptr;
	if (obs_open_module(&stub, CV_STUB_MODULE, CV_STUB_MODULE_DATA) != MODULE_SUCCESS) {
		*error = "cannot open the stub module " CV_STUB_MODULE;
		return false;
	}
	obs_module_set_pointer(stub);
	return true;
}

long HostSession::stop()
{
	long outstanding = 0;
	if (started_) {
		obs_module_set_pointer(nullptr);
		remove_public_sources();
		obs_shutdown();
		started_ = false;
		outstanding = bnum_allocs();
	}
	if (x_display) {
		XCloseDisplay(x_display);
		x_display = nullptr;
	}
	return outstanding;
}

} // namespace cvtest
