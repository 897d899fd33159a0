// A server that stops reading, behind a link only twice as wide as the stream: the
// encoder thread never waits for it, the queue stays under its cap however long the
// stall, and afterwards the stream is live again instead of a backlog behind.

#include "stress_fixture.h"

#include "host_fixture.h"
#include "media_packets.h"
#include "mux_pipeline.h"
#include "process_stats.h"
#include "stream_servers.h"
#include "tcp_relay.h"
#include "timed_mux_output.h"
#include "wait.h"

#include "mux/mux_output.h"

#include <algorithm>
#include <cstdio>

namespace {

using cvtest::sleep_ms;
using cvtest::steady_ns;
using cvtest::TimedMux;

constexpr int kVideoKbps = 6000;
constexpr int kAudioKbps = 160;
// The plug-in's own cap for this stream: four seconds of it, two MiB at least.
constexpr size_t kQueueCap = std::max<size_t>(size_t(2) << 20, (kVideoKbps + kAudioKbps) * 1000 / 8 * 4);

struct StallFigures {
	size_t queued_bytes = 0;
	int64_t queued_usec = 0;
	size_t heap_growth = 0;
	uint64_t longest_callback_ns = 0;
};

// Samples the stream while the relay holds everything back for `seconds`.
StallFigures stall(cvtest::TcpRelay &relay, int seconds)
{
	StallFigures figures;
	const size_t heap_before = cvtest::heap_in_use();
	const uint64_t begin = steady_ns();
	relay.pause();
	while (steady_ns() - begin < uint64_t(seconds) * 1000000000u) {
		sleep_ms(200);
		const cv::SessionStats stats = TimedMux::instance().stats();
		figures.queued_bytes = std::max(figures.queued_bytes, stats.queued_bytes);
		figures.queued_usec = std::max(figures.queued_usec, stats.queued_usec);
		const size_t heap = cvtest::heap_in_use();
		figures.heap_growth = std::max(figures.heap_growth, heap > heap_before ? heap - heap_before : 0);
	}
	for (const cvtest::CallbackTime &time : TimedMux::instance().times())
		if (time.started_ns >= begin)
			figures.longest_callback_ns = std::max(figures.longest_callback_ns, time.took_ns);
	relay.resume();
	return figures;
}

void expect_within_cap(const StallFigures &figures)
{
	EXPECT_LE(figures.queued_bytes, kQueueCap);
	EXPECT_LE(figures.queued_usec, 4200000) << "the queue holds more than four seconds";
	EXPECT_LE(figures.heap_growth, kQueueCap + (size_t(4) << 20)) << "memory grew past the queue's cap";
	EXPECT_LT(figures.longest_callback_ns, 500000000u) << "an encoder-thread callback waited for the stall";
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

TEST_F(StalledServerTest, TheQueueStaysUnderItsCapAndTheStreamComesBackLive)
{
	cvtest::RtmpServer server;
	cvtest::TcpRelay relay;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	ASSERT_TRUE(relay.start(server.port(), &error)) << error;
	relay.limit_rate(2 * (kVideoKbps + kAudioKbps) * 1000 / 8);

	cvtest::PipelineOptions options;
	options.width = 720;
	options.height = 1280;
	options.video_kbps = kVideoKbps;
	options.audio_tracks = 1;
	options.keyint_sec = 2;
	options.output_id = cvtest::kTimedMuxId;
	cvtest::MuxPipeline pipeline(options);
	ASSERT_TRUE(pipeline.create("rtmp://127.0.0.1:" + std::to_string(relay.port()) + "/live", "stall"));
	const uint64_t started = steady_ns();
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(pipeline.wait_connected(20000));
	sleep_ms(3000);

	// A stall shorter than the write deadline: the connection survives it, frames are
	// dropped, and what is left of the queue goes out soon after.
	const StallFigures brief = stall(relay, 7);
	expect_within_cap(brief);
	sleep_ms(8000);
	cv::SessionStats stats = pipeline.stats();
	EXPECT_TRUE(stats.connected);
	EXPECT_EQ(stats.reconnects, 0u);
	EXPECT_GT(stats.dropped.video_frames, 0u);
	std::vector<std::string> recordings = server.recordings("stall");
	ASSERT_EQ(recordings.size(), 1u);
	const cvtest::MediaPackets packets = cvtest::read_packets(recordings[0]);
	ASSERT_NE(packets.first("video"), nullptr) << packets.error;
	const double behind = double(steady_ns() - started) / 1e9 - packets.first("video")->packets.back().pts;
	EXPECT_LT(behind, 3.0) << "the server is this many seconds behind the encoder after the stall";

	// A long stall: the connection gives up after ten seconds without progress, the
	// queue keeps only the newest pictures, and a new connection starts with them once
	// the server reads again.
	const int long_stall_s = 60;
	const StallFigures longer = stall(relay, long_stall_s);
	expect_within_cap(longer);
	EXPECT_TRUE(obs_output_active(pipeline.output()));
	ASSERT_TRUE(cvtest::wait_until([&] { return pipeline.stats().reconnects > 0 && pipeline.stats().connected; },
				       40000));
	sleep_ms(4000);
	stats = pipeline.stats();
	pipeline.stop();
	server.stop();
	// Attempts that the server saw but that timed out meanwhile leave recordings too.
	recordings = server.recordings("stall");
	ASSERT_GE(recordings.size(), 2u);
	const cvtest::StreamCheck check = cvtest::check_stream(recordings.back());
	EXPECT_EQ(check.error, "");
	EXPECT_TRUE(check.starts_with_keyframe);
	EXPECT_GE(check.video_seconds, 3.0);

	fprintf(stderr,
		"stall 7 s: queue at most %.2f MB / %.1f s, heap +%.1f MB, longest callback %.2f ms, %.1f s behind after\n"
		"stall %d s: queue at most %.2f MB / %.1f s, heap +%.1f MB, longest callback %.2f ms; cap %.2f MB\n",
		double(brief.queued_bytes) / 1e6, double(brief.queued_usec) / 1e6, double(brief.heap_growth) / 1e6,
		double(brief.longest_callback_ns) / 1e6, behind, long_stall_s, double(longer.queued_bytes) / 1e6,
		double(longer.queued_usec) / 1e6, double(longer.heap_growth) / 1e6,
		double(longer.longest_callback_ns) / 1e6, double(kQueueCap) / 1e6);
}

} // namespace
