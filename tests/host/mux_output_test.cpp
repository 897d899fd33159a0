// The plug-in's output type with real libobs, the host's x264 and AAC encoders and real
// servers: streams decode from their first frame, a destination that cannot be used stops
// the output once, and the host's own stream never waits for it.

#include "certificates.h"
#include "host.h"
#include "host_rtmp_output.h"
#include "media.h"
#include "pipeline.h"
#include "servers.h"
#include "wait.h"

#include "stream/mux_output.h"

#include <chrono>
#include <map>
#include <utility>

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

} // namespace

// Refused at once, or accepted and never answered, over TLS too: one stop, with an error
// saying which.
TEST_F(MuxOutputTest, UnusableDestinationsStopTheOutputOnce)
{
	cvtest::SilentTcpServer silent;
	const std::string closed = "127.0.0.1:" + std::to_string(cvtest::free_tcp_port()) + "/live";
	const std::string hung = "127.0.0.1:" + std::to_string(silent.port()) + "/live";
	for (const auto &[server, error] :
	     {std::pair{"rtmp://" + closed, cv::kRejectedError}, std::pair{"rtmp://" + hung, cv::kNoAnswerError},
	      std::pair{"rtmps://" + closed, cv::kRejectedError}, std::pair{"rtmps://" + hung, cv::kNoAnswerError}}) {
		SCOPED_TRACE(server);
		MuxPipeline pipeline;
		ASSERT_TRUE(pipeline.create(server, "secret-key"));
		ASSERT_TRUE(pipeline.start());
		ASSERT_TRUE(pipeline.wait_inactive(20000));
		sleep_ms(500);
		EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_ERROR});
		EXPECT_STREQ(pipeline.last_error(), error);
	}
	EXPECT_EQ(cvtest::log_count("secret-key"), 0u);
}

// The host's x264 without and with B-frames, through FLV over RTMP and MPEG-TS over SRT.
TEST_F(MuxOutputTest, StreamsDecodeFromTheirFirstFrame)
{
	const struct {
		bool srt;
		int bframes;
	} cases[] = {{false, 0}, {false, 2}, {true, 0}, {true, 2}};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.srt ? "SRT" : "RTMP") + ", B-frames " + std::to_string(c.bframes));
		std::string error;
		cvtest::RtmpServer nginx;
		cvtest::SrtListener listener("passphrase=supersecret1&streamid=publish:me");
		ASSERT_TRUE(c.srt ? listener.start(&error) : nginx.start(&error)) << error;
		cvtest::PipelineOptions options;
		options.bframes = c.bframes;
		MuxPipeline pipeline(options);
		ASSERT_TRUE(pipeline.create(c.srt ? listener.url() : nginx.app_url() + "///", "vert-key"));
		ASSERT_TRUE(pipeline.start());
		ASSERT_TRUE(pipeline.wait_connected(20000));
		sleep_ms(4000);
		pipeline.stop();
		EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_SUCCESS});
		EXPECT_EQ(pipeline.stats().dropped.video_frames, 0u);

		const std::vector<std::string> recordings = c.srt ? listener.recordings()
								  : (nginx.stop(), nginx.recordings("vert-key"));
		ASSERT_EQ(recordings.size(), 1u);
		// Older FFmpeg writes a single audio track into FLV.
		expect_clean(recordings[0], 4.0, c.srt || cv::kFlvCarriesAllAudioTracks ? 2 : 1);
		if (c.srt) {
			// Every access unit carries a delimiter, the first one its parameter sets.
			const std::vector<uint8_t> first = cvtest::read_packets(recordings[0]).first_video_bytes;
			ASSERT_GE(first.size(), 6u);
			EXPECT_EQ(std::vector<uint8_t>(first.begin(), first.begin() + 5),
				  (std::vector<uint8_t>{0, 0, 0, 1, 0x09}));
		}
	}
	for (const char *secret : {"vert-key", "supersecret1", "publish:me"})
		EXPECT_EQ(cvtest::log_count(secret), 0u) << secret;
}

// RTMPS sends the key only to a server whose certificate chain leads to a trusted authority
// and names the host, on a reconnect too; any other gets the TLS handshake and nothing
// more, and the destination stops with an error naming the certificate's fault.
TEST_F(MuxOutputTest, RtmpsSendsTheKeyOnlyToATrustedCertificate)
{
	std::string error;
	cvtest::TestCertificates certificates;
	ASSERT_TRUE(certificates.make_authority("trusted", &error)) << error;
	ASSERT_TRUE(certificates.make_authority("unknown", &error)) << error;
	const struct {
		std::string name, host, issuer;
		bool expired;
		std::string fault; // none: streams
	} rows[] = {
		{"good", "localhost", "trusted", false, ""},
		{"stranger", "localhost", "unknown", false, "issued by an unknown authority"},
		{"misnamed", "elsewhere.example", "trusted", false, "made out to another host name than localhost"},
		{"expired", "localhost", "trusted", true, "expired"},
	};
	cvtest::RtmpServer nginx;
	std::map<std::string, uint16_t> ports;
	for (const auto &row : rows) {
		ASSERT_TRUE(certificates.make_server(row.name, row.host, row.issuer, row.expired, &error)) << error;
		ports[row.name] = nginx.serve_tls(certificates.certificate(row.name), certificates.key(row.name));
	}
	ASSERT_TRUE(nginx.start(&error)) << error;
	const cvtest::ScopedEnv trust("SSL_CERT_FILE", certificates.certificate("trusted"));

	auto expect_refused = [](MuxPipeline &pipeline, const std::string &fault) {
		ASSERT_TRUE(pipeline.wait_inactive(20000));
		EXPECT_EQ(pipeline.stop_codes(), std::vector<long long>{OBS_OUTPUT_ERROR});
		const cv::Error failure = cv::mux_output_failure(pipeline.output());
		EXPECT_EQ(failure.code, cv::ErrorCode::Certificate);
		EXPECT_EQ(failure.detail, fault);
		EXPECT_NE(std::string(pipeline.last_error()).find("certificate"), std::string::npos);
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		MuxPipeline pipeline;
		const std::string url = "rtmps://localhost:" + std::to_string(ports[row.name]) + "/live";
		ASSERT_TRUE(pipeline.create(url, "key-" + row.name));
		ASSERT_TRUE(pipeline.start());
		if (!row.fault.empty()) {
			expect_refused(pipeline, row.fault);
			continue;
		}
		ASSERT_TRUE(pipeline.wait_connected(20000));
		sleep_ms(4000);
		// The server comes back with an expired certificate: the reconnect sends nothing.
		nginx.serve_tls(certificates.certificate("expired"), certificates.key("expired"), ports[row.name]);
		ASSERT_TRUE(nginx.restart(&error)) << error;
		expect_refused(pipeline, "expired");
	}
	nginx.stop();
	const std::string log = cvtest::read_file(nginx.dir() + "/error.log");
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		const std::vector<std::string> recordings = nginx.recordings("key-" + row.name);
		EXPECT_EQ(recordings.size(), row.fault.empty() ? 1u : 0u);
		if (!row.fault.empty()) {
			EXPECT_EQ(log.find("key-" + row.name), std::string::npos) << "the server saw the key";
		} else if (!recordings.empty()) {
			expect_clean(recordings[0], 4.0, cv::kFlvCarriesAllAudioTracks ? 2 : 1);
		}
	}
}

// While the vertical output hangs on a server that accepts and never answers, or on an
// SRT address where nothing answers, the host's own stream keeps sending and decodes
// without a gap, and stopping the vertical output returns at once.
TEST_F(MuxOutputTest, TheHostsStreamNeverWaitsForTheVerticalOne)
{
	std::string error;
	cvtest::RtmpServer nginx;
	ASSERT_TRUE(nginx.start(&error)) << error;
	cvtest::SilentTcpServer silent;
	OBSEncoderAutoRelease video = obs_video_encoder_create("obs_x264", "main video", nullptr, nullptr);
	OBSEncoderAutoRelease audio = obs_audio_encoder_create("ffmpeg_aac", "main audio", nullptr, 0, nullptr);
	obs_encoder_set_video(video, obs_get_video());
	obs_encoder_set_audio(audio, obs_get_audio());
	cvtest::HostRtmpOutput main = cvtest::make_host_rtmp_output(nginx.app_url(), "main", video, audio);
	ASSERT_TRUE(main.output && obs_output_start(main.output));
	ASSERT_TRUE(cvtest::wait_until([&] { return obs_output_get_total_bytes(main.output) > 0; }, 20000));

	// The longest time the host's byte count stood still over `ms`. Its recording cannot
	// tell: a stalled audio thread catches up with timestamps intact.
	using Clock = std::chrono::steady_clock;
	auto longest_pause = [&](int ms) {
		const Clock::time_point end = Clock::now() + std::chrono::milliseconds(ms);
		uint64_t bytes = obs_output_get_total_bytes(main.output);
		Clock::time_point changed = Clock::now();
		Clock::duration longest{};
		while (Clock::now() < end) {
			sleep_ms(5);
			if (const uint64_t now = obs_output_get_total_bytes(main.output); now != bytes) {
				bytes = now;
				changed = Clock::now();
			}
			longest = std::max(longest, Clock::now() - changed);
		}
		return std::chrono::duration<double>(longest).count();
	};
	for (const std::string &server : {"rtmp://127.0.0.1:" + std::to_string(silent.port()) + "/live",
					  "srt://127.0.0.1:" + std::to_string(cvtest::free_udp_port())}) {
		SCOPED_TRACE(server);
		MuxPipeline vertical;
		ASSERT_TRUE(vertical.create(server, "vertical-key"));
		ASSERT_TRUE(vertical.start());
		// A connect attempt lasts seconds; a busy machine can hold a packet back a little.
		EXPECT_LT(longest_pause(4000), 0.5) << "seconds the host's stream stood still";
		const Clock::time_point before = Clock::now();
		obs_output_stop(vertical.output());
		EXPECT_LT(std::chrono::duration<double>(Clock::now() - before).count(), 0.5) << "seconds to stop";
		EXPECT_TRUE(vertical.wait_inactive(5000));
	}
	obs_output_stop(main.output);
	ASSERT_TRUE(cvtest::wait_until([&] { return !obs_output_active(main.output); }, 10000));
	nginx.stop();
	const cvtest::StreamCheck check = cvtest::check_stream(nginx.recordings("main").at(0));
	EXPECT_EQ(check.error, "");
	EXPECT_LT(check.longest_gap, 0.1) << "seconds missing from the host's stream";
}
