#pragma once

#include <obs.hpp>

#include <string>

// The host's own "rtmp_output" on a minimal streaming service ("server" and "key"
// settings), so tests and benchmarks can run it without the host's service list.
namespace cvtest {

inline constexpr const char *kTestServiceId = "cv_test_rtmp_service";

// How OBS's front end sets up reconnecting for the stream output when the user has not
// changed it (Settings > Advanced > Automatically Reconnect: on, Retry Delay 2 s, Maximum
// Retries 25; the same from OBS 29 to 32). libobs then waits the retry delay before
// the first attempt and half as long again before each further one.
inline constexpr int kHostRetryDelaySec = 2;
inline constexpr int kHostMaxRetries = 25;

void register_test_service();

// The host's own "rtmp_output" on one of these services, sending the packets of the
// given encoders to server/key, with the front end's default reconnect settings.
// Both members are null when the host has no such output.
struct HostRtmpOutput {
	OBSServiceAutoRelease service;
	OBSOutputAutoRelease output; // released first: it uses the service
};

HostRtmpOutput make_host_rtmp_output(const std::string &server, const std::string &key, obs_encoder_t *video,
				     obs_encoder_t *audio);

} // namespace cvtest
