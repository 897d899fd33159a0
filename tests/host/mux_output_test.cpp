// The plug-in's output type with real libobs, the host's own x264 and AAC encoders and
// real servers: what arrives decodes from its first frame, whatever the container and the
// encoder's B-frames; a destination that cannot be used stops the output once, saying
// why; and nothing of it ever holds up the host's own stream.

#include "host.h"
#include "host_rtmp_output.h"
#include "late_header_encoder.h"
#include "media.h"
#include "pipeline.h"
#include "process.h"
#include "servers.h"
#include "sources.h"
#include "wait.h"

#include "stream/mux_output.h"

#include <atomic>
#include <chrono>
#include <thread>

using cvtest::MuxPipeline;
using cvtest::sleep_ms;

namespace {

class MuxOutputTest : public cvtest::HostTest {
protected:
	cvtest::HostOptions host_options() const override
	{
		cvtest::HostOptions options;
		options.width = 640; // the host's own stream, when a test runs one, stays cheap
		options.height = 360;
		options.outputs = true;
		return options;
	}
	void SetUp() override
	{
		HostTest::SetUp();
		cv::register_mux_output();
	}
};

void expect_clean(const std::string &recording, double seconds, size_t audio_streams)
{
	const cvtest::StreamCheck check = cvtest::check_stream(recording);
	EXPECT_EQ(check.error, "");
	EXPECT_TRUE(check.starts_with_keyframe);
	EXPECT_FALSE(check.audio_before_video);
	EXPECT_TRUE(check.dts_increasing);
	EXPECT_TRUE(check.pts_not_before_dts);
	EXPECT_TRUE(check.unique_video_pts);
	EXPECT_EQ(check.audio_streams, audio_streams);
	EXPECT_GE(check.video_seconds, seconds - 1.5);
	EXPECT_LE(check.video_seconds, seconds + 1.0);
}

// The longest time an output's byte count stood still while it was watched.
class SendWatch {
public:
	explicit SendWatch(obs_output_t *output) : thread_([this, output] { run(output); }) {}
	~SendWatch()
	{
		done_ = true;
		thread_.join();
	}
	double longest_pause_s() const { return double(longest_ns_) / 1e9; }

private:
	void run(obs_output_t *output)
	{
		using Clock = std::chrono::steady_clock;
		uint64_t bytes = obs_output_get_total_bytes(output);
		auto changed = Clock::now();
		while (!done_) {
			sleep_ms(5);
			if (const uint64_t now_bytes = obs_output_get_total_bytes(output); now_bytes != bytes) {
				bytes = now_bytes;
				changed = Clock::now();
			}
			longest_ns_ = std::max<int64_t>(longest_ns_, (Clock::now() - changed).count());
		}
	}
	std::atomic<bool> done_{false};
	std::atomic<int64_t> longest_ns_{0};
	std::thread thread_;
};

} // namespace

TEST_F(MuxOutputTest, UnusableDestinationsStopTheOutputOnce)
{
	cvtest::SilentTcpServer silent;
	const std::string closed = "rtmp://127.0.0.1:" + std::to_string(cvtest::free_tcp_port()) + "/live";
	const struct {
		const char *name;
		std::string server;
		const char *key;
		const char *error; // null: the start itself is refused with "Missing RTMP server/key"
	} cases[] = {
		{"no key", closed, "  ", nullptr},
		{"nobody listens", closed, "secret-key", cv::kRejectedError},
		{"not a stream address", "http://127.0.0.1/live", "secret-key", cv::kRejectedError},
		{"accepts and never answers", "rtmp://127.0.0.1:" + std::to_string(silent.port()) + "/live",
		 "secret-key", cv::kNoAnswerError},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		MuxPipeline pipeline;
		ASSERT_TRUE(pipeline.create(c.server, c.key));
		if (!c.error) {
			EXPECT_FALSE(pipeline.start());
			EXPECT_STREQ(pipeline.last_error(), "Missing RTMP server/key");
			continue;
		}
		ASSERT_TRUE(pipeline.start());
		ASSERT_TRUE(pipeline.wait_inactive(20000));
		sleep_ms(500);
		EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_ERROR});
		EXPECT_STREQ(pipeline.last_error(), c.error);
	}
	EXPECT_EQ(cvtest::log_count("secret-key"), 0u);
}

// The host's x264 without and with B-frames, through FLV over RTMP and MPEG-TS over SRT.
TEST_F(MuxOutputTest, StreamsDecodeFromTheirFirstFrame)
{
	for (const bool srt : {false, true}) {
		for (const int bframes : {0, 2}) {
			SCOPED_TRACE(std::string(srt ? "SRT" : "RTMP") + ", B-frames " + std::to_string(bframes));
			std::string error;
			cvtest::RtmpServer nginx;
			cvtest::SrtListener listener("passphrase=supersecret1&streamid=publish:me");
			ASSERT_TRUE(srt ? listener.start(&error) : nginx.start(&error)) << error;
			cvtest::PipelineOptions options;
			options.bframes = bframes;
			MuxPipeline pipeline(options);
			ASSERT_TRUE(pipeline.create(srt ? listener.url() : nginx.app_url() + "///", "vert-key"));
			ASSERT_TRUE(pipeline.start());
			ASSERT_TRUE(pipeline.wait_connected(20000));
			sleep_ms(4000);
			pipeline.stop();
			EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_SUCCESS});

			const std::vector<std::string> recordings =
				srt ? listener.recordings() : (nginx.stop(), nginx.recordings("vert-key"));
			ASSERT_EQ(recordings.size(), 1u);
			// Older FFmpeg writes a single audio track into FLV.
			expect_clean(recordings[0], 4.0, srt || cv::kFlvCarriesAllAudioTracks ? 2 : 1);
			if (srt) {
				// Every access unit carries a delimiter, the first one its parameter sets.
				const std::vector<uint8_t> first = cvtest::read_packets(recordings[0]).first_video_bytes;
				ASSERT_GE(first.size(), 6u);
				EXPECT_EQ(std::vector<uint8_t>(first.begin(), first.begin() + 5),
					  (std::vector<uint8_t>{0, 0, 0, 1, 0x09}));
			}
		}
	}
	for (const char *secret : {"vert-key", "supersecret1", "publish:me"})
		EXPECT_EQ(cvtest::log_count(secret), 0u) << secret;
}

// While the vertical output connects to (a) a TCP server that accepts and never answers
// and (b) an SRT address where nothing answers, the host's own stream to nginx goes on
// without a pause or a gap, and stopping the vertical output returns at once.
TEST_F(MuxOutputTest, TheHostsStreamNeverWaitsForTheVerticalOne)
{
	std::string error;
	cvtest::RtmpServer nginx;
	ASSERT_TRUE(nginx.start(&error)) << error;
	cvtest::SilentTcpServer silent;
	OBSSceneAutoRelease scene = cvtest::make_band_scene("Main", {0xFF0000, 0x00FF00, 0x0000FF});
	obs_set_output_source(0, obs_scene_get_source(scene));
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_int(settings, "bitrate", 1000);
	obs_data_set_string(settings, "preset", "ultrafast");
	OBSEncoderAutoRelease video = obs_video_encoder_create("obs_x264", "main video", settings, nullptr);
	OBSEncoderAutoRelease audio = obs_audio_encoder_create("ffmpeg_aac", "main audio", nullptr, 0, nullptr);
	obs_encoder_set_video(video, obs_get_video());
	obs_encoder_set_audio(audio, obs_get_audio());
	cvtest::HostRtmpOutput main = cvtest::make_host_rtmp_output(nginx.app_url(), "main", video, audio);
	ASSERT_TRUE(main.output && obs_output_start(main.output));
	ASSERT_TRUE(cvtest::wait_until([&] { return obs_output_get_total_bytes(main.output) > 0; }, 20000));

	SendWatch watch(main.output);
	for (const std::string &server : {"rtmp://127.0.0.1:" + std::to_string(silent.port()) + "/live",
					  "srt://127.0.0.1:" + std::to_string(cvtest::free_udp_port())}) {
		SCOPED_TRACE(server);
		MuxPipeline vertical;
		ASSERT_TRUE(vertical.create(server, "vertical-key"));
		ASSERT_TRUE(vertical.start());
		sleep_ms(4000);
		const auto before = std::chrono::steady_clock::now();
		obs_output_stop(vertical.output());
		EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(500));
		EXPECT_TRUE(vertical.wait_inactive(5000));
	}
	sleep_ms(1000);
	EXPECT_LT(watch.longest_pause_s(), 0.1) << "the host's stream stood still";
	obs_output_stop(main.output);
	ASSERT_TRUE(cvtest::wait_until([&] { return !obs_output_active(main.output); }, 10000));
	obs_set_output_source(0, nullptr);
	nginx.stop();

	const std::vector<std::string> recordings = nginx.recordings("main");
	ASSERT_EQ(recordings.size(), 1u);
	EXPECT_EQ(cvtest::decode_errors(recordings[0]), "");
	const cvtest::MediaPackets packets = cvtest::read_packets(recordings[0]);
	for (const char *type : {"video", "audio"}) {
		ASSERT_NE(packets.first(type), nullptr) << type << packets.error;
		EXPECT_LT(cvtest::longest_gap(*packets.first(type)), 0.1) << type;
	}
}

// An encoder whose codec header comes only after its first packets: the stream waits for
// it, and loses nothing of what came before.
TEST_F(MuxOutputTest, TheStreamWaitsForTheCodecHeaders)
{
	cvtest::register_late_header_aac(8);
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cvtest::PipelineOptions options;
	options.audio_tracks = 1;
	options.keyint_sec = 10; // the only keyframe for a while is the first one
	options.audio_encoder = cvtest::kLateHeaderAacId;
	MuxPipeline pipeline(options);
	ASSERT_TRUE(pipeline.create(server.app_url(), "late"));
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(pipeline.wait_connected(20000));
	sleep_ms(3000);
	pipeline.stop();
	server.stop();
	const auto recordings = server.recordings("late");
	ASSERT_EQ(recordings.size(), 1u);
	expect_clean(recordings[0], 3.0, 1);
	EXPECT_EQ(pipeline.stats().dropped.video_frames, 0u);
}
