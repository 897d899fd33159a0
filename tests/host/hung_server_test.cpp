// The host's own stream must not notice anything of the vertical one: while the vertical
// output connects to a server that never answers, the host's encoders, audio and
// outputs go on as if it were not there.

#include "host_fixture.h"
#include "host_rtmp_output.h"
#include "host_sources.h"
#include "media_packets.h"
#include "mux_pipeline.h"
#include "stream_servers.h"

#include "mux/mux_output.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

class HungServerTest : public cvtest::HostTest {
protected:
	cvtest::HostOptions host_options() const override
	{
		cvtest::HostOptions options;
		options.width = 640;
		options.height = 360;
		options.fps_num = 30;
		options.outputs = true;
		return options;
	}
};

OBSEncoderAutoRelease main_video_encoder()
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_int(settings, "bitrate", 1000);
	obs_data_set_string(settings, "rate_control", "CBR");
	obs_data_set_int(settings, "keyint_sec", 1);
	obs_data_set_string(settings, "preset", "ultrafast");
	OBSEncoderAutoRelease encoder = obs_video_encoder_create("obs_x264", "main video", settings, nullptr);
	obs_encoder_set_video(encoder, obs_get_video());
	return encoder;
}

OBSEncoderAutoRelease main_audio_encoder()
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_int(settings, "bitrate", 160);
	OBSEncoderAutoRelease encoder = obs_audio_encoder_create("ffmpeg_aac", "main audio", settings, 0, nullptr);
	obs_encoder_set_audio(encoder, obs_get_audio());
	return encoder;
}

// Watches how the host's output sends: the longest time its byte count stood still.
class SendWatch {
public:
	explicit SendWatch(obs_output_t *output) : output_(output), thread_([this] { run(); }) {}
	~SendWatch()
	{
		done_ = true;
		thread_.join();
	}
	double longest_pause_seconds() const { return longest_ns_.load() / 1e9; }

private:
	void run()
	{
		uint64_t last_bytes = obs_output_get_total_bytes(output_);
		auto last_change = Clock::now();
		while (!done_) {
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
			const uint64_t bytes = obs_output_get_total_bytes(output_);
			const auto now = Clock::now();
			if (bytes != last_bytes) {
				last_bytes = bytes;
				last_change = now;
			}
			const int64_t paused =
				std::chrono::duration_cast<std::chrono::nanoseconds>(now - last_change).count();
			if (paused > longest_ns_)
				longest_ns_ = paused;
		}
	}

	obs_output_t *output_;
	std::atomic<bool> done_{false};
	std::atomic<int64_t> longest_ns_{0};
	std::thread thread_;
};

bool wait_until(const std::function<bool()> &done, int timeout_ms)
{
	const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
	while (!done()) {
		if (Clock::now() > deadline)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
	}
	return true;
}

} // namespace

// (a) a TCP server that accepts and never answers, (b) an SRT address where nothing
// answers: the host's own stream to nginx goes on without a gap, and stopping the
// vertical output returns at once.
TEST_F(HungServerTest, MainStreamFlowsWhileTheVerticalServerNeverAnswers)
{
	cvtest::register_test_service();
	cv::register_mux_output();
	std::string error;
	cvtest::RtmpServer nginx;
	ASSERT_TRUE(nginx.start(&error)) << error;
	cvtest::SilentTcpServer silent;
	ASSERT_TRUE(silent.start(&error)) << error;

	OBSSceneAutoRelease scene = cvtest::make_three_band_scene("Main", 0xFF0000, 0x00FF00, 0x0000FF);
	obs_set_output_source(0, obs_scene_get_source(scene));
	OBSEncoderAutoRelease video = main_video_encoder();
	OBSEncoderAutoRelease audio = main_audio_encoder();
	cvtest::HostRtmpOutput main = cvtest::make_host_rtmp_output(nginx.app_url(), "main", video, audio);
	ASSERT_TRUE(main.output);
	ASSERT_TRUE(obs_output_start(main.output));
	ASSERT_TRUE(wait_until([&] { return obs_output_get_total_bytes(main.output) > 0; }, 20000));

	SendWatch watch(main.output);
	const std::string targets[][2] = {
		{"rtmp://127.0.0.1:" + std::to_string(silent.port()) + "/live", "vertical-key"},
		{"srt://127.0.0.1:" + std::to_string(cvtest::free_udp_port()) + "?streamid=vertical", ""},
	};
	for (const auto &target : targets) {
		SCOPED_TRACE(target[0]);
		cvtest::MuxPipeline vertical;
		ASSERT_TRUE(vertical.create(target[0], target[1]));
		ASSERT_TRUE(vertical.start());
		std::this_thread::sleep_for(std::chrono::seconds(4));
		const auto before = Clock::now();
		obs_output_stop(vertical.output());
		const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before);
		EXPECT_LT(took.count(), 500) << "stopping the vertical output held the caller";
		EXPECT_TRUE(vertical.wait_inactive(5000));
	}

	std::this_thread::sleep_for(std::chrono::seconds(1));
	EXPECT_LT(watch.longest_pause_seconds(), 0.1) << "the host's stream stood still";
	obs_output_stop(main.output);
	ASSERT_TRUE(wait_until([&] { return !obs_output_active(main.output); }, 10000));
	obs_set_output_source(0, nullptr);
	nginx.stop();

	const std::vector<std::string> recordings = nginx.recordings("main");
	ASSERT_EQ(recordings.size(), 1u);
	EXPECT_EQ(cvtest::decode_errors(recordings[0]), "");
	const cvtest::MediaPackets packets = cvtest::read_packets(recordings[0]);
	ASSERT_EQ(packets.error, "");
	for (const char *type : {"video", "audio"}) {
		const cvtest::MediaStream *stream = packets.first(type);
		ASSERT_NE(stream, nullptr) << type;
		EXPECT_GT(stream->packets.size(), 100u) << type;
		EXPECT_LT(cvtest::longest_gap(*stream), 0.1) << type << " of the host's stream stopped";
	}
}
