#pragma once

#include <gtest/gtest.h>
#include <obs.hpp>

#include <cstdint>
#include <string>
#include <vector>

// Real libobs in the test process on its own Xvfb, with the host's modules the test asks
// for and a stub module named like the plug-in (for its config folder and its texts, in
// English). The log is kept.
namespace cvtest {

struct HostOptions {
	bool video = true; // false: libobs without video
	uint32_t width = 1920;
	uint32_t height = 1080;
	uint32_t fps_num = 30;
	video_format format = VIDEO_FORMAT_NV12;
	video_colorspace colorspace = VIDEO_CS_709;
	bool encoders = true; // the host's obs-x264 and obs-ffmpeg modules
	bool outputs = false; // the host's obs-outputs and rtmp-services modules (its own RTMP output)
};

// libobs for one test; a reference leaked by the test or the plug-in fails it.
class HostTest : public ::testing::Test {
protected:
	virtual HostOptions host_options() const { return {}; }
	void SetUp() override;
	void TearDown() override;

	// Scratch folder of this test, removed afterwards (kept when CV_TEST_KEEP is set).
	const std::string &temp_dir() const { return temp_dir_; }
	// The plug-in's settings files; the stand-in front end reports profile_dir().
	std::string global_file() const
	{
		return temp_dir_ + "/plugin_config/corvane-vertical-canvas/settings-global.ini";
	}
	std::string profile_dir() const { return temp_dir_ + "/profile"; }
	std::string profile_file() const { return profile_dir() + "/corvane-vertical-canvas.ini"; }

private:
	std::string temp_dir_;
	bool started_ = false;
};

// libobs for a whole program (the benchmarks): module settings go below config_root.
bool start_host(const HostOptions &options, const std::string &config_root, std::string *error);
// Shuts libobs down and returns its allocations still outstanding.
long stop_host();
// Ends the process's X server (started with the host the first time).
void stop_process_xvfb();

// Lines the host logged during the current test that contain `text`.
size_t log_count(const std::string &text);

} // namespace cvtest
