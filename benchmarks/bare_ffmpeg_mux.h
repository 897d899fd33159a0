#pragma once

#include "timed_mux_output.h"

#include <string>
#include <vector>

// The reference: the same packets muxed with nothing but FFmpeg's own calls, the way
// a program without a write queue would do it, one packet after the other.
namespace cvbench {

using cvtest::RecordedPacket;

struct BareStreams {
	int width = 0;
	int height = 0;
	std::vector<uint8_t> video_extradata;
	int sample_rate = 48000;
	int channels = 2;
	std::vector<uint8_t> audio_extradata;
};

struct BareResult {
	uint64_t packet_cpu_ns = 0; // CPU time spent on the packets (copy, timestamps, write)
	size_t packets = 0;
};

// Writes the video packets and those of audio track 0 as FLV to `url` (header and
// trailer are not timed). False, with a reason, when FFmpeg refuses a step.
bool mux_with_bare_ffmpeg(const std::vector<RecordedPacket> &packets, const BareStreams &streams,
			  const std::string &url, BareResult *result, std::string *error);

} // namespace cvbench
