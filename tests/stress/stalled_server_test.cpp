// A server that accepts the stream and then stops reading for a long while: the
// encoder thread must never wait for it, the write queue holds everything meanwhile
// (it is unbounded by design), and every queued byte is given back, whether the
// server resumes or the stream is stopped while it still hangs.

#include "stress_fixture.h"

#include "host_fixture.h"

#include "log_capture.h"
#include "mux_pipeline.h"
#include "process_stats.h"
#include "stream_servers.h"
#include "timed_mux_output.h"

#include "mux/mux_output.h"

#include <algorithm>
#include <cstdio>

namespace {

using cvtest::heap_in_use;
using cvtest::sleep_ms;
using cvtest::steady_ns;
using cvtest::TimedMux;

struct QueueState {
	size_t packets = 0;
	size_t bytes = 0;
};

QueueState queue_state()
{
	QueueState state;
	cv::MuxOutput *mux = TimedMux::instance().mux();
	if (!mux)
		return state;
	std::lock_guard lock(mux->queue_mutex);
	state.packets = mux->queue.size();
	for (const AVPacket *packet : mux->queue)
		state.bytes += size_t(packet->size);
	return state;
}

// Longest encoder-thread callback among those that began in [begin, end).
uint64_t longest_callback_ns(uint64_t begin, uint64_t end)
{
	uint64_t longest = 0;
	for (const cvtest::CallbackTime &time : TimedMux::instance().times())
		if (time.started_ns >= begin && time.started_ns < end)
			longest = std::max(longest, time.took_ns);
	return longest;
}

class StalledServerTest : public cvtest::HostTest {
protected:
	cvtest::HostOptions host_options() const override { return cvtest::stress_host_options(); }

	void SetUp() override
	{
		HostTest::SetUp();
		if (HasFatalFailure())
			return;
		cv::register_mux_output();
		TimedMux::register_type();
		TimedMux::instance().reset(false);
	}
};

TEST_F(StalledServerTest, EncoderThreadNeverWaitsAndTheQueueIsGivenBack)
{
	const int stall_s = cvtest::by_form(15, 60);
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;

	// A high bitrate fills the connection's socket buffers within a second or two, so
	// that the queue grows for most of the stall.
	cvtest::PipelineOptions options;
	options.width = 720;
	options.height = 1280;
	options.video_kbps = 6000;
	options.audio_tracks = 1;
	options.keyint_sec = 2;
	options.output_id = cvtest::kTimedMuxId;
	cvtest::MuxPipeline pipeline(options);
	ASSERT_TRUE(pipeline.create(server.app_url(), "stall"));
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(cvtest::wait_for_log("mux opened", 20000));
	sleep_ms(3000);

	// Stall while live. The connection's socket buffers take the stream's first
	// megabytes (how many depends on the kernel's autotuning); the stall counted here
	// begins once the queue starts to grow.
	const size_t heap_before = heap_in_use();
	server.pause();
	for (int waited = 0; waited < 60000 && queue_state().packets < 30; waited += 100)
		sleep_ms(100);
	ASSERT_GE(queue_state().packets, 30u) << "the socket buffers took a minute of stream";
	const uint64_t stall_begin = steady_ns();
	sleep_ms(stall_s * 1000);
	const uint64_t stall_end = steady_ns();
	const QueueState stalled = queue_state();
	const size_t heap_stalled = heap_in_use();
	const uint64_t longest_stalled = longest_callback_ns(stall_begin, stall_end);

	// The encoder thread went on at its own pace (a wait for the network would
	// show as a callback as long as the stall); the queue holds most of the stall.
	EXPECT_LT(longest_stalled, 1000000000u) << "an encoder-thread callback waited during the stall";
	EXPECT_GE(stalled.packets, size_t(stall_s * 30 * 8 / 10)) << "video frames of the stall should be queued";
	EXPECT_GE(stalled.bytes, size_t(stall_s) * 6000 * 1000 / 8 / 2);
	EXPECT_GE(heap_stalled, heap_before + stalled.bytes * 8 / 10) << "the queue's packets live on the heap";
	EXPECT_TRUE(obs_output_active(pipeline.output()));

	// The server reads again: the queue drains over the same connection.
	server.resume();
	EXPECT_TRUE(TimedMux::instance().wait_queue_drained(stall_s * 2000 + 20000));
	sleep_ms(1000);
	const size_t heap_drained = heap_in_use();
	EXPECT_LT(heap_drained, heap_before + stalled.bytes / 4) << "the drained queue's memory was not given back";
	EXPECT_EQ(cvtest::log_count("entering reconnect mode"), 0u);

	// Stall again and stop while the server still hangs: the stop cuts the blocked
	// write short, discards the queue and gives its memory back.
	// Socket buffers grown by the first stall take a while to fill again.
	server.pause();
	QueueState discarded;
	for (int waited = 0; waited < 60000 && discarded.packets < 150; waited += 100) {
		sleep_ms(100);
		discarded = queue_state();
	}
	EXPECT_GE(discarded.packets, 150u);
	const uint64_t stop_begin = steady_ns();
	pipeline.stop();
	const double stop_s = double(steady_ns() - stop_begin) / 1e9;
	EXPECT_LT(stop_s, 10.0) << "the stop waited for the stalled server";
	EXPECT_FALSE(obs_output_active(pipeline.output()));
	EXPECT_EQ(queue_state().packets, 0u);
	sleep_ms(500);
	const size_t heap_stopped = heap_in_use();
	EXPECT_LT(heap_stopped, heap_before + discarded.bytes / 4) << "the discarded queue's memory was not given back";
	server.resume();

	fprintf(stderr,
		"stall %d s: %zu packets / %.1f MB queued, heap +%.1f MB; longest callback %.2f ms; "
		"after drain heap %+.1f MB; stop with %zu queued took %.2f s, heap %+.1f MB\n",
		stall_s, stalled.packets, double(stalled.bytes) / 1e6,
		(double(heap_stalled) - double(heap_before)) / 1e6, double(longest_stalled) / 1e6,
		(double(heap_drained) - double(heap_before)) / 1e6, discarded.packets, stop_s,
		(double(heap_stopped) - double(heap_before)) / 1e6);
}

} // namespace
