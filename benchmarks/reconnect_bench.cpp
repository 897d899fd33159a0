// Time from a crashed RTMP server listening again to the first keyframe it receives on
// the new connection: the plug-in's output beside the host's own "rtmp_output" with
// the reconnect settings OBS gives users, on the very same encoders.
//
// The plug-in tries again 250 ms after losing the connection (then after 0.25, 0.5,
// 0.5, 1, 1, 2 ... 5 s) and starts the new connection with the newest keyframe it kept. The host
// waits 2 s before its first retry, restarts the encoders on success, and so sends a
// fresh keyframe right away.

#include "side_by_side.h"
#include "bench_util.h"
#include "timed_mux_output.h"

#include "pipeline.h"
#include "servers.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace cvbench {

using cvtest::steady_ns;
using cvtest::TimedMux;

namespace {

constexpr double kFlowingSeconds = 3;
constexpr int kRepetitions = 5;
constexpr uint64_t kNoticeTimeoutNs = 20000000000u;
constexpr uint64_t kKeyframeTimeoutNs = 40000000000u;
constexpr double kPollSeconds = 0.002;

struct Outage {
	double notice_ms = -1;   // from the kill to the output noticing
	double keyframe_ms = -1; // from the server listening again to the first keyframe it holds
	std::string error;
};

// Kills the server while `key` streams to it, waits until `noticed` says the output
// knows, starts the server again and waits for a keyframe in the new recording.
Outage crash_and_return(cvtest::RtmpServer &server, const std::string &key, const std::function<bool()> &noticed)
{
	Outage outage;
	const std::vector<std::string> before = server.recordings(key);
	const uint64_t killed = steady_ns();
	server.kill_hard();
	while (!noticed()) {
		if (steady_ns() - killed > kNoticeTimeoutNs) {
			outage.error = "the output did not notice the lost server";
			return outage;
		}
		sleep_s(kPollSeconds);
	}
	outage.notice_ms = double(steady_ns() - killed) / 1e6;

	if (!server.restart(&outage.error))
		return outage;
	const uint64_t listening = steady_ns();
	std::string path;
	std::unique_ptr<FlvKeyframeWatch> watch;
	for (;;) {
		if (!watch) {
			for (const std::string &recording : server.recordings(key))
				if (std::find(before.begin(), before.end(), recording) == before.end())
					watch = std::make_unique<FlvKeyframeWatch>(recording);
		}
		if (watch && watch->found())
			break;
		if (steady_ns() - listening > kKeyframeTimeoutNs) {
			outage.error = "no keyframe reached the server after it came back";
			return outage;
		}
		sleep_s(kPollSeconds);
	}
	outage.keyframe_ms = double(steady_ns() - listening) / 1e6;
	return outage;
}

bool mux_reconnecting()
{
	return TimedMux::instance().stats().reconnecting;
}

// The plug-in's figure depends on where in the keyframe interval the server goes away,
// and the encoders start with the stream, so each repetition kills it at another
// point of the interval: spread evenly over the repetitions.
void BM_ReconnectToKeyframe(benchmark::State &state)
{
	static int round = 0;
	const double phase = double(pipeline_options().keyint_sec) * double(round++ % kRepetitions) / kRepetitions;
	SideBySide side;
	std::string error;
	if (!side.make("plugin", "host", &error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	cvtest::RtmpServer &server = side.server;
	cvtest::MuxPipeline &pipeline = side.pipeline;
	HostRtmpOutput &host = side.host;

	for (auto _ : state) {
		TimedMux::instance().reset(false);
		if (!pipeline.start()) {
			state.SkipWithError("the output did not start");
			return;
		}
		sleep_s(kFlowingSeconds + phase);
		const Outage plugin = crash_and_return(server, "plugin", mux_reconnecting);
		pipeline.stop();
		if (!plugin.error.empty()) {
			state.SkipWithError(plugin.error.c_str());
			return;
		}

		if (!obs_output_start(host.output)) {
			state.SkipWithError("the host's rtmp_output did not start");
			return;
		}
		sleep_s(kFlowingSeconds + phase);
		obs_output_t *host_output = host.output;
		const Outage reference = crash_and_return(server, "host", [host_output] {
			return obs_output_reconnecting(host_output);
		});
		obs_output_stop(host.output);
		for (int i = 0; i < 500 && obs_output_active(host.output); i++)
			sleep_s(0.02);
		if (!reference.error.empty()) {
			state.SkipWithError(reference.error.c_str());
			return;
		}

		state.counters["plugin_ms"] = plugin.keyframe_ms;
		state.counters["host_rtmp_ms"] = reference.keyframe_ms;
		state.counters["ratio"] = plugin.keyframe_ms / reference.keyframe_ms;
		state.counters["plugin_notice_ms"] = plugin.notice_ms;
		state.counters["host_notice_ms"] = reference.notice_ms;
	}
	server.stop();
}

} // namespace

BENCHMARK(BM_ReconnectToKeyframe)->Iterations(1)->Repetitions(kRepetitions)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
