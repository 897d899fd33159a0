#pragma once

// The plug-in's own output type: takes encoded H.264 and AAC packets from host
// encoders and muxes them with FFmpeg, FLV over RTMP or MPEG-TS over SRT, from a
// write thread of its own so the encoder thread never waits for the network.

#include <obs-module.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace cv {

inline constexpr const char *kMuxOutputId = "cv_vertical_mux_rtmp";
inline constexpr size_t kMuxAudioSlots = 6;

// Result of opening the muxer.
enum OpenResult : int32_t {
	kOpened = 0,
	kNotReady = 1,  // codec headers missing; try again with a later packet
	kOpenFatal = 2, // the output's last error says why
};

// A copy of an encoder packet, held until the muxer can open.
struct PendingPacket {
	uint8_t *data = nullptr; // host allocator
	size_t size = 0;
	int64_t pts = 0;
	int64_t dts = 0;
	int32_t timebase_num = 0;
	int32_t timebase_den = 1;
	bool keyframe = false;
	bool held = false;

	void hold(const encoder_packet &packet);
	void release();
};

struct MuxOutput {
	obs_output_t *output = nullptr;

	// Guarded by `lock`.
	std::string server;
	std::string key;
	std::string url;
	std::string tc_url;
	std::mutex lock;
	bool active = false;
	bool fatal = false;

	// Write queue: `running` and the queue are guarded by `queue_mutex`.
	std::deque<AVPacket *> queue;
	std::mutex queue_mutex;
	std::condition_variable queue_cv;
	bool running = false;
	std::thread writer;
	// Bumped at every opening, so a writer can tell whether it still serves the
	// muxer it was started for.
	uint64_t generation = 0;
	// Set while closing to interrupt network I/O that would otherwise wait for a
	// stalled or unreachable server.
	std::atomic<bool> abort_io{false};
	std::atomic<bool> writer_finished{true};

	// FFmpeg state, guarded by `lock` (the writer only uses `format` while running).
	AVFormatContext *format = nullptr;
	AVStream *video_stream = nullptr;
	std::array<AVStream *, kMuxAudioSlots> audio_streams{};
	AVStream *first_audio_stream = nullptr;
	size_t audio_stream_count = 0;
	AVBSFContext *annexb_filter = nullptr;

	uint32_t fps_num = 30;
	uint32_t fps_den = 1;

	// Timestamps, in stream time base.
	int64_t last_video_dts = AV_NOPTS_VALUE;
	int64_t last_video_pts = AV_NOPTS_VALUE;
	std::array<int64_t, kMuxAudioSlots> last_audio_dts{};
	int64_t base_pts = AV_NOPTS_VALUE;
	int64_t base_dts = AV_NOPTS_VALUE;
	std::array<int64_t, kMuxAudioSlots> first_audio_pts{};
	std::array<int64_t, kMuxAudioSlots> first_audio_dts{};

	// Start gating.
	uint32_t keyframe_seen = 0;
	bool video_started = false;
	bool audio_allowed = false;
	bool srt_clean_start_pending = false;
	bool clean_start_armed = false;

	PendingPacket pending_video;
	std::array<PendingPacket, kMuxAudioSlots> pending_audio;

	// Reconnect mode.
	bool reconnecting = false;
	uint64_t next_retry_ns = 0;
	uint32_t retry_count = 0;

	MuxOutput();
	MuxOutput(const MuxOutput &) = delete;
	MuxOutput &operator=(const MuxOutput &) = delete;
};

// The output type's description, as registered with the host.
obs_output_info mux_output_info();
// Registers the output type with the host.
void register_mux_output();

// Internal steps, shared by the files of this output. Callers hold `lock` unless
// said otherwise.
void rebuild_url(MuxOutput &mux);
void reset_stream_state(MuxOutput &mux);
void release_pending(MuxOutput &mux);
// Fatal failures while preparing packets: last error, then stop with an error.
void fail_output(MuxOutput &mux, const char *error);

int32_t open_muxer(MuxOutput &mux);
// Releases `lock` while it waits for the write thread, which may need the lock to
// finish; the lock is held again on return.
void close_muxer(MuxOutput &mux, std::unique_lock<std::mutex> &lock);
// The part of closing after the writer has stopped: trailer, connection, streams.
void free_muxer(MuxOutput &mux);

void process_video_packet(MuxOutput &mux, const uint8_t *data, size_t size, int64_t pts, int64_t dts, int32_t tb_num,
			  int32_t tb_den, bool keyframe);
void process_audio_packet(MuxOutput &mux, size_t slot, const uint8_t *data, size_t size, int64_t pts, int64_t dts,
			  int32_t tb_num, int32_t tb_den);
int enqueue_packet(MuxOutput &mux, AVPacket *packet, bool is_video);

// The write thread; takes no lock but `queue_mutex`, and `lock` on a lost connection.
void write_thread_loop(MuxOutput *mux, uint64_t generation);
void start_writer(MuxOutput &mux);

void cv_mux_encoded_packet(void *data, encoder_packet *packet);

} // namespace cv
