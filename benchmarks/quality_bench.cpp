// Picture quality of what the server received, for three sets of x264 settings at the same
// bitrate: the plug-in's former ones (tune zerolatency, no B-frames), the ones the plug-in
// makes now (cv::video_encoder_settings, so the figure follows the code) and the ones the
// host's front end gives its own stream. Each is measured with FFmpeg's SSIM (and PSNR)
// against the canvas's own frames, kept losslessly.
//
// The canvas shows moving, detailed content: a clip made with FFmpeg, played by the host's
// media source in a host scene. Its frames are recorded raw as the canvas hands them to
// encoders; then the same frames are handed, at the canvas's rate, to three host x264
// encoders at once, each streaming through the plug-in's output type to nginx. All three
// start on the first frame, so frame n of every received stream is frame n of the
// recording, and they are compared over the same stretch.

#include "bench_util.h"

#include "base/settings.h"
#include "canvas/vertical_canvas.h"
#include "output/host_encoders.h"
#include "stream/mux_output.h"

#include "process.h"
#include "servers.h"
#include "wait.h"

#include <benchmark/benchmark.h>
#include <graphics/vec2.h>
#include <media-io/video-frame.h>
#include <media-io/video-io.h>
#include <util/platform.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace cvbench {

namespace {

// A quarter of the plug-in's default canvas (1080x1920) at a quarter of its default
// bitrate (4000 kb/s): x264 has to work, and three encoders keep up on two cores.
constexpr uint32_t kWidth = 540;
constexpr uint32_t kHeight = 960;
constexpr uint32_t kFps = 30;
constexpr int kBitrateKbps = 1000;
constexpr int kClipSeconds = 16;
constexpr size_t kRecordedFrames = 14 * kFps;
// The first keyframe interval (rate control settling) is left out; the last seconds are
// spare, as x264 keeps frames in its lookahead that a stop does not send.
constexpr size_t kFirstCompared = 2 * kFps;
constexpr size_t kCompared = 10 * kFps;
constexpr size_t kReplayCache = 16;
constexpr int kFfmpegTimeoutMs = 300000;

// The three ways of setting x264, in the order of the figures.
enum Setting { kOld, kNew, kHost, kSettings };
constexpr const char *kSettingNames[kSettings] = {"old", "new", "host"};

OBSDataAutoRelease x264_settings(Setting setting)
{
	if (setting == kNew) {
		cv::OutputConfig config;
		config.bitrate_kbps = kBitrateKbps;
		return cv::video_encoder_settings("obs_x264", config, true);
	}
	OBSDataAutoRelease settings = obs_data_create();
	if (setting == kOld) {
		obs_data_set_string(settings, "rate_control", "CBR");
		obs_data_set_int(settings, "bitrate", kBitrateKbps);
		obs_data_set_int(settings, "keyint_sec", 2);
		obs_data_set_string(settings, "preset", "veryfast");
		obs_data_set_string(settings, "profile", "high");
		obs_data_set_string(settings, "tune", "zerolatency");
		obs_data_set_string(settings, "x264opts", "bframes=0:aud=1:repeat-headers=1");
	} else {
		// The front end's simple output mode for its own stream: the preset chosen there
		// (veryfast unless changed), CBR at the bitrate, then the streaming service's own
		// keyframe interval (2 s for the common services); no tune, no profile.
		obs_data_set_string(settings, "preset", "veryfast");
		obs_data_set_string(settings, "rate_control", "CBR");
		obs_data_set_int(settings, "bitrate", kBitrateKbps);
		obs_data_set_int(settings, "keyint_sec", 2);
	}
	return settings;
}

bool run_ffmpeg(std::vector<std::string> args, std::string *output)
{
	args.insert(args.begin(), {"ffmpeg", "-nostdin", "-hide_banner", "-nostats", "-y"});
	return cvtest::run_program(args, kFfmpegTimeoutMs, output) == 0;
}

// A clip at the canvas's size, stored losslessly, in three bands: FFmpeg's moving test
// pattern (bars, a sweeping gradient, moving squares and text), a pan across a detailed
// picture of the Mandelbrot set, and a slow zoom into another part of it: fine detail,
// flat areas and smooth gradients, moving in several ways.
bool make_clip(const std::string &dir, std::string *error)
{
	const std::string band = std::to_string(kWidth) + "x" + std::to_string(kHeight / 3);
	const std::string crop = "crop=" + std::to_string(kWidth) + ":" + std::to_string(kHeight / 3);
	const std::string fractal = "mandelbrot=maxiter=512:outer=normalized_iteration_count:";
	const std::string length = std::to_string(kClipSeconds);
	const std::string rate = std::to_string(kFps);
	std::vector<std::string> clip = {"-f", "lavfi", "-i", "testsrc2=s=" + band + ":r=" + rate + ":d=" + length};
	for (const char *still : {"/pan.png", "/zoom.png"})
		clip.insert(clip.end(), {"-loop", "1", "-framerate", rate, "-t", length, "-i", dir + still});
	clip.insert(clip.end(), {"-filter_complex", "[1]" + crop + ":x='20+t*45':y='100+80*sin(t*0.8)'[pan];" +
							    "[2]scale=w='trunc(960*(1+t/20)/2)*2':h=-2:eval=frame," +
							    crop + "[zoom];[0][pan][zoom]vstack=3,format=yuv420p"});
	clip.insert(clip.end(), {"-c:v", "libx264", "-preset", "ultrafast", "-qp", "0", dir + "/clip.mkv"});
	std::string output;
	if (!run_ffmpeg({"-f", "lavfi", "-i", fractal + "s=1400x900:start_scale=0.006", "-frames:v", "1",
			 dir + "/pan.png"},
			&output) ||
	    !run_ffmpeg({"-f", "lavfi", "-i", fractal + "s=960x600:start_scale=0.04", "-frames:v", "1",
			 dir + "/zoom.png"},
			&output) ||
	    !run_ffmpeg(clip, &output)) {
		*error = "ffmpeg could not make the test clip: " + output.substr(0, 300);
		return false;
	}
	return true;
}

// A host scene of the host canvas's size with the clip's media source placed where the
// vertical canvas, which covers itself with the scene, shows it pixel for pixel.
struct ClipScene {
	OBSSourceAutoRelease media;
	OBSSceneAutoRelease scene;

	~ClipScene()
	{
		if (scene)
			obs_source_remove(obs_scene_get_source(scene));
		if (media)
			obs_source_remove(media);
	}

	bool make(const std::string &clip)
	{
		OBSDataAutoRelease settings = obs_data_create();
		obs_data_set_bool(settings, "is_local_file", true);
		obs_data_set_string(settings, "local_file", clip.c_str());
		obs_data_set_bool(settings, "looping", true);
		obs_data_set_bool(settings, "hw_decode", false);
		obs_data_set_bool(settings, "clear_on_media_end", false);
		// Plays from the start: a view only shows its sources, and a media source that
		// waits to be activated would wait for the host's own program.
		obs_data_set_bool(settings, "restart_on_activate", false);
		media = obs_source_create("ffmpeg_source", "Quality Clip", settings, nullptr);
		scene = obs_scene_create("Quality Show");
		obs_sceneitem_t *item = media && scene ? obs_scene_add(scene, media) : nullptr;
		if (!item)
			return false;
		obs_video_info ovi = {};
		obs_get_video_info(&ovi);
		const float cover =
			std::max(float(kWidth) / float(ovi.base_width), float(kHeight) / float(ovi.base_height));
		vec2 pos, scale;
		vec2_set(&pos, (float(ovi.base_width) - float(kWidth) / cover) / 2,
			 (float(ovi.base_height) - float(kHeight) / cover) / 2);
		vec2_set(&scale, 1 / cover, 1 / cover);
		obs_sceneitem_set_pos(item, &pos);
		obs_sceneitem_set_scale(item, &scale);
		return true;
	}

	bool playing() const { return obs_source_media_get_state(media) == OBS_MEDIA_STATE_PLAYING; }
	// Its frames have reached the renderer.
	bool showing() const { return playing() && obs_source_get_width(media) == kWidth; }
};

// Bytes of one NV12 or I420 frame, plane by plane: {bytes per row, rows}.
std::vector<std::pair<size_t, size_t>> plane_layout(video_format format)
{
	if (format == VIDEO_FORMAT_NV12)
		return {{kWidth, kHeight}, {kWidth, kHeight / 2}};
	if (format == VIDEO_FORMAT_I420)
		return {{kWidth, kHeight}, {kWidth / 2, kHeight / 2}, {kWidth / 2, kHeight / 2}};
	return {};
}

size_t frame_bytes(video_format format)
{
	size_t bytes = 0;
	for (const auto &[row, rows] : plane_layout(format))
		bytes += row * rows;
	return bytes;
}

// The canvas's frames as it hands them to encoders, written one after the other: an output
// of raw frames, which makes the host draw the canvas's frames as an encoder does.
constexpr const char *kRawOutputId = "cv_bench_raw_frames";

struct RawRecorder {
	obs_output_t *output = nullptr;
	FILE *file = nullptr;
	video_format format = VIDEO_FORMAT_NONE;
	size_t limit = 0;
	std::atomic<bool> writing{false};
	std::atomic<size_t> frames{0}; // written
	std::atomic<size_t> seen{0};   // handed out while writing
	std::vector<uint8_t> packed;
	std::vector<uint8_t> last;

	static void register_type()
	{
		static bool registered = false;
		if (registered)
			return;
		registered = true;
		obs_output_info info = {};
		info.id = kRawOutputId;
		info.flags = OBS_OUTPUT_VIDEO;
		info.get_name = [](void *) {
			return "Raw frames";
		};
		info.create = [](obs_data_t *, obs_output_t *output) -> void * {
			auto *self = new RawRecorder;
			self->output = output;
			return self;
		};
		info.destroy = [](void *data) {
			delete static_cast<RawRecorder *>(data);
		};
		info.start = [](void *data) {
			obs_output_t *output = static_cast<RawRecorder *>(data)->output;
			return obs_output_can_begin_data_capture(output, 0) && obs_output_begin_data_capture(output, 0);
		};
		info.stop = [](void *data, uint64_t) {
			obs_output_end_data_capture(static_cast<RawRecorder *>(data)->output);
		};
		info.raw_video = [](void *data, video_data *frame) {
			static_cast<RawRecorder *>(data)->write(frame);
		};
		obs_register_output(&info);
	}

	// Frames the renderer repeated (it hands out the last frame again when it falls
	// behind, as the software renderer here often does) are left out: a repeat costs x264
	// next to nothing and would flatter every setting.
	void write(const video_data *frame)
	{
		if (!writing.load() || frames.load() >= limit)
			return;
		const auto layout = plane_layout(format);
		uint8_t *to = packed.data();
		for (size_t plane = 0; plane < layout.size(); plane++)
			for (size_t row = 0; row < layout[plane].second; row++, to += layout[plane].first)
				memcpy(to, frame->data[plane] + row * frame->linesize[plane], layout[plane].first);
		seen++;
		if (frames.load() > 0 && packed == last)
			return;
		fwrite(packed.data(), 1, packed.size(), file);
		last.swap(packed);
		frames++;
	}
};

void count_frame(void *param, video_data *)
{
	++*static_cast<std::atomic<size_t> *>(param);
}

// `repeated`: the share of the canvas's frames that were repeats, left out.
bool record_canvas(cv::VerticalCanvas &canvas, const ClipScene &clip, const std::string &path, video_output_info *info,
		   double *repeated, std::string *error)
{
	RawRecorder::register_type();
	video_t *video = canvas.fresh_video();
	if (!video) {
		*error = "the canvas has no video";
		return false;
	}
	*info = *video_output_get_info(video);
	OBSOutputAutoRelease output = obs_output_create(kRawOutputId, "quality reference", nullptr, nullptr);
	auto *recorder = output ? static_cast<RawRecorder *>(obs_obj_get_data(output)) : nullptr;
	if (!recorder) {
		*error = "cannot make the raw frames output";
	} else if (plane_layout(info->format).empty()) {
		*error = "the canvas's colour format is neither NV12 nor I420";
	} else if (!(recorder->file = fopen(path.c_str(), "wb"))) {
		*error = "cannot write " + path;
	} else {
		recorder->format = info->format;
		recorder->limit = kRecordedFrames;
		recorder->packed.resize(frame_bytes(info->format));
		recorder->last.resize(recorder->packed.size());
		obs_output_set_media(output, video, obs_get_audio());
		if (!obs_output_start(output)) {
			*error = "the raw frames output did not start";
		} else {
			// Once the canvas draws, the media source's frames show on it; a second
			// later the recording starts.
			if (!cvtest::wait_until([&] { return clip.showing(); }, 10000))
				*error = "the canvas does not show the clip (media state " +
					 std::to_string(obs_source_media_get_state(clip.media)) + ", width " +
					 std::to_string(obs_source_get_width(clip.media)) + ")";
			sleep_s(1);
			recorder->writing = true;
			const int timeout_ms = int(kRecordedFrames * 1000 / kFps) * 4;
			if (error->empty() &&
			    !cvtest::wait_until([&] { return recorder->frames.load() >= kRecordedFrames; }, timeout_ms))
				*error = "the canvas did not hand out its frames";
			obs_output_stop(output);
			cvtest::wait_until([&] { return !obs_output_active(output); }, 10000);
		}
		fclose(recorder->file);
		recorder->file = nullptr;
		const size_t seen = recorder->seen.load();
		*repeated = seen ? 1 - double(recorder->frames.load()) / double(seen) : 0;
	}
	output = nullptr;
	canvas.drop_video();
	return error->empty();
}

// One x264 encoder with its settings, an AAC encoder and an output of the plug-in's type.
struct Encode {
	OBSEncoderAutoRelease video;
	OBSEncoderAutoRelease audio;
	OBSOutputAutoRelease output;

	bool make(Setting setting, video_t *frames, const std::string &server)
	{
		const std::string name = std::string("quality ") + kSettingNames[setting];
		OBSDataAutoRelease settings = x264_settings(setting);
		video = obs_video_encoder_create("obs_x264", name.c_str(), settings, nullptr);
		OBSDataAutoRelease audio_settings = obs_data_create();
		obs_data_set_int(audio_settings, "bitrate", 160);
		audio = obs_audio_encoder_create("ffmpeg_aac", (name + " audio").c_str(), audio_settings, 0, nullptr);
		OBSDataAutoRelease output_settings = obs_data_create();
		obs_data_set_string(output_settings, "server", server.c_str());
		obs_data_set_string(output_settings, "key", kSettingNames[setting]);
		obs_data_set_int(output_settings, "fps_num", kFps);
		obs_data_set_int(output_settings, "fps_den", 1);
		output = obs_output_create(cv::kMuxOutputId, name.c_str(), output_settings, nullptr);
		if (!video || !audio || !output)
			return false;
		obs_encoder_set_video(video, frames);
		obs_encoder_set_audio(audio, obs_get_audio());
		obs_output_set_video_encoder(output, video);
		obs_output_set_audio_encoder(output, audio, 0);
		return true;
	}

	void stop()
	{
		if (output && obs_output_active(output))
			obs_output_stop(output);
		cvtest::wait_until([this] { return !output || !obs_output_active(output); }, 10000);
	}
};

// Hands the recorded frames to the three encoders at once, at the canvas's rate, each
// streaming to the server under its setting's name.
bool stream_recording(const std::string &path, const video_output_info &canvas_info, const std::string &server,
		      std::string *error)
{
	video_output_info info = canvas_info;
	info.name = "quality replay";
	info.cache_size = kReplayCache;
	video_t *frames = nullptr;
	if (video_output_open(&frames, &info) != VIDEO_OUTPUT_SUCCESS) {
		*error = "cannot open a video output for the recorded frames";
		return false;
	}
	// Connected before the encoders, so it counts a frame as soon as the encoders get it:
	// the frames handed out but not yet taken stay below the cache's size, and no frame
	// is ever repeated for want of room.
	std::atomic<size_t> taken{0};
	video_output_connect(frames, nullptr, count_frame, &taken);
	{
		Encode encodes[kSettings];
		for (int i = 0; i < kSettings && error->empty(); i++)
			if (!encodes[i].make(Setting(i), frames, server) || !obs_output_start(encodes[i].output))
				*error = std::string("the ") + kSettingNames[i] + " encode did not start";
		auto connected = [&] {
			return std::all_of(std::begin(encodes), std::end(encodes), [](const Encode &encode) {
				return cv::mux_output_stats(encode.output).connected;
			});
		};
		if (error->empty() && !cvtest::wait_until(connected, 10000))
			*error = "an output did not connect";
		// The host starts a video encoder only once its paired audio encoder has had
		// audio: with that, all three start on the first frame.
		sleep_s(1);

		std::ifstream file(path, std::ios::binary);
		const auto layout = plane_layout(info.format);
		std::vector<uint8_t> bytes(frame_bytes(info.format));
		const uint64_t interval = 1000000000ull * info.fps_den / info.fps_num;
		uint64_t at = os_gettime_ns();
		for (size_t n = 0; n < kRecordedFrames && error->empty(); n++, at += interval) {
			if (!file.read(reinterpret_cast<char *>(bytes.data()), std::streamsize(bytes.size()))) {
				*error = "the recording is short";
				break;
			}
			if (!cvtest::wait_until([&] { return n - taken.load() + 2 < kReplayCache; }, 20000, 1)) {
				*error = "the encoders stopped taking frames";
				break;
			}
			os_sleepto_ns(at);
			video_frame frame;
			if (!video_output_lock_frame(frames, &frame, 1, at)) {
				*error = "no room for a frame";
				break;
			}
			const uint8_t *from = bytes.data();
			for (size_t plane = 0; plane < layout.size(); plane++)
				for (size_t row = 0; row < layout[plane].second; row++, from += layout[plane].first)
					memcpy(frame.data[plane] + row * frame.linesize[plane], from,
					       layout[plane].first);
			video_output_unlock_frame(frames);
		}
		cvtest::wait_until([&] { return taken.load() >= kRecordedFrames; }, 20000);
		sleep_s(1);
		for (Encode &encode : encodes)
			encode.stop();
	}
	video_output_disconnect(frames, count_frame, &taken);
	video_output_close(frames);
	return error->empty();
}

struct Quality {
	double ssim = 0;
	double psnr = 0;
	double kbps = 0;
	size_t frames = 0;
};

// Video bitrate of a recording over the compared stretch, from its packets' sizes.
double received_kbps(const std::string &path)
{
	AVFormatContext *format = nullptr;
	if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0)
		return 0;
	const double from = double(kFirstCompared) / kFps;
	const double to = double(kFirstCompared + kCompared) / kFps;
	double first = -1;
	uint64_t bytes = 0;
	AVPacket *packet = av_packet_alloc();
	while (av_read_frame(format, packet) >= 0) {
		const AVStream *stream = format->streams[packet->stream_index];
		if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && packet->pts != AV_NOPTS_VALUE) {
			const double pts = double(packet->pts) * av_q2d(stream->time_base);
			if (first < 0)
				first = pts;
			if (pts - first >= from - 0.5 / kFps && pts - first < to - 0.5 / kFps)
				bytes += uint64_t(packet->size);
		}
		av_packet_unref(packet);
	}
	av_packet_free(&packet);
	avformat_close_input(&format);
	return double(bytes) * 8 / 1000 / (to - from);
}

double figure_after(const std::string &text, const std::string &label)
{
	const size_t at = text.rfind(label);
	return at == std::string::npos ? -1 : atof(text.c_str() + at + label.size());
}

// SSIM and PSNR of a received stream against the recording over the compared stretch.
// Received frames are placed by their presentation time on the canvas's frame grid: FLV
// keeps milliseconds, which the time base of one frame rounds to the frame they belong to.
bool measure(const std::string &received, const std::string &recording, const video_output_info &info,
	     const std::string &dir, Quality *quality, std::string *error)
{
	// Both inputs: on the frame grid from their first frame, the compared stretch.
	const std::string on_grid = "settb=1/" + std::to_string(kFps) +
				    ",setpts=PTS-STARTPTS,trim=start_pts=" + std::to_string(kFirstCompared) +
				    ":end_pts=" + std::to_string(kFirstCompared + kCompared) +
				    ",setpts=PTS-STARTPTS,format=yuv420p,split";
	const std::string graph = "[0:v]" + on_grid + "[r1][r2];[1:v]" + on_grid +
				  "[d1][d2];[d1][r1]ssim=stats_file='" + dir +
				  "/ssim.log':shortest=1[s];[d2][r2]psnr=shortest=1[p]";
	std::vector<std::string> args = {"-loglevel", "info", "-f", "rawvideo"};
	args.insert(args.end(), {"-pix_fmt", info.format == VIDEO_FORMAT_NV12 ? "nv12" : "yuv420p"});
	args.insert(args.end(), {"-video_size", std::to_string(kWidth) + "x" + std::to_string(kHeight)});
	args.insert(args.end(), {"-framerate", std::to_string(kFps), "-i", recording, "-i", received});
	args.insert(args.end(), {"-filter_complex", graph});
	for (const char *pad : {"[s]", "[p]"})
		args.insert(args.end(), {"-map", pad, "-f", "null", "-"});
	std::string output;
	const bool ran = run_ffmpeg(args, &output);
	std::ifstream stats(dir + "/ssim.log");
	std::string line;
	quality->frames = 0;
	while (std::getline(stats, line))
		quality->frames++;
	quality->ssim = figure_after(output, "All:");
	quality->psnr = figure_after(output, "average:");
	quality->kbps = received_kbps(received);
	if (!ran || quality->ssim < 0 || quality->psnr < 0)
		*error = "ffmpeg could not compare " + received + ": " +
			 output.substr(output.size() > 400 ? output.size() - 400 : 0);
	else if (quality->frames != kCompared)
		*error = received + ": " + std::to_string(quality->frames) + " frames compared of " +
			 std::to_string(kCompared);
	return error->empty();
}

void BM_PictureQuality(benchmark::State &state)
{
	state.SetLabel(std::to_string(kWidth) + "x" + std::to_string(kHeight) + " " + std::to_string(kFps) + " fps, " +
		       std::to_string(kBitrateKbps) + " kb/s");
	const std::string dir = cvtest::make_temp_dir("cv-quality-");
	std::string error;
	cvtest::RtmpServer server;
	ClipScene clip;
	cv::CanvasConfig canvas_config;
	canvas_config.width = kWidth;
	canvas_config.height = kHeight;
	canvas_config.fps_num = kFps;
	canvas_config.use_active_scene_audio = false;
	cv::VerticalCanvas canvas(canvas_config);
	auto finish = [&] {
		if (!error.empty())
			state.SkipWithError(error.c_str());
		canvas.shutdown();
		server.stop();
		if (!dir.empty())
			std::filesystem::remove_all(dir);
	};
	if (dir.empty())
		error = "no scratch folder";
	else if (make_clip(dir, &error) && server.start(&error)) {
		if (!clip.make(dir + "/clip.mkv") || !canvas.init() ||
		    !canvas.assign_scene_source("Scene 1", "Quality Show"))
			error = "the canvas cannot show the clip";
	}
	if (!error.empty()) {
		finish();
		return;
	}

	for (auto _ : state) {
		const std::string recording = dir + "/canvas.yuv";
		video_output_info info = {};
		double repeated = 0;
		if (!record_canvas(canvas, clip, recording, &info, &repeated, &error) ||
		    !stream_recording(recording, info, server.app_url(), &error))
			break;
		Quality quality[kSettings];
		for (int i = 0; i < kSettings && error.empty(); i++) {
			const std::vector<std::string> files = server.recordings(kSettingNames[i]);
			if (files.empty())
				error = std::string("the server recorded no ") + kSettingNames[i] + " stream";
			else
				measure(files.back(), recording, info, dir, &quality[i], &error);
			for (const std::string &file : files)
				std::filesystem::remove(file);
		}
		std::filesystem::remove(recording);
		if (!error.empty())
			break;
		for (int i = 0; i < kSettings; i++) {
			const std::string name = kSettingNames[i];
			state.counters[name + "_ssim"] = quality[i].ssim;
			state.counters[name + "_psnr_db"] = quality[i].psnr;
			state.counters[name + "_kbps"] = quality[i].kbps;
		}
		state.counters["frames_compared"] = double(quality[kNew].frames);
		state.counters["canvas_repeats_pct"] = repeated * 100;
		state.counters["bitrate_kbps"] = kBitrateKbps;
		state.counters["width"] = kWidth;
		state.counters["height"] = kHeight;
		state.counters["fps"] = kFps;
	}
	finish();
}

} // namespace

BENCHMARK(BM_PictureQuality)->Iterations(1)->Repetitions(3)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
