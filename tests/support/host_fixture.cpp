#include "host_fixture.h"

#include "fake_frontend.h"
#include "log_capture.h"
#include "xvfb.h"

#include <obs-module.h>
#include <obs.hpp>
#include <obs-nix-platform.h>
#include <util/bmem.h>

#include <X11/Xlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

// Provided by the plug-in's own entry points, linked into the test.
extern "C" void obs_module_set_pointer(obs_module_t *module);

namespace cvtest {

namespace {

// One X server per test process, started by the first test that needs it.
Xvfb &process_xvfb()
{
	static Xvfb xvfb;
	return xvfb;
}

class XvfbEnvironment : public ::testing::Environment {
public:
	void TearDown() override { process_xvfb().stop(); }
};
const auto *const xvfb_environment = ::testing::AddGlobalTestEnvironment(new XvfbEnvironment);

Display *x_display = nullptr;

void load_host_module(const char *name)
{
	obs_module_t *module = nullptr;
	const std::string bin = std::string(CV_HOST_PLUGIN_DIR) + "/" + name + ".so";
	const std::string data = std::string(CV_HOST_PLUGIN_DATA_DIR) + "/" + name;
	ASSERT_EQ(obs_open_module(&module, bin.c_str(), data.c_str()), MODULE_SUCCESS) << bin;
	ASSERT_TRUE(obs_init_module(module)) << name;
}

// What the host program does with the user's scenes and sources before it shuts
// libobs down; newer hosts keep a source that was never removed until shutdown and
// count it as leaked.
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

std::string HostTest::global_config_file() const
{
	return module_config_root() + "/corvane-vertical-canvas/settings-global.ini";
}

void HostTest::write_file(const std::string &path, const std::string &text)
{
	std::filesystem::create_directories(std::filesystem::path(path).parent_path());
	std::ofstream(path, std::ios::binary) << text;
}

std::string HostTest::read_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	std::stringstream text;
	text << in.rdbuf();
	return text.str();
}

void HostTest::SetUp()
{
	char pattern[] = "/tmp/cv-host-test-XXXXXX";
	ASSERT_NE(mkdtemp(pattern), nullptr);
	temp_dir_ = pattern;

	if (process_xvfb().display().empty()) {
		std::string error;
		ASSERT_TRUE(process_xvfb().start(&error)) << error;
	}

	install_log_capture();
	clear_logs();
	frontend::reset();

	const HostOptions options = host_options();

	x_display = XOpenDisplay(nullptr);
	ASSERT_NE(x_display, nullptr) << "cannot open " << process_xvfb().display();
	obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
	obs_set_nix_platform_display(x_display);

	ASSERT_TRUE(obs_startup("en-US", module_config_root().c_str(), nullptr));
	started_ = true;

	obs_audio_info audio = {};
	audio.samples_per_sec = 48000;
	audio.speakers = SPEAKERS_STEREO;
	ASSERT_TRUE(obs_reset_audio(&audio));

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
		ASSERT_EQ(obs_reset_video(&video), OBS_VIDEO_SUCCESS);
	}

	// Colour sources, to build scenes from.
	load_host_module("image-source");
	if (options.encoders) {
		load_host_module("obs-x264");
		load_host_module("obs-ffmpeg");
	}

	// The plug-in finds its config folder through its module handle; a stub module of
	// the same name gives it a real one.
	obs_module_t *stub = nullptr;
	ASSERT_EQ(obs_open_module(&stub, CV_STUB_MODULE, CV_STUB_MODULE_DATA), MODULE_SUCCESS);
	obs_module_set_pointer(stub);
}

void HostTest::TearDown()
{
	if (started_) {
		obs_module_set_pointer(nullptr);
		remove_public_sources();
		obs_shutdown();
		started_ = false;
		EXPECT_EQ(bnum_allocs(), 0) << "libobs allocations still outstanding after shutdown";
	}
	if (x_display) {
		XCloseDisplay(x_display);
		x_display = nullptr;
	}
	if (!temp_dir_.empty() && !getenv("CV_TEST_KEEP"))
		std::filesystem::remove_all(temp_dir_);
}

} // namespace cvtest
