#pragma once

// The plug-in's own output type: takes encoded H.264 and AAC packets from host encoders
// and hands them to a StreamSession, which sends them, FLV over RTMP or MPEG-TS over SRT,
// from a thread of its own. Nothing the host calls here waits for the network.

#include "stream_session.h"

#include <obs-module.h>

#include <chrono>

namespace cv {

inline constexpr const char *kMuxOutputId = "cv_vertical_mux_rtmp";

// The output type's description, as registered with the host.
obs_output_info mux_output_info();
// Registers the output type with the host.
void register_mux_output();

// What an instance reports about its newest stream (all zero when it has none): from
// the output, or from the data pointer the type's create callback returned.
SessionStats mux_output_stats(obs_output_t *output);
SessionStats mux_data_stats(void *data);
// Why the newest start failed or the newest stream stopped with an error; none while it
// did not.
Error mux_output_failure(obs_output_t *output);

// Waits until the streams of stopped outputs have sent their goodbyes or given up.
bool wait_for_mux_streams(std::chrono::milliseconds timeout);

} // namespace cv
