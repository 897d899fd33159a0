#pragma once

#include <obs.hpp>

#include <string>

// The host's own RTMP output on its own custom service, set up the way OBS's front end sets
// up its stream output when the user has not changed it (Settings > Advanced >
// Automatically Reconnect: on, Retry Delay 2 s, Maximum Retries 25; the same from OBS 29
// to 32). Needs the host's outputs and services modules (HostOptions::outputs).
namespace cvtest {

struct HostRtmpOutput {
	OBSServiceAutoRelease service;
	OBSOutputAutoRelease output; // released first: it uses the service
};

// Both members are null when the host has no such output.
HostRtmpOutput make_host_rtmp_output(const std::string &server, const std::string &key, obs_encoder_t *video,
				     obs_encoder_t *audio);

} // namespace cvtest
