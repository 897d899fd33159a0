// The servers and the recording reader that the streaming host tests rely on, driven with
// the ffmpeg command-line program as the sender.

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
const std::vector<std::string> kRed = {"-f", "lavfi", "-i", "color=c=red:size=320x240:rate=30"};
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

void expect_clean_320x240(const RecordingInfo &info, double seconds)
{
	SCOPED_TRACE(describe(info));
	EXPECT_EQ(info.video_codec, "h264");
	EXPECT_EQ(info.width, 320);
	EXPECT_EQ(info.height, 240);
	EXPECT_NEAR(info.fps, 30.0, 1.0);
	EXPECT_EQ(info.audio_streams, 1);
	EXPECT_EQ(info.decode_errors, 0);
	EXPECT_EQ(info.audio_decode_errors, 0);
	EXPECT_TRUE(info.first_video_packet_key);
	EXPECT_TRUE(info.video_dts_monotonic);
	EXPECT_TRUE(info.audio_dts_monotonic);
	EXPECT_NEAR(info.duration_seconds, seconds, seconds * 0.1);
	EXPECT_NEAR((double)info.video_frames_decoded, seconds * 30, seconds * 3);
}

// An SRT publish that also writes the same MPEG-TS bytes to `copy`, to compare with what
// the listener stored. Without look-ahead the encoder sends its last frames as they come,
// not in one burst at the end that a closing sender would mostly drop.
std::vector<std::string> srt_command(const std::vector<std::string> &inputs, double seconds, const std::string &url,
				     const std::string &copy)
{
	std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-re"};
	argv.insert(argv.end(), inputs.begin(), inputs.end());
	argv.insert(argv.end(), {"-map", "0:v", "-map", "1:a", "-c:v", "libx264", "-tune", "zerolatency", "-pix_fmt",
				 "yuv420p", "-g", "30", "-c:a", "aac", "-t", std::to_string(seconds), "-f", "tee",
				 "[f=mpegts:onfail=abort]" + url + "|[f=mpegts]" + copy});
	return argv;
}

// The stored bytes are what the sender sent, except that its last packets may be missing:
// from SRT 1.5.2 on, a non-blocking socket that is closed right before the library is shut
// down (as FFmpeg's and OBS's SRT outputs do) drops what it still had queued, linger or not.
void expect_sent_bytes(const std::string &stored, const std::string &sent)
{
	const std::vector<uint8_t> got = read_bytes(stored), want = read_bytes(sent);
	ASSERT_FALSE(got.empty());
	ASSERT_LE(got.size(), want.size());
	EXPECT_TRUE(std::equal(got.begin(), got.end(), want.begin())) << "the stored bytes differ from those sent";
	EXPECT_GE(got.size() + 16 * 1316, want.size()) << "more than the sender's last packets are missing";
}

const uint8_t kAud[] = {0, 0, 0, 1, 9};

bool starts_with_aud(const std::vector<uint8_t> &packet)
{
	return packet.size() > sizeof(kAud) && std::equal(kAud, kAud + sizeof(kAud), packet.begin());
}

} // namespace

TEST(StreamSupportRtmp, RecordsEveryPublishAlsoAcrossACrash)
{
	RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	const uint16_t port = server.port();
	const std::string url = server.app_url() + "/testkey";
	EXPECT_EQ(server.app_url(), "rtmp://127.0.0.1:" + std::to_string(port) + "/live");

	run_ffmpeg(ffmpeg_command(true, concat(kTestPattern, kTone), 3, "flv", url));
	std::vector<std::string> files = server.recordings("testkey");
	ASSERT_EQ(files.size(), 1u) << server.error_log();
	RecordingInfo first = probe_recording(files[0]);
	ASSERT_TRUE(first.opened) << first.error;
	EXPECT_EQ(first.format_name, "flv");
	EXPECT_EQ(first.audio_sample_rates, std::vector<int>{44100});
	expect_clean_320x240(first, 3.0);
	EXPECT_NE(server.access_log().find("PUBLISH \"live\" \"testkey\""), std::string::npos) << server.access_log();

	// The server dies in the middle of a publish: the sender fails, the partial file stays.
	ChildProcess sender;
	ASSERT_TRUE(sender.start(ffmpeg_command(true, concat(kTestPattern, kTone), 20, "flv", url), -1, -1, &error))
		<< error;
	ASSERT_TRUE(wait_until(
		[&] {
			files = server.recordings("testkey");
			return files.size() == 2 && std::filesystem::file_size(files[1]) > 40000;
		},
		10000))
		<< server.error_log();
	server.kill_hard();
	EXPECT_FALSE(server.running());
	EXPECT_TRUE(sender.wait(15000));
	EXPECT_FALSE(sender.exited_with(0));
	EXPECT_GT(probe_recording(files[1]).video_frames_decoded, 0);

	ASSERT_TRUE(server.restart(&error)) << error;
	EXPECT_EQ(server.port(), port);
	run_ffmpeg(ffmpeg_command(true, concat(kTestPattern, kTone), 1, "flv", url));
	files = server.recordings("testkey");
	ASSERT_EQ(files.size(), 3u);
	// Oldest first: the three-second publish, the cut one, then the one-second publish.
	EXPECT_NEAR(probe_recording(files[0]).duration_seconds, 3.0, 0.3);
	RecordingInfo last = probe_recording(files[2]);
	ASSERT_TRUE(last.opened) << last.error;
	expect_clean_320x240(last, 1.0);
	EXPECT_TRUE(server.recordings("otherkey").empty());
}

TEST(StreamSupportRtmp, RestartFailsFastWhenAnotherProgramHoldsThePort)
{
	RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	const uint16_t port = server.port();
	server.stop();

	// Something else listens there now: that must not pass for the server being up.
	const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	const int one = 1;
	setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
	sockaddr_in addr{};
	addr.sin_family = AF_INET;
	addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	addr.sin_port = htons(port);
	ASSERT_EQ(bind(fd, (sockaddr *)&addr, sizeof(addr)), 0) << strerror(errno);
	ASSERT_EQ(listen(fd, 4), 0);
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_FALSE(server.restart(&error));
	EXPECT_NE(error.find("Address already in use"), std::string::npos) << error;
	EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
	EXPECT_FALSE(server.running());

	close(fd);
	ASSERT_TRUE(server.restart(&error)) << error;
	EXPECT_EQ(server.port(), port);
}

TEST(StreamSupportSrt, StoresTheBytesOfEachConnectionInAFileOfItsOwn)
{
	SrtListener listener;
	std::string error;
	ASSERT_TRUE(listener.start(&error)) << error;
	const uint16_t port = listener.port();
	// Like OBS, the sender does not linger; expect_sent_bytes allows for its lost tail.
	const std::string url = listener.url();
	const std::string sent = listener.dir() + "/sent";

	run_ffmpeg(srt_command(concat(kRed, kTone), 2, url, sent + "1.ts"));
	ASSERT_TRUE(listener.wait_for_recordings(1, 20000)) << listener.log();
	std::vector<std::string> files = listener.recordings();
	ASSERT_EQ(files.size(), 1u);
	expect_sent_bytes(files[0], sent + "1.ts");

	const RecordingInfo info = probe_recording(files[0]);
	EXPECT_EQ(info.format_name, "mpegts");
	EXPECT_EQ(info.video_codec, "h264");
	EXPECT_EQ(info.width, 320);
	EXPECT_EQ(info.audio_streams, 1);
	EXPECT_TRUE(starts_with_aud(info.first_video_packet)) << describe(info);
	std::vector<uint8_t> rgb;
	int width = 0, height = 0;
	ASSERT_TRUE(decode_frame_rgb(files[0], 1.0, &rgb, &width, &height, &error)) << error;
	ASSERT_EQ(rgb.size(), (size_t)width * height * 3);
	const uint8_t *centre = &rgb[((size_t)(height / 2) * width + width / 2) * 3];
	EXPECT_GT(centre[0], 230);
	EXPECT_LT(centre[1], 25);
	EXPECT_LT(centre[2], 25);

	// One caller stays while another connects and leaves: each gets a file of its own.
	ChildProcess sender;
	ASSERT_TRUE(sender.start(srt_command(concat(kTestPattern, kTone), 20, url, sent + "2.ts"), -1, -1, &error))
		<< error;
	ASSERT_TRUE(wait_until([&] { return listener.recordings().size() == 2; }, 20000)) << listener.log();
	run_ffmpeg(srt_command(concat(kTestPattern, kTone), 1, url, sent + "3.ts"));
	ASSERT_TRUE(listener.wait_for_recordings(2, 20000)) << listener.log();
	files = listener.recordings();
	ASSERT_EQ(files.size(), 3u);
	expect_sent_bytes(files[2], sent + "3.ts");

	// A restart ends the open connection at once (the caller is told) and keeps the port.
	ASSERT_TRUE(listener.restart(&error)) << error;
	EXPECT_EQ(listener.port(), port);
	EXPECT_TRUE(sender.wait(10000));
	EXPECT_FALSE(sender.exited_with(0));
	EXPECT_TRUE(listener.wait_for_recordings(3, 0));

	run_ffmpeg(srt_command(concat(kTestPattern, kTone), 1, url, sent + "4.ts"));
	ASSERT_TRUE(listener.wait_for_recordings(4, 20000)) << listener.log();
	files = listener.recordings();
	ASSERT_EQ(files.size(), 4u);
	expect_sent_bytes(files[3], sent + "4.ts");
	EXPECT_NEAR(probe_recording(files[3]).duration_seconds, 1.0, 0.2);

	listener.kill_hard();
	EXPECT_FALSE(listener.running());
	EXPECT_EQ(listener.recordings().size(), 4u);
}

TEST(StreamSupportSrt, KeepsWhatArrivedBeforeACrash)
{
	SrtListener listener;
	std::string error;
	ASSERT_TRUE(listener.start(&error)) << error;
	ChildProcess sender;
	ASSERT_TRUE(sender.start(ffmpeg_command(true, concat(kTestPattern, kTone), 20, "mpegts", listener.url()), -1,
				 -1, &error))
		<< error;
	ASSERT_TRUE(wait_until(
		[&] {
			const std::vector<std::string> files = listener.recordings();
			return !files.empty() && std::filesystem::file_size(files[0]) > 30000;
		},
		20000))
		<< listener.log();
	listener.kill_hard();
	EXPECT_FALSE(listener.running());
	sender.kill_hard(); // it would only notice by its own timeout

	const std::vector<std::string> files = listener.recordings();
	ASSERT_EQ(files.size(), 1u);
	EXPECT_EQ(std::filesystem::file_size(files[0]) % 188, 0u);
	const RecordingInfo info = probe_recording(files[0]);
	EXPECT_GT(info.video_frames_decoded, 10) << describe(info);
	EXPECT_TRUE(starts_with_aud(info.first_video_packet));
}

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

TEST(StreamSupportProcess, RunProgramReportsExitCodesAndKillsWhatOverruns)
{
	std::string output;
	EXPECT_EQ(run_program({"sh", "-c", "echo out; echo err >&2; exit 3"}, 5000, &output), 3);
	EXPECT_EQ(output, "out\nerr\n");
	EXPECT_EQ(run_program({"cv-no-such-program"}, 1000, &output), -1);

	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ(run_program({"sleep", "30"}, 300, &output), -1);
	EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}
