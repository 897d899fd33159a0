// Servers that die and servers that stop reading, in the middle of a stream. Short form
// by default; CV_STRESS_LONG=1 in the environment runs the long form.

#include "host.h"
#include "media.h"
#include "pipeline.h"
#include "process.h"
#include "servers.h"
#include "wait.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "stream/mux_output.h"

#include <media-io/video-io.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

using cvtest::sleep_ms;

int by_form(int short_form, int long_form)
{
	const char *value = std::getenv("CV_STRESS_LONG");
	return value && *value && std::string(value) != "0" ? long_form : short_form;
}

double seconds_since(std::chrono::steady_clock::time_point start)
{
	return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class ServerFaultsTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		cv::register_mux_output();
	}
};

// Kills the server `rounds` times while the output streams to it, keeps it down long
// enough for a retry or more to fail, and brings it back.
template<typename Server>
void kill_and_restart(Server &server, const std::string &url, int rounds, int down_ms,
		      const std::function<std::vector<std::string>()> &recordings)
{
	cv::VerticalCanvas canvas(cv::CanvasConfig{360, 640, 30, 1, true});
	ASSERT_TRUE(canvas.init());
	cv::VerticalOutput output(&canvas, cv::OutputConfig{{{"", url, "again", true, {}}}, 800});
	ASSERT_TRUE(output.init());
	ASSERT_FALSE(output.start());
	auto wait_for_recordings = [&](size_t count) {
		return cvtest::wait_until([&] { return recordings().size() >= count; }, 45000, 50);
	};
	for (int round = 1; round <= rounds; round++) {
		SCOPED_TRACE("round " + std::to_string(round));
		ASSERT_TRUE(wait_for_recordings(size_t(round)));
		sleep_ms(2500);
		server.kill_hard();
		ASSERT_TRUE(cvtest::wait_until([] { return cvtest::first_mux_stats().reconnecting; }, 45000));
		EXPECT_TRUE(output.is_active());
		EXPECT_STREQ(obs_output_get_last_error(cvtest::mux_outputs().at(0)), cv::kReconnectingError);
		sleep_ms(down_ms);
		std::string error;
		ASSERT_TRUE(server.restart(&error)) << error;
	}
	ASSERT_TRUE(wait_for_recordings(size_t(rounds + 1)));
	sleep_ms(2500);
	EXPECT_GE(cvtest::first_mux_stats().reconnects, uint32_t(rounds));
	output.stop();
	ASSERT_TRUE(cvtest::wait_until([&] { return !output.is_active(); }, 10000));
	server.stop();
	const std::vector<std::string> files = recordings();
	ASSERT_EQ(files.size(), size_t(rounds + 1));
	for (const std::string &file : files) {
		const cvtest::StreamCheck check = cvtest::check_stream(file);
		EXPECT_EQ(check.error, "") << file;
		EXPECT_TRUE(check.starts_with_keyframe) << file;
		EXPECT_TRUE(check.dts_increasing) << file;
		EXPECT_GT(check.video_packets, 10u) << file;
	}
}

// Cuts every TCP connection of this process to `port`, both ways, as a network or a server
// that drops its clients would: the stream's next write fails. Returns how many it cut.
int cut_connections_to(uint16_t port)
{
	int cut = 0;
	DIR *fds = opendir("/proc/self/fd");
	while (const dirent *entry = fds ? readdir(fds) : nullptr) {
		const int fd = atoi(entry->d_name);
		sockaddr_in peer{};
		socklen_t size = sizeof(peer);
		if (fd > 2 && fd != dirfd(fds) && getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 &&
		    peer.sin_family == AF_INET && ntohs(peer.sin_port) == port && shutdown(fd, SHUT_RDWR) == 0)
			cut++;
	}
	if (fds)
		closedir(fds);
	return cut;
}

uint32_t reconnects_of_all()
{
	uint32_t total = 0;
	for (obs_output_t *output : cvtest::mux_outputs())
		total += cv::mux_output_stats(output).reconnects;
	return total;
}

bool all_connected()
{
	const std::vector<obs_output_t *> outputs = cvtest::mux_outputs();
	return !outputs.empty() && std::all_of(outputs.begin(), outputs.end(), [](obs_output_t *output) {
		return cv::mux_output_stats(output).connected;
	});
}

// The plug-in's output streams a 360×640 canvas to each of `urls` while `drop` loses all
// their connections (it returns how many) `rounds` times, each time once all of them are
// back and have streamed a moment. The heap in use is sampled after each round; once
// warmed up, its floor may rise by less than `max_growth_mb`.
void drop_again_and_again(const std::vector<std::string> &urls, int rounds, double max_growth_mb,
			  const std::function<int()> &drop)
{
	cv::VerticalCanvas canvas(cv::CanvasConfig{360, 640, 30, 1, true});
	ASSERT_TRUE(canvas.init());
	cv::OutputConfig config{{}, 800};
	for (const std::string &url : urls)
		config.destinations.push_back({"to " + url, url, "key" + std::to_string(config.destinations.size())});
	cv::VerticalOutput output(&canvas, config);
	ASSERT_TRUE(output.init());
	const cv::Error started = output.start();
	ASSERT_FALSE(started) << cv::english(started);
	ASSERT_TRUE(cvtest::wait_until(all_connected, 20000));
	std::vector<size_t> heap;
	size_t resident = 0;
	for (int round = 1; round <= rounds; round++) {
		if (round == rounds / 3)
			resident = cvtest::resident_bytes();
		SCOPED_TRACE("round " + std::to_string(round));
		const uint32_t before = reconnects_of_all();
		const uint32_t dropped = uint32_t(drop());
		ASSERT_GT(dropped, 0u);
		ASSERT_TRUE(cvtest::wait_until(
			[&] { return reconnects_of_all() >= before + dropped && all_connected(); }, 20000));
		sleep_ms(100);
		heap.push_back(cvtest::heap_in_use());
	}
	const double reconnects_a_third = reconnects_of_all() / 3.0;
	const double growth = cvtest::heap_floor_growth_mb(heap);
	fprintf(stderr, "%u reconnects: heap %+.1f KB a reconnect; resident memory %+.1f MB in the last two thirds\n",
		reconnects_of_all(), growth * 1e3 / reconnects_a_third,
		(double(cvtest::resident_bytes()) - double(resident)) / 1e6);
	EXPECT_LT(growth, max_growth_mb) << "memory kept by " << reconnects_a_third << " reconnects";
}

} // namespace

// Hundreds of lost connections, each made again at once:
// two RTMP destinations whose connections are cut, then an SRT destination whose listener
// closes and comes back (it takes longer, so fewer rounds, and only larger leaks show). A leaked muxer context costs
// some 7 KB a reconnect, a byte stream some 40 KB, a kept group of pictures more.
TEST_F(ServerFaultsTest, DroppedConnectionsGiveBackTheirMemory)
{
	std::string error;
	cvtest::RtmpServer server;
	ASSERT_TRUE(server.start(&error)) << error;
	drop_again_and_again({server.app_url(), server.app_url()}, by_form(100, 300), 0.25,
			     [&] { return cut_connections_to(server.port()); });
	// Closed by the listener, an SRT connection is lost at once; killed, only after its
	// idle timeout.
	cvtest::SrtListener listener;
	ASSERT_TRUE(listener.start(&error)) << error;
	drop_again_and_again({listener.url()}, by_form(8, 150), 2.0, [&] { return listener.restart(&error); });
}

TEST_F(ServerFaultsTest, RtmpServerKilledAndRestartedDuringOneStream)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	kill_and_restart(server, server.app_url(), by_form(3, 10), 2500, [&] { return server.recordings("again"); });
}

// An SRT caller learns that nobody listens only when its connect times out.
TEST_F(ServerFaultsTest, SrtListenerKilledAndRestartedDuringOneStream)
{
	cvtest::SrtListener listener;
	std::string error;
	ASSERT_TRUE(listener.start(&error)) << error;
	kill_and_restart(listener, listener.url(), by_form(1, 10), 4500, [&] { return listener.recordings(); });
}

TEST_F(ServerFaultsTest, AStalledServerNeverHoldsUpTheEncoder)
{
	constexpr int kVideoKbps = 6000;
	constexpr int kAudioKbps = 160;
	// The stream's own cap: four seconds of it, two MiB at least.
	constexpr size_t kQueueCap = std::max<size_t>(size_t(2) << 20, (kVideoKbps + kAudioKbps) * 1000 / 8 * 4);
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cvtest::PipelineOptions options;
	options.width = 720;
	options.height = 1280;
	options.video_kbps = kVideoKbps;
	options.audio_tracks = 1;
	options.keyint_sec = 2;
	cvtest::MuxPipeline pipeline(options);
	ASSERT_TRUE(pipeline.create(server.app_url(), "stall"));
	const auto started = std::chrono::steady_clock::now();
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(pipeline.wait_connected(20000));
	sleep_ms(3000);

	// The server stops reading for `seconds`; what the stream held meanwhile.
	auto stall = [&](int seconds) {
		const size_t heap_before = cvtest::heap_in_use();
		const uint32_t skipped_before = video_output_get_skipped_frames(pipeline.canvas().video());
		size_t queued = 0, heap = 0;
		int64_t queued_usec = 0;
		server.pause();
		for (const auto begin = std::chrono::steady_clock::now(); seconds_since(begin) < seconds;
		     sleep_ms(200)) {
			const cv::SessionStats stats = pipeline.stats();
			queued = std::max(queued, stats.queued_bytes);
			queued_usec = std::max(queued_usec, stats.queued_usec);
			const size_t heap_now = cvtest::heap_in_use();
			heap = std::max(heap, heap_now - std::min(heap_before, heap_now));
		}
		server.resume();
		const uint32_t skipped = video_output_get_skipped_frames(pipeline.canvas().video()) - skipped_before;
		EXPECT_LE(queued, kQueueCap);
		EXPECT_LE(queued_usec, 4200000) << "the queue held more than four seconds";
		EXPECT_LE(heap, kQueueCap + (size_t(4) << 20)) << "memory grew past the queue's cap";
		EXPECT_LE(skipped, 5u) << "the canvas skipped frames: its encoder waited for the stall";
		fprintf(stderr,
			"stall %d s: queue at most %.2f MB / %.1f s (cap %.2f MB), heap +%.1f MB, %u frames skipped\n",
			seconds, double(queued) / 1e6, double(queued_usec) / 1e6, double(kQueueCap) / 1e6,
			double(heap) / 1e6, skipped);
	};

	// The socket buffers of both ends take the first five to eight seconds at this rate.
	// Shorter than that plus the write deadline: the connection survives, frames are
	// dropped, and the server is soon live again.
	// How far the server's copy trails the clock before the stall: the start-up and the
	// server's own buffering, which a loaded machine stretches.
	auto behind = [&] {
		const cvtest::MediaPackets packets = cvtest::read_packets(server.recordings("stall").at(0));
		const auto *video = packets.first("video");
		return video && !video->packets.empty() ? seconds_since(started) - video->packets.back().pts : 1e9;
	};
	const double behind_before = behind();
	ASSERT_LT(behind_before, 1e9) << "nothing reached the server before the stall";
	stall(12);
	sleep_ms(5000);
	cv::SessionStats stats = pipeline.stats();
	EXPECT_TRUE(stats.connected);
	EXPECT_EQ(stats.reconnects, 0u);
	EXPECT_GT(stats.dropped.video_frames, 0u);
	const double behind_after = behind();
	EXPECT_LT(behind_after - behind_before, 2.0) << "the stall left the server this much further behind";
	fprintf(stderr, "the server trails by %.1f s before the short stall and %.1f s after it\n", behind_before,
		behind_after);

	// Longer: the connection gives up after ten seconds without progress, the queue keeps
	// only the newest pictures, and a new connection starts with them once the server
	// reads again.
	stall(by_form(25, 60));
	EXPECT_TRUE(obs_output_active(pipeline.output()));
	ASSERT_TRUE(cvtest::wait_until([&] { return pipeline.stats().reconnects > 0 && pipeline.stats().connected; },
				       40000));
	sleep_ms(4000);
	pipeline.stop();
	server.stop();
	// Attempts that the server saw but that timed out meanwhile leave recordings too.
	const std::vector<std::string> recordings = server.recordings("stall");
	ASSERT_GE(recordings.size(), 2u);
	const cvtest::StreamCheck check = cvtest::check_stream(recordings.back());
	EXPECT_EQ(check.error, "");
	EXPECT_TRUE(check.starts_with_keyframe);
	EXPECT_GE(check.video_seconds, 3.0);
}
