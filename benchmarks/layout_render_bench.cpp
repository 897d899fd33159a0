// What each layout of the vertical canvas costs the host's renderer, per frame: the CPU
// time of the renderer's threads (the host's graphics thread and Mesa's rasterizer
// threads) per frame rendered, and libobs's own average wall time of its graphics loop
// per frame (read each second), while one host scene is shown
//
//   baseline  nowhere: the host's canvas shows nothing, no output, no vertical mix;
//   host      on the host's own 1920x1080 canvas, a raw video output on it;
//   cover, fit (blurred background), stack  on the 1080x1920 vertical mix, a raw video
//             output on it, the host's canvas showing nothing;
//   fade      on the vertical mix in the middle of a long fade between two cover scenes.
//
// The raw outputs make the host convert and download every frame, as for an encoder.
// A configuration's own cost is its figure less the baseline of the same run. Also
// counted: the frames the renderer missed (lagged) and those the output's video dropped
// for want of room (skipped). Every run measures each configuration twice, in one order
// and then in the reverse one (the other way round every other run), so that a
// neighbour's load on the shared machine that rises or falls meanwhile weighs on all
// alike.

#include "bench_util.h"

#include "base/scene_layout.h"
#include "canvas/vertical_canvas.h"

#include "process.h"
#include "sources.h"
#include "wait.h"

#include <benchmark/benchmark.h>
#include <graphics/vec2.h>
#include <media-io/video-io.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace cvbench {

namespace {

constexpr double kSettleSeconds = 1.5;
constexpr int kSamples = 3; // seconds measured per slice, one average read each
constexpr const char *kFramesOutputId = "cv_bench_counted_frames";
constexpr const char *kSceneName = "Layout Render Scene";

enum Config { kBaseline, kHost, kCover, kFit, kStack, kFade, kConfigs };
constexpr const char *kConfigNames[kConfigs] = {"baseline", "host", "cover", "fit", "stack", "fade"};
// The vertical scene each vertical configuration shows (the fade goes on to "Fade B").
constexpr const char *kVerticalScenes[kConfigs] = {nullptr, nullptr, "Cover", "Fit", "Stack", "Fade A"};

// An output that takes the raw frames of a video and only counts them.
void register_frames_output()
{
	static bool registered = false;
	if (registered)
		return;
	registered = true;
	obs_output_info info = {};
	info.id = kFramesOutputId;
	info.flags = OBS_OUTPUT_VIDEO;
	info.get_name = [](void *) {
		return "Counted frames";
	};
	info.create = [](obs_data_t *, obs_output_t *output) -> void * {
		return output;
	};
	info.destroy = [](void *) {
	};
	info.start = [](void *data) {
		auto *output = static_cast<obs_output_t *>(data);
		return obs_output_can_begin_data_capture(output, 0) && obs_output_begin_data_capture(output, 0);
	};
	info.stop = [](void *data, uint64_t) {
		obs_output_end_data_capture(static_cast<obs_output_t *>(data));
	};
	info.raw_video = [](void *, video_data *) {
	};
	obs_register_output(&info);
}

bool run_ffmpeg(const std::vector<std::string> &args)
{
	std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y"};
	argv.insert(argv.end(), args.begin(), args.end());
	std::string output;
	return cvtest::run_program(argv, 60000, &output) == 0;
}

// A host scene of the host canvas's size with real content, the same over its whole area so
// that every layout draws as much of it per pixel: coloured bands under FFmpeg's test
// pattern (bars, gradients, text) under a half-transparent picture of the Mandelbrot set
// stretched over it, three blended layers.
struct RenderScene {
	OBSSceneAutoRelease scene;
	std::vector<OBSSourceAutoRelease> images;

	~RenderScene()
	{
		if (scene)
			obs_source_remove(obs_scene_get_source(scene));
		for (obs_source_t *image : images)
			obs_source_remove(image);
	}

	obs_source_t *source() const { return obs_scene_get_source(scene); }

	bool add_image(const std::string &file, const char *name, float scale)
	{
		OBSDataAutoRelease settings = obs_data_create();
		obs_data_set_string(settings, "file", file.c_str());
		OBSSourceAutoRelease image = obs_source_create("image_source", name, settings, nullptr);
		obs_sceneitem_t *item = image ? obs_scene_add(scene, image) : nullptr;
		if (!item)
			return false;
		vec2 size;
		vec2_set(&size, scale, scale);
		obs_sceneitem_set_scale(item, &size);
		if (!cvtest::wait_until([&] { return obs_source_get_width(image) > 0; }, 10000))
			return false;
		images.push_back(std::move(image));
		return true;
	}

	bool make(const std::string &dir, std::string *error)
	{
		const std::string pattern = dir + "/pattern.png";
		const std::string fractal = dir + "/fractal.png";
		if (!run_ffmpeg({"-f", "lavfi", "-i", "testsrc2=s=1920x1080", "-frames:v", "1", pattern}) ||
		    !run_ffmpeg({"-f", "lavfi", "-i",
				 "mandelbrot=s=960x540:maxiter=256,format=rgba,colorchannelmixer=aa=0.5", "-frames:v",
				 "1", fractal})) {
			*error = "ffmpeg could not make the scene's pictures";
			return false;
		}
		scene = cvtest::make_band_scene(kSceneName, {0x2040a0, 0xc04020, 0x20a060, 0xe0c040, 0x602080});
		if (!scene || !add_image(pattern, "Layout Render Pattern", 1.0f) ||
		    !add_image(fractal, "Layout Render Fractal", 2.0f)) {
			*error = "the host scene could not be made";
			return false;
		}
		return true;
	}
};

// Renderer CPU time so far: the host's graphics thread and Mesa's rasterizer threads.
uint64_t renderer_cpu_ns(const ThreadTimes &before, const ThreadTimes &after)
{
	return cpu_between(before, after, "libobs: graph") + cpu_between(before, after, "llvmpipe");
}

struct Slice {
	double frame_ns = 0; // libobs's average time per frame, over the samples
	double cpu_ns = 0;   // renderer CPU per frame rendered
	double lagged = 0;   // frames the renderer missed, per frame due
	double skipped = 0;  // frames the output's video repeated or dropped, per frame
};

Slice measure(video_t *video)
{
	const uint32_t total_before = obs_get_total_frames();
	const uint32_t lagged_before = obs_get_lagged_frames();
	const uint32_t out_before = video ? video_output_get_total_frames(video) : 0;
	const uint32_t skipped_before = video ? video_output_get_skipped_frames(video) : 0;
	const ThreadTimes times_before = thread_times();
	double frame_ns = 0;
	for (int i = 0; i < kSamples; i++) {
		sleep_s(1);
		frame_ns += double(obs_get_average_frame_time_ns());
	}
	const ThreadTimes times_after = thread_times();
	const uint32_t due = obs_get_total_frames() - total_before;
	const uint32_t lagged = obs_get_lagged_frames() - lagged_before;
	Slice slice;
	slice.frame_ns = frame_ns / kSamples;
	slice.cpu_ns = due > lagged ? double(renderer_cpu_ns(times_before, times_after)) / double(due - lagged) : 0;
	slice.lagged = due ? double(lagged) / double(due) : 0;
	if (video) {
		const uint32_t out = video_output_get_total_frames(video) - out_before;
		const uint32_t skipped = video_output_get_skipped_frames(video) - skipped_before;
		slice.skipped = out ? double(skipped) / double(out) : 0;
	}
	return slice;
}

struct Bench {
	RenderScene scene;
	cv::VerticalCanvas canvas{[] {
		cv::CanvasConfig config;
		config.use_active_scene_audio = false;
		return config;
	}()};

	bool make(const std::string &dir, std::string *error)
	{
		register_frames_output();
		if (!scene.make(dir, error))
			return false;
		if (!canvas.init() || !canvas.set_transition({"fade_transition", cv::kMaxTransitionMs})) {
			*error = "the vertical canvas could not be made";
			return false;
		}
		cv::SceneLayout fit;
		fit.kind = cv::LayoutKind::Fit;
		fit.background = cv::kBlurBackground;
		// Stacked as streamers stack: the webcam corner above the middle of the game.
		cv::SceneLayout stack;
		stack.kind = cv::LayoutKind::Stack;
		stack.top = {1380, 60, 480, 270};
		stack.bottom = {480, 114, 960, 853};
		const std::pair<const char *, cv::SceneLayout> scenes[] = {{"Cover", {}},
									   {"Fit", fit},
									   {"Stack", stack},
									   {"Fade A", {}},
									   {"Fade B", {}}};
		for (const auto &[name, layout] : scenes) {
			if (!canvas.create_scene(name) || !canvas.set_scene_layout(name, layout) ||
			    !canvas.assign_scene_source(name, kSceneName)) {
				*error = std::string("the vertical scene ") + name + " could not be made";
				return false;
			}
		}
		return true;
	}

	// Sets the configuration up, lets it settle and measures it.
	bool run(Config config, Slice *slice, std::string *error)
	{
		const bool vertical = kVerticalScenes[config] != nullptr;
		obs_set_output_source(0, config == kHost ? scene.source() : nullptr);
		if (vertical)
			canvas.set_active_scene(kVerticalScenes[config], true);
		video_t *video = config == kHost ? obs_get_video() : vertical ? canvas.fresh_video() : nullptr;
		OBSOutputAutoRelease output;
		if (video) {
			output = obs_output_create(kFramesOutputId, "layout render frames", nullptr, nullptr);
			obs_output_set_media(output, video, obs_get_audio());
			if (!obs_output_start(output))
				*error = std::string("the raw output of ") + kConfigNames[config] + " did not start";
		} else if (config != kBaseline) {
			*error = "the vertical canvas has no video";
		}
		if (config == kFade)
			canvas.set_active_scene("Fade B");
		if (error->empty()) {
			sleep_s(kSettleSeconds);
			*slice = measure(video);
		}
		if (output) {
			obs_output_stop(output);
			cvtest::wait_until([&] { return !obs_output_active(output); }, 10000);
			output = nullptr;
		}
		if (vertical) {
			canvas.drop_video();
			canvas.set_active_scene("Cover", true);
		}
		obs_set_output_source(0, nullptr);
		return error->empty();
	}

	~Bench() { canvas.shutdown(); }
};

double load_average()
{
	double load = 0;
	if (FILE *file = fopen("/proc/loadavg", "r")) {
		if (fscanf(file, "%lf", &load) != 1)
			load = 0;
		fclose(file);
	}
	return load;
}

void BM_LayoutRender(benchmark::State &state)
{
	static int round = 0;
	const std::string dir = cvtest::make_temp_dir("cv-layout-render-");
	std::string error;
	{
		Bench bench;
		if (dir.empty())
			error = "no scratch folder";
		else
			bench.make(dir, &error);
		for (auto _ : state) {
			if (!error.empty())
				break;
			state.counters["load_avg"] = load_average();
			// Each configuration twice, forwards then backwards (or the reverse).
			Slice sum[kConfigs];
			const bool forwards = round++ % 2 == 0;
			for (int turn = 0; turn < 2 * kConfigs && error.empty(); turn++) {
				const bool up = (turn < kConfigs) == forwards;
				const auto config = Config(up ? turn % kConfigs : kConfigs - 1 - turn % kConfigs);
				Slice slice;
				if (!bench.run(config, &slice, &error))
					break;
				sum[config].frame_ns += slice.frame_ns / 2;
				sum[config].cpu_ns += slice.cpu_ns / 2;
				sum[config].lagged += slice.lagged / 2;
				sum[config].skipped += slice.skipped / 2;
			}
			if (!error.empty())
				break;
			for (int config = 0; config < kConfigs; config++) {
				const std::string name = kConfigNames[config];
				const Slice &base = sum[kBaseline];
				state.counters[name + "_frame_ms"] = sum[config].frame_ns / 1e6;
				state.counters[name + "_cpu_ms"] = sum[config].cpu_ns / 1e6;
				state.counters[name + "_lagged_pct"] = sum[config].lagged * 100;
				if (config == kBaseline)
					continue;
				state.counters[name + "_net_frame_ms"] = (sum[config].frame_ns - base.frame_ns) / 1e6;
				state.counters[name + "_net_cpu_ms"] = (sum[config].cpu_ns - base.cpu_ns) / 1e6;
				state.counters[name + "_skipped_pct"] = sum[config].skipped * 100;
			}
		}
	}
	if (!error.empty())
		state.SkipWithError(error.c_str());
	if (!dir.empty())
		std::filesystem::remove_all(dir);
}

} // namespace

BENCHMARK(BM_LayoutRender)->Iterations(1)->Repetitions(5)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
