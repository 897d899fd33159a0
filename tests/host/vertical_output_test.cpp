// The vertical output on a real canvas, with the host's encoders and real servers.

#include "host.h"
#include "media.h"
#include "pipeline.h"
#include "process.h"
#include "servers.h"
#include "sources.h"
#include "wait.h"

#include "canvas/vertical_canvas.h"
#include "output/host_services.h"
#include "output/vertical_output.h"
#include "stream/mux_output.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <tuple>
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

	cv::VerticalOutput &make_output(const std::vector<cv::DestinationSettings> &destinations)
	{
		output_ = std::make_unique<cv::VerticalOutput>(canvas_.get(), cv::OutputConfig{destinations, 1000},
							       [this](const std::string &name, const cv::Error &error) {
								       std::lock_guard lock(errors_mutex_);
								       errors_.push_back(name + ": " + english(error));
							       });
		EXPECT_TRUE(output_->init());
		return *output_;
	}
	std::vector<std::string> take_errors()
	{
		std::lock_guard lock(errors_mutex_);
		return std::exchange(errors_, {});
	}
	cv::StreamState state(size_t destination) const { return output_->destinations().at(destination).state; }
	bool wait_state(size_t destination, cv::StreamState wanted, int timeout_ms = 20000) const
	{
		return cvtest::wait_until([&] { return state(destination) == wanted; }, timeout_ms);
	}

	OBSSceneAutoRelease scene_;
	std::unique_ptr<cv::VerticalCanvas> canvas_;
	std::unique_ptr<cv::VerticalOutput> output_;
	std::mutex errors_mutex_;
	std::vector<std::string> errors_;
};

} // namespace

namespace cv {
// Readable failure messages.
inline void PrintTo(const Error &error, std::ostream *os)
{
	*os << error_name(error.code) << " " << error.detail;
}
} // namespace cv

// An address that cannot be used fails its destination at once, before any encoder is
// made. "auto" tries the hardware encoders first; none works here, so x264 streams, with
// the canvas's audio track, on the output's job thread. A start while live makes nothing
// new. Only a stop with an error is reported, by its code.
TEST_F(VerticalOutputTest, StartsWithAnEncoderThatWorksAndReportsOnlyErrorStops)
{
	const struct {
		const char *url;
		const char *key;
		cv::ErrorCode code;
	} unusable[] = {
		{" ", "key", cv::ErrorCode::UrlEmpty},
		{"rtmp://127.0.0.1/live", " ", cv::ErrorCode::KeyEmpty},
		{"http://127.0.0.1/live", "key", cv::ErrorCode::UrlUnusable},
	};
	for (const auto &c : unusable) {
		EXPECT_EQ(make_output({{"Bad", c.url, c.key, true, {}}}).start().code, c.code) << c.url;
		EXPECT_EQ(output_->destinations().at(0).error.code, c.code);
		EXPECT_EQ(state(0), cv::StreamState::Failed);
	}
	EXPECT_EQ(make_output({{"Off", "rtmp://127.0.0.1/live", "key", false, {}}}).start().code,
		  cv::ErrorCode::NoDestinationOn);
	EXPECT_EQ(output_->start("no such id").code, cv::ErrorCode::NoSuchDestination);
	EXPECT_EQ(encoder_count(), 0u);
	EXPECT_TRUE(cvtest::mux_outputs().empty());

	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cv::VerticalOutput &output = make_output({{"Only", server.app_url(), "errors", true, {}}});
	ASSERT_FALSE(output.start());
	ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
	obs_output_t *mux = cvtest::mux_outputs().at(0);
	EXPECT_STREQ(obs_encoder_get_id(obs_output_get_video_encoder(mux)), "obs_x264");
	EXPECT_NE(obs_output_get_audio_encoder(mux, 0), nullptr);
	const size_t encoders = encoder_count();
	EXPECT_FALSE(output.start());
	EXPECT_TRUE(output.wait_idle(std::chrono::milliseconds(300)) == false) << "it streams";
	EXPECT_EQ(encoder_count(), encoders);
	EXPECT_EQ(cvtest::mux_outputs().size(), 1u);

	const struct {
		long long code;
		const char *reported; // null: nothing
	} cases[] = {
		{OBS_OUTPUT_ERROR, "Only: Vertical output failed to connect.\nCheck your RTMP URL and stream key."},
		{OBS_OUTPUT_ENCODE_ERROR, "Only: The video encoder stopped with an error"},
		{OBS_OUTPUT_SUCCESS, nullptr},
		{OBS_OUTPUT_BAD_PATH, nullptr},
	};
	for (const auto &c : cases) {
		ASSERT_FALSE(output.start());
		ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
		obs_output_signal_stop(cvtest::mux_outputs().at(0), int(c.code));
		ASSERT_TRUE(output.wait_idle(std::chrono::seconds(5)));
		EXPECT_EQ(take_errors(), c.reported ? std::vector<std::string>{c.reported} : std::vector<std::string>{})
			<< c.code;
		EXPECT_EQ(encoder_count(), 0u) << "the encoders go with the last output on them";
	}
}

// New settings reach the next start; the running stream keeps its server. What arrives
// shows the canvas, the cover placement of the scene from the top row to the bottom one,
// with its audio track; no secret reaches the log.
TEST_F(VerticalOutputTest, TheStreamShowsTheCanvasAndNewSettingsWaitForTheNextStart)
{
	std::string error;
	cvtest::RtmpServer nginx;
	cvtest::SrtListener listener("passphrase=verysecret42");
	ASSERT_TRUE(nginx.start(&error) && listener.start(&error)) << error;
	cv::VerticalOutput &output = make_output({{"Main", nginx.app_url(), "vertical-key", true, {}}});
	ASSERT_FALSE(output.start());
	ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
	output.update_config(cv::OutputConfig{{{"Renamed", listener.url(), "vertical-key", true, "#1"}}});
	EXPECT_EQ(state(0), cv::StreamState::Live) << "the same destination, live on its old address";
	sleep_ms(1500);
	output.stop();
	ASSERT_FALSE(output.start()) << "a stop just asked for does not hold up a start";
	ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
	sleep_ms(3000);
	output.stop();
	ASSERT_TRUE(output.wait_idle(std::chrono::seconds(5)));
	const std::vector<std::string> files = listener.recordings();
	ASSERT_EQ(files.size(), 1u);
	EXPECT_EQ(nginx.recordings("vertical-key").size(), 1u);
	const cvtest::StreamCheck check = cvtest::check_stream(files[0]);
	EXPECT_EQ(check.error, "");
	EXPECT_TRUE(check.starts_with_keyframe);
	EXPECT_EQ(check.audio_streams, 1u);
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

// Each layout, as the server receives it: the focus at the scene's left edge, the whole
// scene on its blurred copy, two bands stacked; changed while live.
TEST_F(VerticalOutputTest, EveryLayoutReachesTheServer)
{
	std::string error;
	cvtest::RtmpServer nginx;
	ASSERT_TRUE(nginx.start(&error)) << error;
	cv::VerticalOutput &output = make_output({{"Main", nginx.app_url(), "layouts", true, {}}});
	cv::SceneLayout left, fit, stack;
	left.focus_x = 0;
	fit.kind = cv::LayoutKind::Fit;
	stack.kind = cv::LayoutKind::Stack;
	stack.top = {1440, 0, 480, 1080};
	stack.bottom = {0, 0, 480, 1080};
	ASSERT_TRUE(canvas_->set_scene_layout("Scene 1", left));
	ASSERT_FALSE(output.start());
	ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
	for (const cv::SceneLayout &layout : {left, fit, stack}) {
		canvas_->set_scene_layout("Scene 1", layout);
		sleep_ms(1800);
	}
	output.stop();
	ASSERT_TRUE(output.wait_idle(std::chrono::seconds(5)));
	const std::vector<std::string> files = nginx.recordings("layouts");
	ASSERT_EQ(files.size(), 1u);
	EXPECT_EQ(cvtest::check_stream(files[0]).error, "");
	const struct {
		double at;
		std::vector<std::pair<double, double>> points;
		std::vector<uint32_t> colours;
	} frames[] = {
		{0.9, {{0.05, 0.1}, {0.05, 0.9}}, {0xFF0000, 0xFF0000}},
		{2.7, {{0.1, 0.5}}, {0xFF0000}},
		{4.5, {{0.5, 0.1}, {0.5, 0.45}, {0.5, 0.55}, {0.5, 0.9}}, {0xFFFFFF, 0xFFFFFF, 0xFF0000, 0xFF0000}},
	};
	for (const auto &frame : frames) {
		const std::vector<uint8_t> rgb = cvtest::decode_frame_rgb(files[0], frame.at);
		ASSERT_EQ(rgb.size(), 360u * 640 * 3) << frame.at;
		auto pixel = [&](double fx, double fy) {
			const size_t at = (size_t(fy * 639) * 360 + size_t(fx * 359)) * 3;
			return (uint32_t(rgb[at]) << 16) | (uint32_t(rgb[at + 1]) << 8) | rgb[at + 2];
		};
		for (size_t i = 0; i < frame.points.size(); i++) {
			const auto [fx, fy] = frame.points[i];
			EXPECT_TRUE(cvtest::close_to(pixel(fx, fy), frame.colours[i]))
				<< frame.at << " s at " << fx << "," << fy << ": " << std::hex << pixel(fx, fy);
		}
		if (frame.at > 2 && frame.at < 3) {
			// Above the fitted scene: its blurred, darkened green.
			const uint32_t blurred = pixel(0.1, 0.1);
			const int r = int(blurred >> 16), g = int(blurred >> 8 & 0xFF), b = int(blurred & 0xFF);
			EXPECT_TRUE(g > r + 40 && g > b + 40 && g < 215) << std::hex << blurred;
		}
	}
}

// Two destinations on nginx publish from one encode while one points where nothing
// listens, one at a server that never answers and one is switched off: the first two
// stream whole, each failure is told by its destination's name, and each says how it is.
// The refused one is brought up once its server is there, and stopped alone, leaving the
// others' connections as they were.
TEST_F(VerticalOutputTest, DestinationsShareOneEncodeAndFailAlone)
{
	std::string error;
	cvtest::RtmpServer nginx;
	ASSERT_TRUE(nginx.start(&error)) << error;
	cvtest::SilentTcpServer silent;
	const std::string nowhere = "rtmp://127.0.0.1:" + std::to_string(cvtest::free_tcp_port()) + "/live";
	cv::VerticalOutput &output = make_output(
		{{"A", nginx.app_url(), "key-a", true, {}},
		 {"B", nginx.app_url(), "key-b", true, {}},
		 {"Refused", nowhere, "key-c", true, {}},
		 {"Silent", "rtmp://127.0.0.1:" + std::to_string(silent.port()) + "/live", "key-d", true, {}},
		 {"Off", nginx.app_url(), "key-e", false, {}}});
	ASSERT_FALSE(output.start());
	ASSERT_TRUE(wait_state(1, cv::StreamState::Live));
	EXPECT_EQ(encoder_count(), 2u) << "one video and one audio encoder for all";
	sleep_ms(4000);
	const std::vector<cv::DestinationStatus> status = output.destinations();
	const std::vector<cv::StreamState> states = {cv::StreamState::Live, cv::StreamState::Live,
						     cv::StreamState::Failed, cv::StreamState::Connecting,
						     cv::StreamState::Stopped};
	for (size_t i = 0; i < states.size(); i++)
		EXPECT_EQ(status[i].state, states[i]) << status[i].name << ": " << english(status[i].error);
	EXPECT_FALSE(status[4].enabled);
	EXPECT_EQ(status[0].stats.dropped.video_frames + status[1].stats.dropped.video_frames, 0u);
	EXPECT_EQ(take_errors(),
		  std::vector<std::string>{"Refused: Stream rejected — check server URL and stream key"});

	// The refused destination's address now leads to nginx: Start brings up that one alone.
	cv::OutputConfig config = output.config();
	config.destinations[2].url = nginx.app_url();
	output.update_config(config);
	ASSERT_FALSE(output.start());
	ASSERT_TRUE(wait_state(2, cv::StreamState::Live));
	// Joined mid-picture-group, it waits for the encode's next keyframe.
	sleep_ms(3000);
	output.stop(output.destinations()[2].id);
	ASSERT_TRUE(cvtest::wait_until([&] { return state(2) == cv::StreamState::Stopped; }, 5000));
	EXPECT_EQ(state(0), cv::StreamState::Live);
	output.stop();
	ASSERT_TRUE(output.wait_idle(std::chrono::seconds(5)));
	nginx.stop();
	for (const char *key : {"key-a", "key-b", "key-c"}) {
		ASSERT_EQ(nginx.recordings(key).size(), 1u) << key << ": one connection, never touched";
		const cvtest::StreamCheck check = cvtest::check_stream(nginx.recordings(key).at(0));
		EXPECT_EQ(check.error, "") << key;
		EXPECT_TRUE(check.starts_with_keyframe) << key;
		EXPECT_LT(check.longest_gap, 0.1) << key;
	}
	for (const char *key : {"key-a", "key-b"})
		EXPECT_GT(cvtest::check_stream(nginx.recordings(key).at(0)).video_seconds, 3.5) << key;
	EXPECT_TRUE(nginx.recordings("key-e").empty());
}

namespace {

// How often the host drew the counting source and asked it for audio.
std::atomic<int> drawn{0}, heard{0};

// A small grey source that counts both.
void register_counting_source()
{
	obs_source_info info = {};
	info.id = "cv_test_counting";
	info.type = OBS_SOURCE_TYPE_INPUT;
	info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_COMPOSITE;
	info.get_name = [](void *) {
		return "Counting";
	};
	info.create = [](obs_data_t *, obs_source_t *) -> void * {
		return &drawn;
	};
	info.destroy = [](void *) {
	};
	info.get_width = [](void *) {
		return 64u;
	};
	info.get_height = [](void *) {
		return 64u;
	};
	info.video_render = [](void *, gs_effect_t *) {
		drawn++;
	};
	info.audio_render = [](void *, uint64_t *, obs_source_audio_mix *, uint32_t, size_t, size_t) {
		heard++;
		return false;
	};
	obs_register_source(&info);
}

} // namespace

// Nothing is drawn or mixed for the vertical canvas while nothing is sent: a start brings
// both at once, and they stop again once the output has.
TEST_F(VerticalOutputTest, NothingIsDrawnOrMixedWhileNothingIsSent)
{
	register_counting_source();
	OBSSourceAutoRelease counting = obs_source_create("cv_test_counting", "Counting", nullptr, nullptr);
	OBSSceneAutoRelease counted = obs_scene_create("Counted");
	obs_scene_add(counted, counting);
	ASSERT_TRUE(canvas_->assign_scene_source("Scene 1", "Counted"));
	auto counts_over = [](int ms) {
		const int frames = drawn, ticks = heard;
		sleep_ms(ms);
		return std::pair{drawn - frames, heard - ticks};
	};
	EXPECT_EQ(counts_over(1000), std::pair(0, 0)) << "idle";
	std::string error;
	cvtest::RtmpServer nginx;
	ASSERT_TRUE(nginx.start(&error)) << error;
	cv::VerticalOutput &output = make_output({{"A", nginx.app_url(), "counted", true, {}}});
	ASSERT_FALSE(output.start());
	ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
	const auto [frames, ticks] = counts_over(1000);
	EXPECT_GE(frames, 25) << "every frame of a 30 fps canvas";
	EXPECT_GE(ticks, 40) << "every tick of the host's audio";
	EXPECT_TRUE(canvas_->audio_running());
	output.stop();
	ASSERT_TRUE(output.wait_idle(std::chrono::seconds(5)));
	output.drop_unused_video(); // as the plug-in does once its output is idle
	EXPECT_FALSE(canvas_->audio_running());
	EXPECT_EQ(counts_over(1000), std::pair(0, 0)) << "stopped";
}

// With the audio following the active vertical scene, the stream carries the tone of the
// sources in that scene's host scene only, not the host's program, before and after a
// switch; no source's mixer settings change.
TEST_F(VerticalOutputTest, TheAudioIsTheActiveScenesOwn)
{
	std::vector<OBSSourceAutoRelease> tones;
	std::vector<OBSSceneAutoRelease> scenes;
	for (const int hz : {440, 1000, 2500}) {
		const std::string wav = temp_dir() + "/" + std::to_string(hz) + ".wav";
		std::string output;
		ASSERT_EQ(cvtest::run_program({"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
					       "sine=frequency=" + std::to_string(hz) + ":duration=4", wav},
					      20000, &output),
			  0)
			<< output;
		OBSDataAutoRelease settings = obs_data_create();
		obs_data_set_string(settings, "local_file", wav.c_str());
		obs_data_set_bool(settings, "looping", true);
		tones.emplace_back(obs_source_create("ffmpeg_source", wav.c_str(), settings, nullptr));
		scenes.emplace_back(obs_scene_create(std::to_string(hz).c_str()));
		obs_scene_add(scenes.back(), tones.back());
	}
	obs_source_set_audio_mixers(tones[1], 0b000011);
	obs_source_set_volume(tones[1], 0.5f);
	// The host's program plays the third tone.
	obs_set_output_source(0, obs_scene_get_source(scenes[2]));
	auto settings_of = [&] {
		std::vector<std::tuple<uint32_t, float, int>> all;
		for (const OBSSourceAutoRelease &tone : tones)
			all.emplace_back(obs_source_get_audio_mixers(tone), obs_source_get_volume(tone),
					 int(obs_source_get_monitoring_type(tone)));
		return all;
	};
	const auto before = settings_of();
	ASSERT_TRUE(canvas_->create_scene("Low") && canvas_->create_scene("High"));
	ASSERT_TRUE(canvas_->assign_scene_source("Low", "440") && canvas_->assign_scene_source("High", "1000"));
	ASSERT_TRUE(canvas_->set_active_scene("Low"));
	std::string error;
	cvtest::RtmpServer nginx;
	ASSERT_TRUE(nginx.start(&error)) << error;
	cv::VerticalOutput &output = make_output({{"A", nginx.app_url(), "tones", true, {}}});
	ASSERT_FALSE(output.start());
	ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
	sleep_ms(3000);
	ASSERT_TRUE(canvas_->set_active_scene("High"));
	sleep_ms(3000);
	output.stop();
	ASSERT_TRUE(output.wait_idle(std::chrono::seconds(5)));
	nginx.stop();
	const std::vector<float> pcm = cvtest::decode_audio(nginx.recordings("tones").at(0), 8000);
	ASSERT_GT(pcm.size(), 8000u * 5);
	// Goertzel: the power of one frequency over 1.5 s of samples from `from`.
	auto power = [&](size_t from, double hz) {
		const double k = 2 * std::cos(2 * M_PI * hz / 8000);
		double s1 = 0, s2 = 0;
		for (size_t i = from; i < from + 12000; i++)
			s2 = std::exchange(s1, pcm[i] + k * s1 - s2);
		return s1 * s1 + s2 * s2 - k * s1 * s2;
	};
	for (const auto &[from, heard, silent] :
	     {std::tuple{size_t(4000), 440.0, 1000.0}, std::tuple{pcm.size() - 14000, 1000.0, 440.0}}) {
		EXPECT_GT(power(from, heard), 100 * power(from, silent)) << heard;
		EXPECT_GT(power(from, heard), 100 * power(from, 2500.0)) << heard << " against the program's tone";
	}
	output_.reset();
	canvas_.reset();
	obs_set_output_source(0, nullptr);
	EXPECT_EQ(settings_of(), before);
}

namespace {

// With the host's own output modules: its streaming services are there too.
class HostChoicesTest : public VerticalOutputTest {
protected:
	cvtest::HostOptions host_options() const override
	{
		cvtest::HostOptions options;
		options.outputs = true;
		return options;
	}
};

// An H.264 encoder the host offers that cannot open: a chosen one that fails.
void register_broken_encoder()
{
	obs_encoder_info info = {};
	info.id = "cv_test_broken_h264";
	info.type = OBS_ENCODER_VIDEO;
	info.codec = "h264";
	info.get_name = [](void *) {
		return "Broken H.264";
	};
	info.create = [](obs_data_t *, obs_encoder_t *) -> void * {
		return nullptr;
	};
	info.destroy = [](void *) {
	};
	info.encode = [](void *, encoder_frame *, encoder_packet *, bool *) {
		return false;
	};
	obs_register_encoder(&info);
}

} // namespace

// The encoder list and the service list are the running host's own: a chosen encoder
// that cannot open falls back to the others (x264 here, where no hardware encoder is),
// saying so, and a service destination streams to one of that service's servers.
TEST_F(HostChoicesTest, EncodersAndServicesAreTheHosts)
{
	register_broken_encoder();
	const std::vector<cv::HostChoice> encoders = cv::host_h264_encoders();
	auto offered = [&](const char *id) {
		return std::find_if(encoders.begin(), encoders.end(),
				    [&](const cv::HostChoice &e) { return e.value == id; }) != encoders.end();
	};
	EXPECT_TRUE(offered("obs_x264") && offered("cv_test_broken_h264"));
	for (const cv::HostChoice &encoder : encoders)
		EXPECT_STREQ(obs_get_encoder_codec(encoder.value.c_str()), "h264") << encoder.value;
	const std::vector<cv::HostChoice> presets = cv::encoder_presets("obs_x264");
	EXPECT_TRUE(std::any_of(presets.begin(), presets.end(),
				[](const cv::HostChoice &p) { return p.value == "veryfast"; }));

	cvtest::RtmpServer nginx;
	std::string error;
	ASSERT_TRUE(nginx.start(&error)) << error;
	output_ = std::make_unique<cv::VerticalOutput>(
		canvas_.get(), cv::OutputConfig{{{"A", nginx.app_url(), "fallback"}}, 1000, "", "cv_test_broken_h264"});
	ASSERT_TRUE(output_->init());
	ASSERT_FALSE(output_->start());
	ASSERT_TRUE(wait_state(0, cv::StreamState::Live));
	EXPECT_STREQ(obs_encoder_get_id(obs_output_get_video_encoder(cvtest::mux_outputs().at(0))), "obs_x264");
	EXPECT_EQ(cvtest::log_count("Encoder cv_test_broken_h264 failed to start output"), 1u);
	output_->stop();
	ASSERT_TRUE(output_->wait_idle(std::chrono::seconds(5)));

	const std::vector<std::string> services = cv::host_services();
	ASSERT_FALSE(services.empty());
	const auto service = std::find_if(services.begin(), services.end(),
					  [](const std::string &name) { return cv::service_servers(name).size() > 1; });
	ASSERT_NE(service, services.end());
	const std::vector<cv::HostChoice> servers = cv::service_servers(*service);
	EXPECT_EQ(cv::service_url(*service, ""), servers.front().value);
	output_ = std::make_unique<cv::VerticalOutput>(
		canvas_.get(), cv::OutputConfig{{{"S", servers.back().value, "k", true, {}, *service},
						 {"Gone", "", "k", true, {}, "No Such Service"}}});
	ASSERT_TRUE(output_->init());
	output_->start();
	EXPECT_EQ(output_->destinations()[1].error, cv::Error(cv::ErrorCode::NoSuchService, "No Such Service"));
	ASSERT_TRUE(cvtest::wait_until([] { return !cvtest::mux_outputs().empty(); }, 10000));
	OBSDataAutoRelease settings = obs_output_get_settings(cvtest::mux_outputs().at(0));
	EXPECT_EQ(std::string(obs_data_get_string(settings, "server")), servers.back().value);
	output_->stop();
	ASSERT_TRUE(output_->wait_idle(std::chrono::seconds(15)));
}
