#pragma once

#include "stream/mux_output.h"

#include <obs.h>

#include <cstdint>
#include <mutex>
#include <vector>

// The plug-in's output type under another id, with its encoded-packet callback timed:
// every call's duration is recorded, and a copy of each packet is kept so the same
// packets can be muxed again by other means.
namespace cvtest {

inline constexpr const char *kTimedMuxId = "cv_bench_timed_mux";

struct RecordedPacket {
	std::vector<uint8_t> data;
	int64_t pts = 0;
	int64_t dts = 0;
	int32_t timebase_num = 1;
	int32_t timebase_den = 1;
	bool video = false;
	bool keyframe = false;
	size_t track = 0;
};

struct CallbackTime {
	uint64_t started_ns; // steady clock
	uint64_t took_ns;    // wall time: how long the encoder thread was held
	uint64_t cpu_ns;     // the thread's CPU time: what the call itself cost
};

class TimedMux {
public:
	static void register_type();
	static TimedMux &instance();

	// Forgets what earlier runs recorded; `keep_packets` also copies every packet.
	void reset(bool keep_packets);
	std::vector<CallbackTime> times() const;
	std::vector<RecordedPacket> packets() const;
	// What the output's stream reports (all zero while there is none).
	cv::SessionStats stats() const;

	// Waits until the stream has sent everything queued so far.
	bool wait_queue_drained(int timeout_ms) const;
	// CPU time the stream threads of this process have used so far.
	static uint64_t stream_threads_cpu_ns();

private:
	static void *create(obs_data_t *settings, obs_output_t *output);
	static void destroy(void *data);
	static void encoded_packet(void *data, encoder_packet *packet);

	mutable std::mutex mutex_;
	void *mux_ = nullptr;
	bool keep_packets_ = false;
	std::vector<CallbackTime> times_;
	std::vector<RecordedPacket> packets_;
};

uint64_t steady_ns();
// CPU time the calling thread has used.
uint64_t thread_cpu_ns();

} // namespace cvtest
