// The plug-in's output type with real libobs, the host's own x264 and AAC encoders and
// real servers: what arrives must decode from its first frame, whatever the container
// and the encoder's B-frames, and a destination that cannot be used stops the output
// once, with an error that says why.

#include "host_fixture.h"
#include "late_header_encoder.h"
#include "log_capture.h"
#include "media_packets.h"
#include "mux_pipeline.h"
#include "process_stats.h"
#include "stream_servers.h"
#include "wait.h"

#include "mux/mux_output.h"

#include <memory>

using cvtest::log_contains;
using cvtest::MuxPipeline;
using cvtest::sleep_ms;

namespace {

class MuxOutputTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		cv::register_mux_output();
	}
};

void expect_clean(const cvtest::StreamCheck &check, double seconds, size_t audio_streams)
{
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

} // namespace

TEST_F(MuxOutputTest, UnusableDestinationsStopTheOutputOnce)
{
	std::string error;
	cvtest::SilentTcpServer silent;
	ASSERT_TRUE(silent.start(&error)) << error;
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
	EXPECT_FALSE(log_contains("secret-key"));
}

// The host's x264 without and with B-frames, through FLV over RTMP and MPEG-TS over SRT.
TEST_F(MuxOutputTest, StreamsDecodeFromTheirFirstFrame)
{
	for (const bool srt : {false, true}) {
		for (const int bframes : {0, 2}) {
			SCOPED_TRACE(std::string(srt ? "SRT" : "RTMP") + ", B-frames " + std::to_string(bframes));
			std::string error;
			cvtest::RtmpServer nginx;
			cvtest::SrtListener listener;
			ASSERT_TRUE(srt ? listener.start(&error) : nginx.start(&error)) << error;
			cvtest::PipelineOptions options;
			options.bframes = bframes;
			MuxPipeline pipeline(options);
			if (srt)
				ASSERT_TRUE(pipeline.create(
					listener.url() + "&passphrase=supersecret1&streamid=publish:me", "ignored"));
			else
				ASSERT_TRUE(pipeline.create(nginx.app_url() + "///", "vert-key"));
			ASSERT_TRUE(pipeline.start());
			ASSERT_TRUE(pipeline.wait_connected(20000));
			sleep_ms(4000);
			pipeline.stop();
			EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_SUCCESS});

			const std::vector<std::string> recordings = srt ? (listener.stop(), listener.recordings())
									: (nginx.stop(), nginx.recordings("vert-key"));
			ASSERT_EQ(recordings.size(), 1u);
			// Older FFmpeg writes a single audio track into FLV.
			const size_t tracks = srt || cv::kFlvCarriesAllAudioTracks ? 2 : 1;
			// A stop sends what is queued, but newer SRT libraries drop their own send
			// buffer when they close.
			expect_clean(cvtest::check_stream(recordings[0]), 4.0, tracks);
			if (srt) {
				// Every access unit carries a delimiter, the first one its parameter sets.
				const std::vector<uint8_t> first = cvtest::first_video_packet(recordings[0]);
				ASSERT_GE(first.size(), 6u);
				EXPECT_EQ(std::vector<uint8_t>(first.begin(), first.begin() + 5),
					  (std::vector<uint8_t>{0, 0, 0, 1, 0x09}));
			}
		}
	}
	for (const char *secret : {"vert-key", "supersecret1", "publish:me"})
		EXPECT_FALSE(log_contains(secret)) << secret;
}

TEST_F(MuxOutputTest, StartStopCyclesLeaveNoThreadBehind)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	MuxPipeline pipeline;
	ASSERT_TRUE(pipeline.create(server.app_url(), "cycles"));

	// One cycle first, so that the host's own worker threads exist before counting.
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(pipeline.wait_connected(20000));
	pipeline.stop();
	ASSERT_TRUE(cv::wait_for_mux_streams(std::chrono::seconds(5)));
	const size_t threads = cvtest::thread_count();

	for (int i = 0; i < 20; i++) {
		ASSERT_TRUE(pipeline.start());
		// Every other cycle stops while the connection is still being made.
		if (i % 2) {
			ASSERT_TRUE(pipeline.wait_connected(20000));
		}
		pipeline.stop();
		ASSERT_FALSE(obs_output_active(pipeline.output()));
	}
	EXPECT_TRUE(cv::wait_for_mux_streams(std::chrono::seconds(5)));
	sleep_ms(300);
	EXPECT_LE(cvtest::thread_count(), threads);
}

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

	// The first keyframe waited with the connection, and nothing after it was lost.
	const auto recordings = server.recordings("late");
	ASSERT_EQ(recordings.size(), 1u);
	const cvtest::StreamCheck check = cvtest::check_stream(recordings[0]);
	expect_clean(check, 3.0, 1);
	EXPECT_EQ(pipeline.stats().dropped.video_frames, 0u);
}
