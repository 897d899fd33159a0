// The TCP relay and the recording reader that the streaming tests and benchmarks rely on;
// recordings are made with the ffmpeg command-line program. The reader must see damage,
// or the streaming tests would pass on streams nobody can play.

#include "recording_probe.h"
#include "stream_servers.h"
#include "tcp_relay.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace cvtest;

namespace {

const std::vector<std::string> kTestPattern = {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=30"};
const std::vector<std::string> kTone = {"-f", "lavfi", "-i", "sine"};

// ffmpeg with the given inputs, encoded to H.264 and AAC, for `seconds`, to `target`.
std::vector<std::string> ffmpeg_command(bool realtime, const std::vector<std::string> &inputs, double seconds,
					const std::string &format, const std::string &target)
{
	std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y"};
	if (realtime)
		argv.push_back("-re");
	argv.insert(argv.end(), inputs.begin(), inputs.end());
	argv.insert(argv.end(), {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "30", "-c:a", "aac", "-t",
				 std::to_string(seconds), "-f", format, target});
	return argv;
}

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string> &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

void run_ffmpeg(const std::vector<std::string> &argv)
{
	std::string output;
	ASSERT_EQ(run_program(argv, 60000, &output), 0) << output;
}

template<typename Pred> bool wait_until(Pred pred, int timeout_ms)
{
	const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
	while (!pred()) {
		if (std::chrono::steady_clock::now() > end)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
	}
	return true;
}

std::vector<uint8_t> read_bytes(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

} // namespace

TEST(StreamSupportRelay, ForwardsBothWaysAndStallsWhenPaused)
{
	// The upstream: a plain listener that this test reads from and writes to.
	const int upstream = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_GE(upstream, 0);
	sockaddr_in addr{};
	addr.sin_family = AF_INET;
	addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	socklen_t len = sizeof(addr);
	ASSERT_EQ(bind(upstream, (sockaddr *)&addr, sizeof(addr)), 0);
	ASSERT_EQ(listen(upstream, 4), 0);
	ASSERT_EQ(getsockname(upstream, (sockaddr *)&addr, &len), 0);

	TcpRelay relay;
	std::string error;
	ASSERT_TRUE(relay.start(ntohs(addr.sin_port), &error)) << error;
	const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	addr.sin_port = htons(relay.port());
	ASSERT_EQ(connect(client, (sockaddr *)&addr, sizeof(addr)), 0) << strerror(errno);
	const int server = accept4(upstream, nullptr, nullptr, SOCK_CLOEXEC);
	ASSERT_GE(server, 0);
	EXPECT_EQ(relay.first_byte_ns(), 0u);

	char buf[16] = {};
	ASSERT_EQ(send(client, "hello", 5, MSG_NOSIGNAL), 5);
	ASSERT_TRUE(wait_until([&] { return recv(server, buf, 5, MSG_DONTWAIT | MSG_PEEK) == 5; }, 5000));
	ASSERT_EQ(recv(server, buf, 5, 0), 5);
	EXPECT_EQ(std::string(buf, 5), "hello");
	EXPECT_GT(relay.first_byte_ns(), 0u);
	ASSERT_EQ(send(server, "world", 5, MSG_NOSIGNAL), 5);
	ASSERT_EQ(recv(client, buf, 5, MSG_WAITALL), 5);
	EXPECT_EQ(std::string(buf, 5), "world");

	// Paused: the sender's buffers fill up and nothing more reaches the server.
	relay.pause();
	std::this_thread::sleep_for(std::chrono::milliseconds(100));
	const uint64_t before = relay.bytes_from_clients();
	const std::vector<char> chunk(65536, 'x');
	fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
	uint64_t queued = 0;
	int last_errno = 0;
	while (queued < (256u << 20)) {
		const ssize_t n = send(client, chunk.data(), chunk.size(), MSG_NOSIGNAL);
		if (n < 0) {
			last_errno = errno;
			break;
		}
		queued += uint64_t(n);
	}
	EXPECT_EQ(last_errno, EAGAIN) << "a sender to a paused relay never filled up after " << queued << " bytes";
	EXPECT_EQ(relay.bytes_from_clients(), before);

	// Resumed: everything arrives.
	relay.resume();
	uint64_t received = 0;
	while (received < queued) {
		const ssize_t n = recv(server, (void *)chunk.data(), chunk.size(), 0);
		if (n <= 0)
			break;
		received += uint64_t(n);
	}
	EXPECT_EQ(received, queued);
	close(client);
	close(server);
	close(upstream);
	relay.stop();
}

class StreamSupportProbe : public ::testing::Test {
protected:
	void SetUp() override
	{
		std::string error;
		dir_ = make_temp_dir("", "cv-probe-test-", &error);
		ASSERT_FALSE(dir_.empty()) << error;
	}
	void TearDown() override { std::filesystem::remove_all(dir_); }

	std::string dir_;
};

TEST_F(StreamSupportProbe, DecodesFromTheVeryFirstPacket)
{
	const std::string whole = dir_ + "/whole.ts";
	run_ffmpeg(ffmpeg_command(false, concat(kTestPattern, kTone), 3, "mpegts", whole));
	const RecordingInfo info = probe_recording(whole);
	EXPECT_EQ(info.decode_errors, 0) << describe(info);
	EXPECT_TRUE(info.first_video_packet_key);

	// The same stream joined in the middle of a group of pictures: its first pictures
	// reference ones that are missing, which must show as errors, not be skipped.
	std::vector<uint8_t> bytes = read_bytes(whole);
	const size_t cut = bytes.size() / 2 / 188 * 188;
	std::ofstream(dir_ + "/cut.ts", std::ios::binary)
		.write((const char *)bytes.data() + cut, (std::streamsize)(bytes.size() - cut));
	const RecordingInfo joined = probe_recording(dir_ + "/cut.ts");
	ASSERT_TRUE(joined.opened) << joined.error;
	EXPECT_FALSE(joined.first_video_packet_key);
	EXPECT_GT(joined.decode_errors, 0) << describe(joined);

	EXPECT_FALSE(probe_recording(dir_ + "/missing.flv").opened);
}

TEST_F(StreamSupportProbe, TellsWhetherAudioLeadsVideo)
{
	// -itsoffset delays the input that follows it.
	const std::string video_late = dir_ + "/video-late.flv";
	run_ffmpeg(ffmpeg_command(false, concat(concat({"-itsoffset", "0.5"}, kTestPattern), kTone), 2, "flv",
				  video_late));
	const RecordingInfo late = probe_recording(video_late);
	EXPECT_TRUE(late.audio_before_video) << describe(late);

	const std::string audio_late = dir_ + "/audio-late.flv";
	run_ffmpeg(ffmpeg_command(false, concat(kTestPattern, concat({"-itsoffset", "0.5"}, kTone)), 2, "flv",
				  audio_late));
	const RecordingInfo early = probe_recording(audio_late);
	EXPECT_FALSE(early.audio_before_video) << describe(early);
	EXPECT_NEAR(early.first_audio_pts_seconds - early.first_video_pts_seconds, 0.5, 0.05);
}

TEST_F(StreamSupportProbe, PicksTheFrameAtTheRequestedTime)
{
	const std::string path = dir_ + "/red-then-blue.flv";
	run_ffmpeg({"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
		    "color=c=red:size=160x90:rate=30:d=1[a];color=c=blue:size=160x90:rate=30:d=1[b];[a][b]concat",
		    "-c:v", "libx264", "-pix_fmt", "yuv420p", "-f", "flv", path});

	std::vector<uint8_t> rgb;
	int width = 0, height = 0;
	std::string error;
	ASSERT_TRUE(decode_frame_rgb(path, 0.0, &rgb, &width, &height, &error)) << error;
	EXPECT_EQ(width, 160);
	EXPECT_EQ(height, 90);
	EXPECT_GT(rgb[0], 200);
	EXPECT_LT(rgb[2], 50);
	ASSERT_TRUE(decode_frame_rgb(path, 1.5, &rgb, &width, &height, &error)) << error;
	EXPECT_LT(rgb[0], 50);
	EXPECT_GT(rgb[2], 200);
	EXPECT_FALSE(decode_frame_rgb(path, 5.0, &rgb, &width, &height, &error));
}
