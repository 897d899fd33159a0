#include "canvas_output_fixture.h"
#include "log_capture.h"
#include "mux_pipeline.h"
#include "recording_probe.h"
#include "stream_servers.h"

#include "canvas/vertical_canvas.h"
#include "mux/mux_output.h"
#include "output/vertical_output.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QTimer>

#include <obs-module.h>

#include <chrono>
#include <memory>
#include <thread>

using cvtest::log_contains;
using cvtest::log_count;
using cvtest::wait_for_log;

namespace {

const char *const kHardwareIds[] = {"jim_nvenc", "jim_nvenc_h264", "h264_amf", "obs_qsv11", "obs_qsv11_v2"};

void sleep_ms(int ms)
{
	std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

size_t encoder_count()
{
	size_t count = 0;
	obs_enum_encoders(
		[](void *param, obs_encoder_t *) {
			++*static_cast<size_t *>(param);
			return true;
		},
		&count);
	return count;
}

// The encoder ids the start sequence tried, in order.
std::vector<std::string> tried_encoders()
{
	static const std::string marker = "Trying vertical output encoder: ";
	std::vector<std::string> ids;
	for (const std::string &line : cvtest::log_lines()) {
		const size_t at = line.find(marker);
		if (at != std::string::npos)
			ids.push_back(line.substr(at + marker.size()));
	}
	return ids;
}

bool close_to(uint32_t rgb, uint32_t expected)
{
	for (int shift = 0; shift <= 16; shift += 8) {
		const int a = int((rgb >> shift) & 0xFF);
		const int b = int((expected >> shift) & 0xFF);
		if (std::abs(a - b) > 48)
			return false;
	}
	return true;
}

std::string hex(uint32_t rgb)
{
	char text[16];
	snprintf(text, sizeof(text), "%06X", rgb);
	return text;
}

// A hardware encoder id that the host knows but that cannot open here; it remembers
// the settings it was asked to open with.
std::string recorded_hardware_settings;

void register_unopenable_encoder(const char *id)
{
	obs_encoder_info info = {};
	info.id = id;
	info.type = OBS_ENCODER_VIDEO;
	info.codec = "h264";
	info.get_name = [](void *) {
		return "unopenable test encoder";
	};
	info.create = [](obs_data_t *settings, obs_encoder_t *) -> void * {
		recorded_hardware_settings = obs_data_get_json(settings);
		return nullptr;
	};
	info.destroy = [](void *) {
	};
	info.encode = [](void *, encoder_frame *, encoder_packet *, bool *) {
		return false;
	};
	obs_register_encoder(&info);
}

class VerticalOutputTest : public cvtest::CanvasOutputTest {
protected:
	// Streams to the server for `seconds` and returns the one recording of `key`.
	std::string stream_for(cv::VerticalOutput &output, double seconds,
			       const std::function<std::vector<std::string>()> &recordings)
	{
		EXPECT_TRUE(output.start());
		EXPECT_TRUE(cvtest::wait_mux_connected(20000));
		sleep_ms(int(seconds * 1000));
		output.stop();
		sleep_ms(500);
		const std::vector<std::string> files = recordings();
		return files.size() == 1 ? files[0] : std::string();
	}

	// The decoded picture shows the cover placement: the left half green, the right
	// half blue, from the top row to the bottom row (no bars, no other band).
	static void expect_cover_picture(const std::string &path)
	{
		std::vector<uint8_t> rgb;
		int width = 0;
		int height = 0;
		std::string error;
		ASSERT_TRUE(cvtest::decode_frame_rgb(path, 1.0, &rgb, &width, &height, &error)) << error;
		ASSERT_EQ(width, 360);
		ASSERT_EQ(height, 640);
		auto pixel = [&](double fx, double fy) {
			const size_t at = (size_t(fy * (height - 1)) * size_t(width) + size_t(fx * (width - 1))) * 3;
			return (uint32_t(rgb[at]) << 16) | (uint32_t(rgb[at + 1]) << 8) | rgb[at + 2];
		};
		for (double fy : {0.02, 0.5, 0.98}) {
			for (double fx : {0.05, 0.45}) {
				const uint32_t seen = pixel(fx, fy);
				EXPECT_TRUE(close_to(seen, kGreen)) << fx << "," << fy << ": " << hex(seen);
			}
			for (double fx : {0.55, 0.95}) {
				const uint32_t seen = pixel(fx, fy);
				EXPECT_TRUE(close_to(seen, kBlue)) << fx << "," << fy << ": " << hex(seen);
			}
		}
	}

	static void expect_stream(const std::string &path, int audio_tracks)
	{
		ASSERT_FALSE(path.empty());
		const cvtest::RecordingInfo info = cvtest::probe_recording(path);
		ASSERT_TRUE(info.opened) << info.error;
		EXPECT_EQ(info.video_codec, "h264") << cvtest::describe(info);
		EXPECT_EQ(info.width, 360);
		EXPECT_EQ(info.height, 640);
		EXPECT_EQ(info.decode_errors, 0) << info.first_decode_error;
		EXPECT_TRUE(info.first_video_packet_key);
		EXPECT_EQ(info.audio_streams, audio_tracks);
		EXPECT_GT(info.audio_frames_decoded, 0);
		expect_cover_picture(path);
	}
};

} // namespace

TEST(VerticalOutputNames, DifferWithinOneSecond)
{
	// "<base>_<seconds>_<counter>": the counter tells two names of the same second apart.
	auto counter = [](const std::string &name) {
		const size_t last = name.rfind('_');
		const size_t middle = name.rfind('_', last - 1);
		EXPECT_EQ(name.substr(0, middle), "cv_video_enc") << name;
		EXPECT_GT(std::stoll(name.substr(middle + 1, last - middle - 1)), 0) << name;
		return std::stoull(name.substr(last + 1));
	};
	const std::string first = cv::make_unique_name("cv_video_enc");
	const std::string second = cv::make_unique_name("cv_video_enc");
	EXPECT_NE(first, second);
	EXPECT_EQ(counter(second), counter(first) + 1);
}

TEST_F(VerticalOutputTest, StartFallsBackThroughTheCandidateList)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;

	// "auto": every hardware id fails here, at creation or inside the start.
	cv::VerticalOutput &automatic = make_output(server.app_url(), "auto-key");
	ASSERT_TRUE(automatic.start());
	std::vector<std::string> expected(std::begin(kHardwareIds), std::end(kHardwareIds));
	expected.push_back("obs_x264");
	EXPECT_EQ(tried_encoders(), expected);
	for (const char *id : kHardwareIds) {
		EXPECT_TRUE(log_contains(std::string("Encoder ") + id + " failed to start output") ||
			    log_contains(std::string("Failed to create video encoder candidate: ") + id))
			<< id;
	}
	EXPECT_TRUE(log_contains("Vertical output started with encoder: obs_x264"));
	EXPECT_TRUE(log_contains("Created 6 audio encoders for output tracks 0..5"));
	EXPECT_TRUE(log_contains("video_output: width=360 height=640"));
	EXPECT_TRUE(automatic.is_active());

	// Already live: nothing new is tried.
	cvtest::clear_logs();
	EXPECT_TRUE(automatic.start());
	EXPECT_TRUE(log_contains("VerticalOutput::start — already active (obs_x264)"));
	EXPECT_TRUE(tried_encoders().empty());
	automatic.stop();
	EXPECT_TRUE(log_contains("Vertical output stop requested (obs_x264)"));
	output_.reset();

	// "nvenc" holds only the software encoders.
	cvtest::clear_logs();
	cv::VerticalOutput &nvenc = make_output(server.app_url(), "nvenc-key", "nvenc");
	ASSERT_TRUE(nvenc.start());
	EXPECT_EQ(tried_encoders(), std::vector<std::string>{"obs_x264"});
	EXPECT_EQ(&cv::encoder_candidates("nvenc"), &cv::encoder_candidates("qsv"));
	const std::vector<const char *> row = cv::encoder_candidates("nvenc");
	EXPECT_EQ(std::vector<std::string>(row.begin(), row.end()), (std::vector<std::string>{"obs_x264", "x264"}));
	nvenc.stop();
}

TEST_F(VerticalOutputTest, RefusedStartsCreateNothing)
{
	// An empty address fails before any encoder exists.
	cv::VerticalOutput &output = make_output("", "key");
	EXPECT_FALSE(output.start());
	EXPECT_TRUE(log_contains("Vertical output start failed: RTMP URL is empty. Configure it in Tools → Corvane "
				 "Vertical Streaming Settings."));
	EXPECT_TRUE(tried_encoders().empty());
	EXPECT_EQ(encoder_count(), 0u);
	EXPECT_TRUE(cvtest::mux_outputs().empty());

	// Stop while idle only says so.
	cvtest::clear_logs();
	output.stop();
	EXPECT_EQ(cvtest::log_lines().size(), 1u);
	EXPECT_TRUE(log_contains("VerticalOutput::stop — not active, nothing to do"));

	// Not initialised: refused as well.
	cv::OutputConfig config;
	config.url = "rtmp://127.0.0.1/live";
	cv::VerticalOutput uninitialised(canvas_.get(), config);
	EXPECT_FALSE(uninitialised.start());
	EXPECT_TRUE(log_contains("VerticalOutput::start — not initialised"));
}

TEST_F(VerticalOutputTest, EncoderSettingsFollowTheCandidate)
{
	register_unopenable_encoder("jim_nvenc");
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;

	cv::OutputConfig config;
	config.url = server.app_url();
	config.key = "settings";
	config.bitrate_kbps = 4000;
	config.encoder_preset = "veryfast";
	output_ = std::make_unique<cv::VerticalOutput>(canvas_.get(), config);
	ASSERT_TRUE(output_->init());
	ASSERT_TRUE(output_->start());

	// The hardware candidate got the three common keys and nothing else.
	OBSDataAutoRelease hardware = obs_data_create_from_json(recorded_hardware_settings.c_str());
	ASSERT_TRUE(hardware) << recorded_hardware_settings;
	EXPECT_EQ(obs_data_get_int(hardware, "bitrate"), 4000);
	EXPECT_STREQ(obs_data_get_string(hardware, "rate_control"), "CBR");
	EXPECT_EQ(obs_data_get_int(hardware, "keyint_sec"), 2);
	for (const char *x264_only : {"preset", "profile", "tune", "x264opts"})
		EXPECT_FALSE(obs_data_has_user_value(hardware, x264_only)) << x264_only;

	const std::vector<obs_output_t *> outputs = cvtest::mux_outputs();
	ASSERT_EQ(outputs.size(), 1u);
	OBSDataAutoRelease x264 = obs_encoder_get_settings(obs_output_get_video_encoder(outputs[0]));
	EXPECT_STREQ(obs_encoder_get_id(obs_output_get_video_encoder(outputs[0])), "obs_x264");
	EXPECT_EQ(obs_data_get_int(x264, "bitrate"), 4000);
	EXPECT_STREQ(obs_data_get_string(x264, "rate_control"), "CBR");
	EXPECT_EQ(obs_data_get_int(x264, "keyint_sec"), 2);
	EXPECT_STREQ(obs_data_get_string(x264, "preset"), "veryfast");
	EXPECT_STREQ(obs_data_get_string(x264, "profile"), "high");
	EXPECT_STREQ(obs_data_get_string(x264, "tune"), "zerolatency");
	EXPECT_STREQ(obs_data_get_string(x264, "x264opts"), "bframes=0:aud=1:repeat-headers=1");
	for (size_t track = 0; track < cv::kAudioTrackCount; track++) {
		obs_encoder_t *audio = obs_output_get_audio_encoder(outputs[0], track);
		ASSERT_NE(audio, nullptr) << track;
		EXPECT_STREQ(obs_encoder_get_id(audio), "ffmpeg_aac");
		OBSDataAutoRelease audio_settings = obs_encoder_get_settings(audio);
		EXPECT_EQ(obs_data_get_int(audio_settings, "bitrate"), 160);
	}
	output_->stop();
}

TEST_F(VerticalOutputTest, RtmpStreamShowsTheCanvas)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cv::VerticalOutput &output = make_output(server.app_url(), "vertical-key");
	const std::string path = stream_for(output, 3.0, [&] { return server.recordings("vertical-key"); });
	// Older FFmpeg writes a single audio track into FLV.
	expect_stream(path, log_contains("left out audio track") ? 1 : 6);
	EXPECT_FALSE(log_contains("vertical-key"));
}

TEST_F(VerticalOutputTest, SrtStreamShowsTheCanvas)
{
	cvtest::SrtListener listener;
	std::string error;
	ASSERT_TRUE(listener.start(&error)) << error;
	cv::VerticalOutput &output = make_output(listener.url() + "&passphrase=verysecret42", "");
	std::string path = stream_for(output, 3.0, [&] {
		listener.stop();
		return listener.recordings();
	});
	expect_stream(path, 6);
	EXPECT_FALSE(log_contains("verysecret42"));
}

TEST_F(VerticalOutputTest, NewSettingsWaitForTheNextStart)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cv::VerticalOutput &output = make_output(server.app_url(), "first");
	ASSERT_TRUE(output.start());
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));

	cv::OutputConfig next;
	next.url = server.app_url();
	next.key = "second";
	output.update_config(next);
	EXPECT_TRUE(
		log_contains("VerticalOutput config updated (url: " + server.app_url() + ", preferred_encoder: auto)"));
	sleep_ms(1500);
	EXPECT_TRUE(output.is_active());
	EXPECT_TRUE(server.recordings("second").empty());
	output.stop();
	// The host ends the data capture on a thread of its own; until then a start only
	// reports the stream as already running.
	for (int i = 0; i < 250 && output.is_active(); i++)
		sleep_ms(20);
	ASSERT_FALSE(output.is_active());

	cvtest::clear_logs();
	ASSERT_TRUE(output.start());
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	sleep_ms(1000);
	output.stop();
	sleep_ms(500);
	EXPECT_EQ(server.recordings("first").size(), 1u);
	EXPECT_EQ(server.recordings("second").size(), 1u);

	// Stopped objects stay until the next start or destruction; then nothing is left.
	EXPECT_EQ(cvtest::mux_outputs().size(), 1u);
	output_.reset();
	EXPECT_TRUE(cvtest::mux_outputs().empty());
	EXPECT_EQ(encoder_count(), 0u);
}

// The error box, with a real application on the offscreen platform.
TEST_F(VerticalOutputTest, OnlyErrorStopsPostABox)
{
	qputenv("QT_QPA_PLATFORM", "offscreen");
	static int argc = 1;
	static char name[] = "cv_host_tests";
	static char *argv[] = {name, nullptr};
	QApplication app(argc, argv);

	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cv::VerticalOutput &output = make_output(server.app_url(), "boxes");

	struct Box {
		QString title;
		QString text;
	};
	// Stops the running output with `code` and closes every box that shows up.
	auto boxes_after_stop = [&](long long code, const char *last_error) {
		std::vector<Box> seen;
		EXPECT_TRUE(output.start());
		const std::vector<obs_output_t *> outputs = cvtest::mux_outputs();
		EXPECT_EQ(outputs.size(), 1u);
		if (outputs.size() != 1)
			return seen;
		if (last_error)
			obs_output_set_last_error(outputs[0], last_error);
		obs_output_signal_stop(outputs[0], int(code));

		QTimer closer;
		QObject::connect(&closer, &QTimer::timeout, [&] {
			for (QWidget *widget : QApplication::topLevelWidgets()) {
				auto *box = qobject_cast<QMessageBox *>(widget);
				if (box && box->isVisible()) {
					seen.push_back({box->windowTitle(), box->text()});
					box->done(QMessageBox::Ok);
				}
			}
		});
		closer.start(10);
		QElapsedTimer waited;
		waited.start();
		while (waited.elapsed() < 1500) {
			QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
			sleep_ms(5);
		}
		return seen;
	};

	const QString title = QString::fromUtf8("Vertical Canvas \u00E2\u20AC\u201D Stream Error");
	EXPECT_EQ(title.size(), 32);

	std::vector<Box> boxes = boxes_after_stop(OBS_OUTPUT_ERROR, "Server said no");
	ASSERT_EQ(boxes.size(), 1u);
	EXPECT_EQ(boxes[0].title, title);
	EXPECT_EQ(boxes[0].text, QString("Server said no"));

	boxes = boxes_after_stop(OBS_OUTPUT_ERROR, nullptr);
	ASSERT_EQ(boxes.size(), 1u);
	EXPECT_EQ(boxes[0].text, QString("Vertical output failed to connect.\nCheck your RTMP URL and stream key."));

	for (long long code : {0LL, -2LL, -3LL})
		EXPECT_TRUE(boxes_after_stop(code, "ignored").empty()) << code;
	output_.reset();
}
