// The vertical output on a real canvas, with the host's encoders and real servers.

#include "host.h"
#include "media.h"
#include "pipeline.h"
#include "servers.h"
#include "sources.h"
#include "wait.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "stream/mux_output.h"

#include <memory>
#include <mutex>
#include <utility>

using cvtest::sleep_ms;

namespace {

constexpr uint32_t kGreen = 0x00FF00;
constexpr uint32_t kBlue = 0x0000FF;

size_t encoder_count()
{
	size_t count = 0;
	obs_enum_encoders([](void *param, obs_encoder_t *) { return ++*static_cast<size_t *>(param), true; }, &count);
	return count;
}

// A 360x640 canvas showing a host scene of four bands (red, green, blue, white): its 9:16
// cover shows the right half of green and the left half of blue.
class VerticalOutputTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		cv::register_mux_output();
		scene_ = cvtest::make_band_scene("Show", {0xFF0000, kGreen, kBlue, 0xFFFFFF});
		canvas_ = std::make_unique<cv::VerticalCanvas>(cv::CanvasConfig{360, 640, 30, 1, true});
		ASSERT_TRUE(canvas_->init());
		ASSERT_TRUE(canvas_->assign_scene_source("Scene 1", "Show"));
	}
	void TearDown() override
	{
		output_.reset();
		canvas_.reset();
		scene_ = nullptr;
		HostTest::TearDown();
	}

	cv::VerticalOutput &make_output(const std::string &url, const std::string &key)
	{
		output_ = std::make_unique<cv::VerticalOutput>(canvas_.get(), cv::OutputConfig{url, key, 1000},
							       [this](const std::string &error) {
								       std::lock_guard lock(errors_mutex_);
								       errors_.push_back(error);
							       });
		EXPECT_TRUE(output_->init());
		return *output_;
	}
	std::vector<std::string> take_errors()
	{
		std::lock_guard lock(errors_mutex_);
		return std::exchange(errors_, {});
	}

	OBSSceneAutoRelease scene_;
	std::unique_ptr<cv::VerticalCanvas> canvas_;
	std::unique_ptr<cv::VerticalOutput> output_;
	std::mutex errors_mutex_;
	std::vector<std::string> errors_;
};

} // namespace

// No address: nothing is made. "auto" tries the hardware encoders first; none works here,
// so x264 streams, with every audio track. A start while live makes nothing new. Only a
// stop with an error says something to the user: the output's last error, or a default.
TEST_F(VerticalOutputTest, StartsWithAnEncoderThatWorksAndReportsOnlyErrorStops)
{
	EXPECT_FALSE(make_output("", "key").start());
	EXPECT_EQ(encoder_count(), 0u);
	EXPECT_TRUE(cvtest::mux_outputs().empty());
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cv::VerticalOutput &output = make_output(server.app_url(), "errors");
	ASSERT_TRUE(output.start());
	obs_output_t *mux = cvtest::mux_outputs().at(0);
	EXPECT_STREQ(obs_encoder_get_id(obs_output_get_video_encoder(mux)), "obs_x264");
	for (size_t track = 0; track < cv::kAudioTrackCount; track++)
		EXPECT_NE(obs_output_get_audio_encoder(mux, track), nullptr) << track;
	const size_t encoders = encoder_count();
	EXPECT_TRUE(output.start());
	EXPECT_EQ(encoder_count(), encoders);
	EXPECT_EQ(cvtest::mux_outputs().size(), 1u);

	const struct {
		long long code;
		const char *last_error;
		const char *reported; // null: nothing
	} cases[] = {
		{OBS_OUTPUT_ERROR, "Server said no", "Server said no"},
		{OBS_OUTPUT_ERROR, nullptr, "Vertical output failed to connect.\nCheck your RTMP URL and stream key."},
		{OBS_OUTPUT_SUCCESS, "ignored", nullptr},
		{OBS_OUTPUT_BAD_PATH, "ignored", nullptr},
	};
	for (const auto &c : cases) {
		ASSERT_TRUE(output.start());
		mux = cvtest::mux_outputs().at(0);
		obs_output_set_last_error(mux, c.last_error);
		obs_output_signal_stop(mux, int(c.code));
		sleep_ms(300);
		EXPECT_EQ(take_errors(), c.reported ? std::vector<std::string>{c.reported} : std::vector<std::string>{})
			<< c.code;
		ASSERT_TRUE(cvtest::wait_until([&] { return !output.is_active(); }, 5000));
	}
}

// New settings reach the next start; the running stream keeps its server. What arrives
// shows the canvas, the cover placement of the scene from the top row to the bottom one,
// with all six audio tracks; no secret reaches the log.
TEST_F(VerticalOutputTest, TheStreamShowsTheCanvasAndNewSettingsWaitForTheNextStart)
{
	std::string error;
	cvtest::RtmpServer nginx;
	cvtest::SrtListener listener("passphrase=verysecret42");
	ASSERT_TRUE(nginx.start(&error) && listener.start(&error)) << error;
	cv::VerticalOutput &output = make_output(nginx.app_url(), "vertical-key");
	ASSERT_TRUE(output.start());
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	output.update_config(cv::OutputConfig{listener.url(), "vertical-key"});
	sleep_ms(1500);
	output.stop();
	// The host ends the capture on a thread of its own; until then a start only reports
	// the stream as already running.
	ASSERT_TRUE(cvtest::wait_until([&] { return !output.is_active(); }, 5000));
	ASSERT_TRUE(output.start());
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	sleep_ms(3000);
	output.stop();
	const std::vector<std::string> files = listener.recordings();
	ASSERT_EQ(files.size(), 1u);
	EXPECT_EQ(nginx.recordings("vertical-key").size(), 1u);
	const cvtest::StreamCheck check = cvtest::check_stream(files[0]);
	EXPECT_EQ(check.error, "");
	EXPECT_TRUE(check.starts_with_keyframe);
	EXPECT_EQ(check.audio_streams, cv::kAudioTrackCount);
	const std::vector<uint8_t> rgb = cvtest::decode_frame_rgb(files[0], 1.0);
	ASSERT_EQ(rgb.size(), 360u * 640 * 3);
	auto pixel = [&](double fx, double fy) {
		const size_t at = (size_t(fy * 639) * 360 + size_t(fx * 359)) * 3;
		return (uint32_t(rgb[at]) << 16) | (uint32_t(rgb[at + 1]) << 8) | rgb[at + 2];
	};
	for (double fy : {0.02, 0.5, 0.98}) {
		for (double fx : {0.05, 0.45})
			EXPECT_TRUE(cvtest::close_to(pixel(fx, fy), kGreen)) << fx << "," << fy;
		for (double fx : {0.55, 0.95})
			EXPECT_TRUE(cvtest::close_to(pixel(fx, fy), kBlue)) << fx << "," << fy;
	}
	EXPECT_EQ(cvtest::log_count("vertical-key"), 0u);
	EXPECT_EQ(cvtest::log_count("verysecret42"), 0u);
	// Once the output is gone, nothing of it is left.
	output_.reset();
	EXPECT_TRUE(cvtest::mux_outputs().empty());
	EXPECT_EQ(encoder_count(), 0u);
}
