// CPU time of the whole vertical pipeline per streamed minute: the canvas, its
// encoders and the plug-in's output sending to nginx, beside the same canvas and
// encoders feeding the host's own "rtmp_output". Process CPU time is what the user's
// machine pays (the software renderer included); the plug-in's own part is its
// encoded-packet callback plus its stream thread.

#include "side_by_side.h"
#include "bench_util.h"
#include "timed_mux_output.h"

#include "pipeline.h"
#include "servers.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

namespace cvbench {

using cvtest::CallbackTime;
using cvtest::steady_ns;
using cvtest::TimedMux;

namespace {

// The encoders and the connection settle before measuring.
constexpr double kSettleSeconds = 2;

struct Window {
	uint64_t begin_ns = 0;
	uint64_t wall_ns = 0;
	uint64_t cpu_ns = 0;
};

Window measure(double seconds)
{
	Window window;
	const uint64_t cpu_begin = process_cpu_ns();
	window.begin_ns = steady_ns();
	sleep_s(seconds);
	window.cpu_ns = process_cpu_ns() - cpu_begin;
	window.wall_ns = steady_ns() - window.begin_ns;
	return window;
}

// Time streamed and CPU time used, over the slices of one output.
struct Total {
	uint64_t wall_ns = 0;
	uint64_t cpu_ns = 0;
	uint64_t code_ns = 0; // the plug-in's callback and write thread

	void add(const Window &window)
	{
		wall_ns += window.wall_ns;
		cpu_ns += window.cpu_ns;
	}
	double per_minute(uint64_t ns) const { return wall_ns ? double(ns) / double(wall_ns) * 60 : 0; }
};

bool wait_inactive(obs_output_t *output)
{
	for (int i = 0; i < 500 && obs_output_active(output); i++)
		sleep_s(0.02);
	return !obs_output_active(output);
}

// state.range(0): seconds measured per output and repetition, in two slices ordered
// plug-in, host, host, plug-in (or the other way round, every other repetition), so
// that a neighbour's load on the shared machine that rises or falls meanwhile weighs
// on both alike. Every slice starts its output afresh and lets it settle first.
void BM_PipelineCpu(benchmark::State &state)
{
	static int round = 0;
	const double slice = double(state.range(0)) / 2;
	SideBySide side;
	std::string error;
	if (!side.make("cpu-plugin", "cpu-host", &error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	cvtest::RtmpServer &server = side.server;
	cvtest::MuxPipeline &pipeline = side.pipeline;
	HostRtmpOutput &host = side.host;

	for (auto _ : state) {
		// Nothing streams: the host's own canvas and the idle vertical canvas.
		sleep_s(kSettleSeconds);
		Total idle;
		idle.add(measure(slice));

		Total plugin;
		Total reference;
		auto run_plugin = [&]() -> bool {
			TimedMux::instance().reset(false);
			if (!pipeline.start())
				return false;
			sleep_s(kSettleSeconds);
			const uint64_t writer_begin = TimedMux::stream_threads_cpu_ns();
			const Window window = measure(slice);
			const uint64_t writer_end = TimedMux::stream_threads_cpu_ns();
			pipeline.stop();
			if (writer_begin == 0 || writer_end < writer_begin)
				return false;
			plugin.add(window);
			plugin.code_ns += writer_end - writer_begin;
			const uint64_t end = window.begin_ns + window.wall_ns;
			for (const CallbackTime &time : TimedMux::instance().times())
				if (time.started_ns >= window.begin_ns && time.started_ns < end)
					plugin.code_ns += time.cpu_ns;
			return true;
		};
		auto run_host = [&]() -> bool {
			if (!obs_output_start(host.output))
				return false;
			sleep_s(kSettleSeconds);
			const bool streaming = obs_output_active(host.output) && !obs_output_reconnecting(host.output);
			const Window window = measure(slice);
			obs_output_stop(host.output);
			reference.add(window);
			return wait_inactive(host.output) && streaming;
		};

		const bool plugin_first = round++ % 2 == 0;
		bool ok = true;
		for (int turn = 0; turn < 4 && ok; turn++) {
			const bool plugin_turn = (turn == 0 || turn == 3) == plugin_first;
			ok = plugin_turn ? run_plugin() : run_host();
		}
		if (!ok) {
			state.SkipWithError("an output did not stream");
			return;
		}

		const double plugin_min = plugin.per_minute(plugin.cpu_ns);
		const double host_min = reference.per_minute(reference.cpu_ns);
		state.counters["plugin_cpu_s_per_min"] = plugin_min;
		state.counters["host_rtmp_cpu_s_per_min"] = host_min;
		state.counters["ratio"] = host_min > 0 ? plugin_min / host_min : 0;
		state.counters["plugin_code_s_per_min"] = plugin.per_minute(plugin.code_ns);
		state.counters["idle_cpu_s_per_min"] = idle.per_minute(idle.cpu_ns);
	}
	server.stop();
}

} // namespace

BENCHMARK(BM_PipelineCpu)->Arg(20)->Iterations(1)->Repetitions(5)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
