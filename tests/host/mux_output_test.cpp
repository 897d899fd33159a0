#include "host_fixture.h"
#include "log_capture.h"
#include "late_header_encoder.h"
#include "mux_pipeline.h"
#include "process_stats.h"
#include "recording_probe.h"
#include "stream_servers.h"

#include "mux/mux_output.h"

#include <chrono>
#include <thread>

using cvtest::log_contains;
using cvtest::log_count;
using cvtest::wait_for_log;
using cvtest::MuxPipeline;
using cvtest::probe_recording;
using cvtest::thread_count;
using cvtest::RecordingInfo;

namespace {

void sleep_ms(int ms)
{
	std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

class MuxOutputTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		cv::register_mux_output();
	}

	// Streams for `seconds`, stops, and returns what the server recorded.
	// `tail_loss` is how much of the end may be missing: a stop discards what is still
	// queued, and newer SRT libraries drop their own send buffer when they close.
	static void expect_clean_recording(const RecordingInfo &info, double seconds, int width, int height,
					   int audio_streams, double tail_loss = 0.0)
	{
		ASSERT_TRUE(info.opened) << info.error;
		EXPECT_EQ(info.video_codec, "h264");
		EXPECT_EQ(info.width, width);
		EXPECT_EQ(info.height, height);
		EXPECT_EQ(info.decode_errors, 0);
		EXPECT_GT(info.video_frames_decoded, 0);
		EXPECT_TRUE(info.first_video_packet_key);
		EXPECT_FALSE(info.audio_before_video);
		EXPECT_TRUE(info.video_dts_monotonic);
		EXPECT_TRUE(info.audio_dts_monotonic);
		EXPECT_EQ(info.audio_streams, audio_streams);
#if !defined(__SANITIZE_THREAD__) // timing means little under the thread sanitizer
		EXPECT_LE(info.duration_seconds, seconds * 1.1);
		EXPECT_GE(info.duration_seconds, seconds * 0.9 - tail_loss);
#else
		(void)seconds;
		(void)tail_loss;
#endif
	}
};

} // namespace

TEST_F(MuxOutputTest, RegisteredTypeDescribesItself)
{
	EXPECT_STREQ(obs_output_get_display_name(cv::kMuxOutputId), "Vertical RTMP Mux (multitrack v2)");
	OBSDataAutoRelease defaults = obs_output_defaults(cv::kMuxOutputId);
	EXPECT_STREQ(obs_data_get_string(defaults, "server"), "");
	EXPECT_STREQ(obs_data_get_string(defaults, "key"), "");
	obs_properties_t *props = obs_get_output_properties(cv::kMuxOutputId);
	ASSERT_NE(props, nullptr);
	obs_property_t *key = obs_properties_get(props, "key");
	ASSERT_NE(key, nullptr);
	EXPECT_EQ(obs_property_text_type(key), OBS_TEXT_PASSWORD);
	EXPECT_STREQ(obs_property_description(obs_properties_get(props, "server")), "RTMP Server");
	obs_properties_destroy(props);
	EXPECT_EQ(obs_get_output_flags(cv::kMuxOutputId), uint32_t(0x17));
}

TEST_F(MuxOutputTest, StartWithoutKeyOrServerFails)
{
	MuxPipeline pipeline;
	ASSERT_TRUE(pipeline.create("rtmp://127.0.0.1:1935/live", "  "));
	EXPECT_FALSE(pipeline.start());
	EXPECT_STREQ(pipeline.last_error(), "Missing RTMP server/key");
	EXPECT_FALSE(obs_output_active(pipeline.output()));
}

TEST_F(MuxOutputTest, RefusedConnectionStopsOnceWithError)
{
	const uint16_t closed_port = cvtest::free_tcp_port();
	MuxPipeline pipeline;
	ASSERT_TRUE(pipeline.create("rtmp://127.0.0.1:" + std::to_string(closed_port) + "/live", "secret-key"));
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(wait_for_log("open_muxer fatal — stopping output", 20000));
	ASSERT_TRUE(pipeline.wait_inactive(10000));
	sleep_ms(500);
	EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_ERROR});
	EXPECT_STREQ(pipeline.last_error(), "Stream rejected — check server URL and stream key");
	EXPECT_TRUE(log_contains("avio_open2 failed"));
	EXPECT_FALSE(log_contains("secret-key"));
}

TEST_F(MuxOutputTest, RtmpRecordingDecodesFromItsFirstFrame)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;

	MuxPipeline pipeline;
	ASSERT_TRUE(pipeline.create(server.app_url() + "///", "vert-key"));
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(wait_for_log("mux opened", 20000));
	sleep_ms(4000);
	pipeline.stop();
	EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_SUCCESS});

	EXPECT_TRUE(log_contains("mux opened: url=" + server.app_url() + "/**** format=flv video_tb=1/1000"));
	EXPECT_FALSE(log_contains("vert-key"));
	const auto recordings = server.recordings("vert-key");
	ASSERT_EQ(recordings.size(), 1u);
	const RecordingInfo info = probe_recording(recordings[0]);
	// The FLV muxer of older FFmpeg carries a single audio track.
	const int tracks = log_contains("left out audio track") ? 1 : 2;
	expect_clean_recording(info, 4.0, 360, 640, tracks);
}

TEST_F(MuxOutputTest, SrtStreamStartsWithDelimiterAndIdr)
{
	cvtest::SrtListener listener;
	std::string error;
	ASSERT_TRUE(listener.start(&error)) << error;

	MuxPipeline pipeline;
	ASSERT_TRUE(pipeline.create(listener.url() + "&passphrase=supersecret1&streamid=publish:me", "ignored"));
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(wait_for_log("mux opened", 20000));
	sleep_ms(4000);
	pipeline.stop();
	listener.stop();

	EXPECT_TRUE(log_contains("format=mpegts video_tb=1/90000 audio_streams=2"));
	EXPECT_TRUE(log_contains("SRT clean start armed on keyframe"));
	EXPECT_FALSE(log_contains("supersecret1"));
	EXPECT_FALSE(log_contains("publish:me"));
	const auto recordings = listener.recordings();
	ASSERT_FALSE(recordings.empty());
	const RecordingInfo info = probe_recording(recordings.front());
	expect_clean_recording(info, 4.0, 360, 640, 2, 1.0);
	ASSERT_GE(info.first_video_packet.size(), 6u);
	const std::vector<uint8_t> aud(info.first_video_packet.begin(), info.first_video_packet.begin() + 6);
	EXPECT_EQ(aud, (std::vector<uint8_t>{0, 0, 0, 1, 0x09, 0xF0}));
	bool idr = false;
	const auto &bytes = info.first_video_packet;
	for (size_t i = 0; i + 4 < bytes.size() && !idr; i++)
		idr = bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1 && (bytes[i + 3] & 0x1F) == 5;
	EXPECT_TRUE(idr);
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
	ASSERT_TRUE(wait_for_log("mux opened", 20000));
	pipeline.stop();
	const size_t threads = thread_count();

	for (int i = 0; i < 20; i++) {
		cvtest::clear_logs();
		ASSERT_TRUE(pipeline.start());
		// Every other cycle stops while the first packets are still queued.
		if (i % 2) {
			ASSERT_TRUE(wait_for_log("mux opened", 20000));
		}
		pipeline.stop();
		ASSERT_FALSE(obs_output_active(pipeline.output()));
	}
	sleep_ms(300);
	EXPECT_LE(thread_count(), threads);
}

TEST_F(MuxOutputTest, FirstPacketsAreHeldUntilTheCodecHeadersExist)
{
	cvtest::register_late_header_aac(8);
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;

	cvtest::PipelineOptions options;
	options.audio_tracks = 1;
	options.keyint_sec = 10; // the only keyframe for a while is the held one
	options.audio_encoder = cvtest::kLateHeaderAacId;
	MuxPipeline pipeline(options);
	ASSERT_TRUE(pipeline.create(server.app_url(), "late"));
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(wait_for_log("mux opened", 20000));
	sleep_ms(3000);
	pipeline.stop();

	// Opened only after several packets, and still started with the held keyframe.
	EXPECT_FALSE(log_contains("dropping pre-keyframe video packet"));
	EXPECT_TRUE(log_contains("first TS keyframe written"));
	const auto recordings = server.recordings("late");
	ASSERT_EQ(recordings.size(), 1u);
	const RecordingInfo info = probe_recording(recordings[0]);
	ASSERT_TRUE(info.opened) << info.error;
	EXPECT_TRUE(info.first_video_packet_key);
	EXPECT_EQ(info.decode_errors, 0);
	EXPECT_EQ(info.audio_streams, 1);
	// The held keyframe is the first frame of the stream: nothing before it was lost.
	EXPECT_GT(info.video_frames_decoded, 60);
}

TEST_F(MuxOutputTest, LostConnectionKeepsTheOutputActiveAndSaysSo)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	MuxPipeline pipeline;
	ASSERT_TRUE(pipeline.create(server.app_url(), "lost"));
	ASSERT_TRUE(pipeline.start());
	ASSERT_TRUE(wait_for_log("first TS keyframe written", 20000));
	server.kill_hard();
	ASSERT_TRUE(wait_for_log("entering reconnect mode", 20000));
	// Still live: the host's own stop signal has not been sent.
	EXPECT_TRUE(obs_output_active(pipeline.output()));
	EXPECT_TRUE(pipeline.stop_codes().empty());
	// Stopped at once, before the first retry (a second away) could replace the text.
	pipeline.stop();
	EXPECT_STREQ(pipeline.last_error(), "RTMP/SRT disconnected, reconnecting...");
	EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_SUCCESS});
}
