#pragma once

#include <obs.hpp>

#include <string>

// The host's own RTMP output and custom service as OBS's front end sets them up by default
// (reconnect on, retry delay 2 s, 25 retries). Needs HostOptions::outputs.
namespace cvtest {

struct HostRtmpOutput {
	OBSServiceAutoRelease service;
	OBSOutputAutoRelease output; // released first: it uses the service
};

// Both members are null when the host has no such output.
HostRtmpOutput make_host_rtmp_output(const std::string &server, const std::string &key, obs_encoder_t *video,
				     obs_encoder_t *audio);

} // namespace cvtest
