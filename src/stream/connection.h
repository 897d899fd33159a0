#pragma once

// One connection of the vertical stream to its server: FFmpeg's RTMP or SRT protocol
// with its FLV or MPEG-TS muxer, RTMP over TLS only to a server whose certificate passes. Every call may wait for the network, so only the
// stream's own thread makes them, and each gives up once its IoDeadline has passed.

#include "send_queue.h"

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace cv {

inline constexpr size_t kAudioSlots = 6;

// FFmpeg's FLV muxer writes several audio tracks from version 8 on (libavformat 62);
// before, it takes a single one.
inline constexpr bool kFlvCarriesAllAudioTracks = LIBAVFORMAT_VERSION_MAJOR >= 62;

// Where the stream goes.
struct Destination {
	std::string url;     // stream key included
	std::string tc_url;  // the RTMP application address; empty for SRT
	std::string log_url; // the address as a log may show it
	bool srt = false;
	std::string problem; // why the key cannot be sent as entered, when it cannot
};

// What the streams of every connection are built from: the canvas and the encoders'
// codec headers.
struct StreamLayout {
	uint32_t width = 0;
	uint32_t height = 0;
	AVRational fps = {30, 1};
	int sample_rate = 48000;
	std::vector<uint8_t> video_header;
	// One per audio track slot; an empty header leaves the track out.
	std::array<std::vector<uint8_t>, kAudioSlots> audio_headers;
};

// When the blocking FFmpeg calls of a connection give up: FFmpeg asks it between the
// steps of every network wait (at least every 100 ms), several times a packet, so it
// reads the kernel's coarse clock (a few milliseconds fine), the cheapest there is.
class IoDeadline {
public:
	// From now on, calls give up after `budget`, or at the cut when that comes sooner.
	void arm(std::chrono::milliseconds budget);
	// Calls give up `budget` from now at the latest, whatever is armed later.
	void cut(std::chrono::milliseconds budget);
	bool passed() const;
	AVIOInterruptCB callback() { return {interrupted, this}; }

private:
	static int interrupted(void *self);
	std::atomic<int64_t> deadline_ns_{INT64_MAX};
	std::atomic<int64_t> limit_ns_{INT64_MAX};
};

class Connection {
public:
	Connection(const Destination &destination, IoDeadline &deadline);
	~Connection();
	Connection(const Connection &) = delete;
	Connection &operator=(const Connection &) = delete;

	// Name lookup, connect, handshake and, for RTMP, the publish. False with the reason;
	// when that is the certificate of an RTMPS server, `untrusted` says what is wrong with
	// it, and the server got nothing but the TLS handshake.
	bool open(std::string *error, std::string *untrusted);
	// The streams and the container header.
	bool start(const StreamLayout &layout, std::string *error);
	// Sends one packet, its timestamps in its own time base: every stream is timed from
	// the first keyframe this connection sends. 0, or FFmpeg's error.
	int write(QueuedPacket &queued);
	// Trailer and, for RTMP, the unpublish; best effort within the deadline.
	void finish();

	uint64_t bytes_written() const { return bytes_written_; }
	// The first error of the byte stream, which FFmpeg keeps; 0 while it works.
	int stream_error() const { return io_ ? io_->error : 0; }

private:
	bool check_server(AVDictionary **options, std::string *error, std::string *untrusted);
	bool shape_video(AVPacket *packet, bool keyframe);
	void close_io();

	Destination destination_;
	IoDeadline &deadline_;
	AVIOInterruptCB interrupt_;
	AVIOContext *io_ = nullptr;
	AVFormatContext *format_ = nullptr;
	AVStream *video_stream_ = nullptr;
	std::array<AVStream *, kAudioSlots> audio_streams_{};
	AVBSFContext *annexb_filter_ = nullptr;
	std::vector<uint8_t> parameter_sets_;
	std::vector<uint8_t> scratch_;
	bool header_written_ = false;

	// The dts the first keyframe had, in its own time base; every stream is timed from it.
	bool clock_started_ = false;
	int64_t base_dts_ = 0;
	AVRational base_time_base_ = {1, 1};
	int64_t video_duration_ = 1;
	int64_t audio_duration_ = 1;
	std::vector<int64_t> last_dts_;
	uint64_t bytes_written_ = 0;
};

// An FFmpeg error code as text.
std::string error_text(int code);

} // namespace cv
