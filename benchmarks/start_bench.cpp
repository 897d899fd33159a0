// Time from asking for a stream to the first bytes, and to the first keyframe, reaching
// the RTMP server: the vertical output (its encoder fallback included) beside the
// host's own "rtmp_output" started on the very same encoders afterwards.

#include "side_by_side.h"
#include "bench_util.h"
#include "timed_mux_output.h"

#include "base/encoder_order.h"
#include "canvas/vertical_canvas.h"
#include "stream/mux_output.h"
#include "output/vertical_output.h"

#include "sources.h"
#include "servers.h"
#include "tcp_relay.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

namespace cvbench {

using cvtest::steady_ns;

namespace {

constexpr int kFirstByteTimeoutMs = 20000;

struct Arrival {
	double first_byte_ms = -1;
	double first_keyframe_ms = -1;
};

// From `started_ns` to the relay's first client byte and to the first keyframe in the
// server's recording of `key`; negative on timeout.
Arrival wait_arrival(const cvtest::TcpRelay &relay, const cvtest::RtmpServer &server, const std::string &key,
		     uint64_t started_ns)
{
	Arrival arrival;
	const uint64_t deadline = started_ns + uint64_t(kFirstByteTimeoutMs) * 1000000;
	std::unique_ptr<FlvKeyframeWatch> watch;
	while (steady_ns() < deadline && arrival.first_keyframe_ms < 0) {
		if (arrival.first_byte_ms < 0 && relay.first_byte_ns() != 0)
			arrival.first_byte_ms = double(relay.first_byte_ns() - started_ns) / 1e6;
		if (!watch) {
			const std::vector<std::string> recordings = server.recordings(key);
			if (!recordings.empty())
				watch = std::make_unique<FlvKeyframeWatch>(recordings.back());
		}
		if (watch && watch->found())
			arrival.first_keyframe_ms = double(steady_ns() - started_ns) / 1e6;
		std::this_thread::sleep_for(std::chrono::microseconds(200));
	}
	return arrival;
}

bool wait_inactive(obs_output_t *output)
{
	for (int i = 0; i < 500 && obs_output_active(output); i++)
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
	return !obs_output_active(output);
}

obs_output_t *find_mux_output()
{
	obs_output_t *found = nullptr;
	obs_enum_outputs(
		[](void *param, obs_output_t *output) {
			if (strcmp(obs_output_get_id(output), cv::kMuxOutputId) != 0)
				return true;
			*static_cast<obs_output_t **>(param) = output;
			return false;
		},
		&found);
	return found;
}

// state.range(0): 0 for the "auto" encoder choice users get (hardware candidates
// tried first), 1 for "x264" (straight to the software encoder).
void BM_StartToFirstByte(benchmark::State &state)
{
	cvtest::RtmpServer server;
	cvtest::TcpRelay relay;
	std::string error;
	if (!server.start(&error) || !relay.start(server.port(), &error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	cv::CanvasConfig canvas_config;
	cv::VerticalCanvas canvas(canvas_config);
	OBSSceneAutoRelease scene = cvtest::make_band_scene("Start Show", {0xFF0000, 0x00FF00, 0x0000FF, 0xFFFFFF});
	if (!canvas.init() || !canvas.assign_scene_source("Scene 1", "Start Show")) {
		state.SkipWithError("the canvas did not start");
		return;
	}
	const std::string server_url = "rtmp://127.0.0.1:" + std::to_string(relay.port()) + "/live";

	static int run = 0;
	for (auto _ : state) {
		const std::string suffix = "-" + std::to_string(run++);
		cv::OutputConfig config;
		const std::string key = "vertical" + suffix;
		config.destinations = {{"", server_url, key, true, {}}};
		config.preferred_encoder = state.range(0) == 0 ? cv::kAutomaticEncoder : cv::kX264Encoder;
		cv::VerticalOutput output(&canvas, config);
		output.init();

		relay.forget_first_byte();
		const uint64_t plugin_start = steady_ns();
		const bool started = !output.start();
		const Arrival plugin = started ? wait_arrival(relay, server, key, plugin_start) : Arrival{};
		// Let the connection finish and the stream flow before stopping it.
		std::this_thread::sleep_for(std::chrono::seconds(1));
		// The same encoders, now feeding the host's own output; held, since the vertical
		// output lets go of them when it stops.
		OBSOutput mux = find_mux_output();
		OBSEncoder video = mux ? obs_output_get_video_encoder(mux) : nullptr;
		OBSEncoder audio = mux ? obs_output_get_audio_encoder(mux, 0) : nullptr;
		output.stop();
		if (!mux || !wait_inactive(mux) || plugin.first_keyframe_ms < 0) {
			state.SkipWithError("the vertical output did not reach the server");
			return;
		}
		HostRtmpOutput rtmp = make_host_rtmp_output(server_url, "host" + suffix, video, audio);
		obs_output_t *host = rtmp.output;
		if (!host) {
			state.SkipWithError("the host's rtmp_output is not available");
			return;
		}

		relay.forget_first_byte();
		const uint64_t host_start = steady_ns();
		const bool host_started = obs_output_start(host);
		const Arrival reference = host_started ? wait_arrival(relay, server, "host" + suffix, host_start)
						       : Arrival{};
		std::this_thread::sleep_for(std::chrono::seconds(1));
		obs_output_stop(host);
		wait_inactive(host);
		if (reference.first_keyframe_ms < 0 || plugin.first_byte_ms < 0 || reference.first_byte_ms < 0) {
			const char *why = obs_output_get_last_error(host);
			state.SkipWithError(why ? why : "the host's rtmp_output did not reach the server");
			return;
		}

		state.counters["plugin_ms"] = plugin.first_byte_ms;
		state.counters["host_rtmp_ms"] = reference.first_byte_ms;
		state.counters["ratio"] = plugin.first_byte_ms / reference.first_byte_ms;
		state.counters["plugin_keyframe_ms"] = plugin.first_keyframe_ms;
		state.counters["host_rtmp_keyframe_ms"] = reference.first_keyframe_ms;
	}
	canvas.shutdown();
	if (scene)
		obs_source_remove(obs_scene_get_source(scene));
}

} // namespace

BENCHMARK(BM_StartToFirstByte)
	->ArgName("x264_only")
	->Arg(0)
	->Arg(1)
	->Iterations(1)
	->Repetitions(5)
	->Unit(benchmark::kMillisecond)
	->UseRealTime();

} // namespace cvbench
