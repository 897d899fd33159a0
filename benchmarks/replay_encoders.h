#pragma once

#include "timed_mux_output.h"

#include <vector>

// Encoders that hand out packets recorded from the real ones, one for every frame the
// host gives them, and an output that takes packets and does nothing with them: so that
// different outputs can be fed the very same packets at the pace of a live stream, and
// what they cost be told apart from the encoding.
namespace cvbench {

inline constexpr const char *kReplayVideoId = "cv_bench_replay_video";
inline constexpr const char *kReplayAudioId = "cv_bench_replay_audio";
inline constexpr const char *kNullOutputId = "cv_bench_null_output";

void register_replay_types();

// What the replay encoders made from now on hand out (in a loop), with the recorded
// encoders' codec headers.
void set_replay(const std::vector<cvtest::RecordedPacket> &packets, const std::vector<uint8_t> &video_header,
		const std::vector<uint8_t> &audio_header);

} // namespace cvbench
