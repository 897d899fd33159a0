// CPU time per streamed minute of the plug-in's own vertical output with three
// destinations against one: the canvas and its encoders are shared, so each further
// destination adds only its connection (one copy of the packets, one stream thread).

#include "bench_util.h"
#include "timed_mux_output.h"

#include "canvas/vertical_canvas.h"
#include "base/encoder_order.h"
#include "output/vertical_output.h"
#include "servers.h"
#include "sources.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

namespace cvbench {

namespace {

constexpr double kSettleSeconds = 2;

// Process CPU seconds per minute of one start of `output`, measured over `seconds`.
double cpu_per_minute(cv::VerticalOutput &output, double seconds)
{
	if (output.start())
		return -1;
	sleep_s(kSettleSeconds);
	for (const cv::DestinationStatus &status : output.destinations())
		if (status.state != cv::StreamState::Live)
			return -1;
	const uint64_t cpu_begin = process_cpu_ns();
	const uint64_t wall_begin = cvtest::steady_ns();
	sleep_s(seconds);
	const double per_minute = double(process_cpu_ns() - cpu_begin) / double(cvtest::steady_ns() - wall_begin) * 60;
	output.stop();
	output.wait_idle(std::chrono::seconds(10));
	return per_minute;
}

// state.range(0): seconds measured per output and repetition, in two slices ordered one,
// three, three, one (or the other way round, every other repetition), so that a
// neighbour's load that rises or falls meanwhile weighs on both alike.
void BM_DestinationsCpu(benchmark::State &state)
{
	cvtest::RtmpServer server;
	std::string error;
	if (!server.start(&error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	cv::CanvasConfig canvas_config;
	canvas_config.use_active_scene_audio = false;
	cv::VerticalCanvas canvas(canvas_config);
	OBSSceneAutoRelease scene = cvtest::make_band_scene("Destinations Show", {0xFF0000, 0x00FF00, 0x0000FF});
	if (!canvas.init() || !canvas.assign_scene_source("Scene 1", "Destinations Show")) {
		state.SkipWithError("the canvas did not start");
		return;
	}
	auto output_to = [&](int count) {
		cv::OutputConfig config;
		config.bitrate_kbps = 6000;
		config.encoder_preset = "ultrafast";
		config.preferred_encoder = cv::kX264Encoder;
		for (int i = 0; i < count; i++)
			config.destinations.push_back({"", server.app_url(), "dest" + std::to_string(i), true, {}});
		auto output = std::make_unique<cv::VerticalOutput>(&canvas, config);
		output->init();
		return output;
	};
	const std::unique_ptr<cv::VerticalOutput> one = output_to(1);
	const std::unique_ptr<cv::VerticalOutput> three = output_to(3);
	static int round = 0;
	const double slice = double(state.range(0)) / 2;
	for (auto _ : state) {
		std::vector<double> one_min, three_min;
		const bool one_first = round++ % 2 == 0;
		for (int turn = 0; turn < 4; turn++) {
			const bool one_turn = (turn == 0 || turn == 3) == one_first;
			const double figure = cpu_per_minute(one_turn ? *one : *three, slice);
			if (figure < 0) {
				state.SkipWithError("a destination did not go live");
				return;
			}
			(one_turn ? one_min : three_min).push_back(figure);
		}
		const double one_cpu = (one_min[0] + one_min[1]) / 2;
		const double three_cpu = (three_min[0] + three_min[1]) / 2;
		state.counters["one_cpu_s_per_min"] = one_cpu;
		state.counters["three_cpu_s_per_min"] = three_cpu;
		state.counters["ratio"] = one_cpu > 0 ? three_cpu / one_cpu : 0;
	}
	server.stop();
}

} // namespace

BENCHMARK(BM_DestinationsCpu)->Arg(20)->Iterations(1)->Repetitions(5)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
