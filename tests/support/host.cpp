#include "host.h"

#include "frontend.h"
#include "process.h"

#include <obs-module.h>
#include <obs-nix-platform.h>
#include <util/base.h>
#include <util/bmem.h>

#include <X11/Xlib.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <poll.h>
#include <unistd.h>

// The plug-in's own entry point, linked into the test program.
extern "C" void obs_module_set_pointer(obs_module_t *module);

namespace cvtest {

namespace {

std::mutex log_mutex;
std::vector<std::string> log_lines;

void capture_log(int level, const char *format, va_list args, void *)
{
	char line[8192];
	vsnprintf(line, sizeof(line), format, args);
	std::lock_guard lock(log_mutex);
	log_lines.emplace_back(line);
	static const bool verbose = getenv("CV_TEST_VERBOSE") != nullptr;
	if (verbose || level <= LOG_ERROR)
		fprintf(stderr, "[obs %d] %s\n", level, line);
}

// FFmpeg's own messages, as many as its log level lets through (the host shows them or
// they go to stderr), are kept with the host's lines, so that a test can look for
// secrets in both.
void capture_ffmpeg_log(void *context, int level, const char *format, va_list args)
{
	va_list copy;
	va_copy(copy, args);
	av_log_default_callback(context, level, format, copy);
	va_end(copy);
	if (level > av_log_get_level())
		return;
	char line[8192];
	int prefix = 1;
	av_log_format_line(context, level, format, args, line, sizeof(line), &prefix);
	std::lock_guard lock(log_mutex);
	log_lines.emplace_back(std::string("[ffmpeg] ") + line);
}

ChildProcess &xvfb()
{
	static ChildProcess process;
	return process;
}

// Starts the process's Xvfb, which names its display once it accepts connections.
bool start_xvfb(std::string *error)
{
	if (xvfb().running())
		return true;
	const std::string file = make_temp_dir("cv-xvfb-") + "/display";
	if (!xvfb().start({"Xvfb", "-displayfd", "1", "-screen", "0", "1280x1024x24", "-nolisten", "tcp", "-noreset"},
			  file, error, "/dev/null"))
		return false;
	std::string number;
	for (int i = 0; i < 1500 && (number.empty() || number.back() != '\n'); i++) {
		usleep(10000);
		number = read_file(file);
	}
	std::filesystem::remove_all(std::filesystem::path(file).parent_path());
	if (number.empty() || number.back() != '\n') {
		*error = "Xvfb did not name its display";
		return false;
	}
	number.pop_back();
	setenv("DISPLAY", (":" + number).c_str(), 1);
	return true;
}

Display *x_display = nullptr;

bool load_host_module(const char *name, std::string *error)
{
	obs_module_t *module = nullptr;
	const std::string bin = std::string(CV_HOST_PLUGIN_DIR) + "/" + name + ".so";
	const std::string data = std::string(CV_HOST_PLUGIN_DATA_DIR) + "/" + name;
	if (obs_open_module(&module, bin.c_str(), data.c_str()) != MODULE_SUCCESS || !obs_init_module(module)) {
		*error = "cannot load the host's " + bin;
		return false;
	}
	return true;
}

class XvfbEnvironment : public ::testing::Environment {
public:
	void TearDown() override { stop_process_xvfb(); }
};
const auto *const xvfb_environment = ::testing::AddGlobalTestEnvironment(new XvfbEnvironment);

} // namespace

bool start_host(const HostOptions &options, const std::string &config_root, std::string *error)
{
	if (!start_xvfb(error))
		return false;
	x_display = XOpenDisplay(nullptr);
	if (!x_display) {
		*error = "cannot open the X display";
		return false;
	}
	obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
	obs_set_nix_platform_display(x_display);
	if (!obs_startup("en-US", config_root.c_str(), nullptr)) {
		*error = "obs_startup failed";
		return false;
	}
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
		video.fps_den = 1;
		video.base_width = video.output_width = options.width;
		video.base_height = video.output_height = options.height;
		video.output_format = options.format;
		video.colorspace = options.colorspace;
		video.range = VIDEO_RANGE_PARTIAL;
		video.gpu_conversion = true;
		video.scale_type = OBS_SCALE_BICUBIC;
		if (obs_reset_video(&video) != OBS_VIDEO_SUCCESS) {
			*error = "obs_reset_video failed";
			return false;
		}
	}
	if (!load_host_module("image-source", error) || !load_host_module("obs-transitions", error) ||
	    (options.encoders && (!load_host_module("obs-x264", error) || !load_host_module("obs-ffmpeg", error))) ||
	    (options.outputs && (!load_host_module("obs-outputs", error) || !load_host_module("rtmp-services", error))))
		return false;
	// The plug-in finds its config folder through its module handle; a stub module of
	// the same name gives it one, and its texts through the stub's data folder.
	obs_module_t *stub = nullptr;
	if (obs_open_module(&stub, CV_STUB_MODULE, CV_STUB_MODULE_DATA) != MODULE_SUCCESS) {
		*error = "cannot open the stub module " CV_STUB_MODULE;
		return false;
	}
	obs_module_set_pointer(stub);
	obs_module_set_locale("en-US");
	return true;
}

// As the host program does: public sources removed first (newer hosts count one never
// removed as leaked).
long stop_host()
{
	obs_module_free_locale();
	obs_module_set_pointer(nullptr);
	std::vector<OBSSource> sources;
	auto collect = [](void *param, obs_source_t *source) {
		static_cast<std::vector<OBSSource> *>(param)->emplace_back(source);
		return true;
	};
	obs_enum_scenes(collect, &sources);
	obs_enum_sources(collect, &sources);
	for (obs_source_t *source : sources)
		obs_source_remove(source);
	sources.clear();
	obs_shutdown();
	if (x_display)
		XCloseDisplay(x_display);
	x_display = nullptr;
	return bnum_allocs();
}

void stop_process_xvfb()
{
	xvfb().terminate(2000);
}

void HostTest::SetUp()
{
	temp_dir_ = make_temp_dir("cv-host-test-");
	ASSERT_FALSE(temp_dir_.empty());
	base_set_log_handler(capture_log, nullptr);
	av_log_set_callback(capture_ffmpeg_log);
	{
		std::lock_guard lock(log_mutex);
		log_lines.clear();
	}
	frontend::reset();
	frontend::set_profile_dir(profile_dir());
	std::string error;
	started_ = start_host(host_options(), temp_dir_ + "/plugin_config", &error);
	ASSERT_TRUE(started_) << error;
}

void HostTest::TearDown()
{
	// The stand-in front end holds the scene collection it saved.
	frontend::reset();
	EXPECT_TRUE(!started_ || stop_host() == 0) << "libobs allocations still outstanding after shutdown";
	if (!getenv("CV_TEST_KEEP"))
		std::filesystem::remove_all(temp_dir_);
}

size_t log_count(const std::string &text)
{
	std::lock_guard lock(log_mutex);
	return size_t(std::count_if(log_lines.begin(), log_lines.end(),
				    [&](const std::string &line) { return line.find(text) != std::string::npos; }));
}

} // namespace cvtest
