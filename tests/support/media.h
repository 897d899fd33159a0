#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What a server recorded: every packet's timestamps (read with libavformat), whether the
// whole recording decodes and what a picture shows (the ffmpeg program).
namespace cvtest {

struct MediaPacket {
	double pts = 0; // seconds
	double dts = 0;
	bool key = false;
};

struct MediaStream {
	std::string type;                 // "video", "audio"
	std::vector<MediaPacket> packets; // in file order
};

struct MediaPackets {
	std::string error; // empty when the file could be read
	std::vector<MediaStream> streams;
	std::vector<uint8_t> first_video_bytes; // as the demuxer hands them out

	const MediaStream *first(const std::string &type) const;
};

MediaPackets read_packets(const std::string &path);

// What a recording says about the stream in it.
struct StreamCheck {
	std::string error; // what the demuxer or the decoder said; empty when the stream is clean
	size_t video_packets = 0;
	size_t audio_streams = 0;
	bool starts_with_keyframe = false;
	bool audio_before_video = false; // some audio comes before the first video frame
	// In every stream decode times strictly increase and no packet is presented before
	// it is decoded; no two video frames share a presentation time.
	bool dts_increasing = true;
	bool pts_not_before_dts = true;
	bool unique_video_pts = true;
	double video_seconds = 0; // from the first presented frame to the last
	double longest_gap = 0;   // between packets that follow each other in decoding order
};

StreamCheck check_stream(const std::string &path);

// The first picture at or after `at_seconds` as packed RGB24 rows, in the colours the
// stream signals; empty when there is none.
std::vector<uint8_t> decode_frame_rgb(const std::string &path, double at_seconds);

// The first audio track, mixed down to mono at `rate` samples a second.
std::vector<float> decode_audio(const std::string &path, int rate);

} // namespace cvtest
