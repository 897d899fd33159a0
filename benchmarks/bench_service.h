#pragma once

#include "bench_util.h"
#include "stream_servers.h"

#include <obs.hpp>

#include <string>

// A minimal streaming service ("server" and "key" settings), so the host's own RTMP
// output can be started without the host's service list.
namespace cvbench {

inline constexpr const char *kBenchServiceId = "cv_bench_rtmp_service";

// How OBS's front end sets up reconnecting for the stream output when the user has not
// changed it (Settings > Advanced > Automatically Reconnect: on, Retry Delay 2 s, Maximum
// Retries 25; the same from OBS 29 to 32). libobs then waits the retry delay before
// the first attempt and half as long again before each further one.
inline constexpr int kHostRetryDelaySec = 2;
inline constexpr int kHostMaxRetries = 25;

void register_bench_service();

// The host's own "rtmp_output" on one of these services, sending the packets of the
// given encoders to server/key, with the front end's default reconnect settings.
// Both members are null when the host has no such output.
struct HostRtmpOutput {
	OBSServiceAutoRelease service;
	OBSOutputAutoRelease output; // released first: it uses the service
};

HostRtmpOutput make_host_rtmp_output(const std::string &server, const std::string &key, obs_encoder_t *video,
				     obs_encoder_t *audio);

// The plug-in's timed output and the host's own "rtmp_output" on the very same encoders,
// both sending to one nginx under two stream keys. Members go in reverse order: the
// host's output before the encoders it uses, the server last.
struct SideBySide {
	cvtest::RtmpServer server;
	cvtest::MuxPipeline pipeline{pipeline_options()};
	HostRtmpOutput host;

	// False, with the reason, when the server or either output cannot be made.
	bool make(const std::string &plugin_key, const std::string &host_key, std::string *error);
};

} // namespace cvbench
