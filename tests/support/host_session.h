#pragma once

#include <obs.h>

#include <cstdint>
#include <string>

namespace cvtest {

struct HostOptions {
	bool video = true; // false: start libobs without resetting video
	uint32_t width = 1920;
	uint32_t height = 1080;
	uint32_t fps_num = 60;
	uint32_t fps_den = 1;
	video_format format = VIDEO_FORMAT_NV12;
	video_colorspace colorspace = VIDEO_CS_709;
	bool encoders = true; // load the host's obs-x264 and obs-ffmpeg modules
	bool outputs = false; // load the host's obs-outputs module (its own RTMP output)
};

// Real libobs in this process, on the process's own Xvfb (OpenGL through EGL), with the
// host's image source and, when asked, its encoder modules, and a stub module named like
// the plug-in so the plug-in finds its config folder. One session at a time.
class HostSession {
public:
	HostSession() = default;
	~HostSession();
	HostSession(const HostSession &) = delete;
	HostSession &operator=(const HostSession &) = delete;

	// Module settings go below config_root. False, with a reason, when a step fails; what
	// was started is shut down by stop() or the destructor.
	bool start(const HostOptions &options, const std::string &config_root, std::string *error);
	// Removes the public sources (as the host program does before it shuts libobs down),
	// shuts libobs down and returns the libobs allocations still outstanding.
	long stop();

private:
	bool started_ = false;
};

// Ends the process's X server (started by the first session).
void stop_process_xvfb();

} // namespace cvtest
