#pragma once

#include "bench_util.h"
#include "host_rtmp_output.h"
#include "servers.h"

#include <string>

namespace cvbench {

using cvtest::HostRtmpOutput;
using cvtest::make_host_rtmp_output;

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
