// Time from asking for a stream to the first bytes reaching the RTMP server: the
// vertical output (its encoder fallback and lazy connect included) beside the host's
// own "rtmp_output" started on the very same encoders afterwards.

#include "bench_service.h"
#include "timed_mux_output.h"

#include "canvas/vertical_canvas.h"
#include "mux/mux_output.h"
#include "output/vertical_output.h"

#include "host_sources.h"
#include "stream_servers.h"
#include "tcp_relay.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <thread>

namespace cvbench {

using cvtest::steady_ns;

namespace {

constexpr int kFirstByteTimeoutMs = 20000;

// Milliseconds from `started_ns` to the relay's first client byte; negative on timeout.
double wait_first_byte(const cvtest::TcpRelay &relay, uint64_t started_ns)
{
	const uint64_t deadline = started_ns + uint64_t(kFirstByteTimeoutMs) * 1000000;
	while (relay.first_byte_ns() == 0) {
		if (steady_ns() > deadline)
			return -1;
		std::this_thread::sleep_for(std::chrono::microseconds(200));
	}
	return double(relay.first_byte_ns() - started_ns) / 1e6;
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

	for (auto _ : state) {
		cv::OutputConfig config;
		config.url = server_url;
		config.key = "vertical";
		config.preferred_encoder = state.range(0) == 0 ? "auto" : "x264";
		cv::VerticalOutput output(&canvas, config);
		output.init();

		relay.forget_first_byte();
		const uint64_t plugin_start = steady_ns();
		const bool started = output.start();
		const double plugin_ms = started ? wait_first_byte(relay, plugin_start) : -1;
		// Let the connection finish and the stream flow before stopping it.
		std::this_thread::sleep_for(std::chrono::seconds(1));
		output.stop();

		// The same encoders, now feeding the host's own output.
		OBSOutput mux = find_mux_output();
		if (!mux || !wait_inactive(mux) || plugin_ms < 0) {
			state.SkipWithError("the vertical output did not reach the server");
			return;
		}
		HostRtmpOutput rtmp = make_host_rtmp_output(server_url, "host", obs_output_get_video_encoder(mux),
							    obs_output_get_audio_encoder(mux, 0));
		obs_output_t *host = rtmp.output;
		if (!host) {
			state.SkipWithError("the host's rtmp_output is not available");
			return;
		}

		relay.forget_first_byte();
		const uint64_t host_start = steady_ns();
		const bool host_started = obs_output_start(host);
		const double host_ms = host_started ? wait_first_byte(relay, host_start) : -1;
		std::this_thread::sleep_for(std::chrono::seconds(1));
		obs_output_stop(host);
		wait_inactive(host);
		if (host_ms < 0) {
			const char *why = obs_output_get_last_error(host);
			state.SkipWithError(why ? why : "the host's rtmp_output did not reach the server");
			return;
		}

		state.counters["plugin_ms"] = plugin_ms;
		state.counters["host_rtmp_ms"] = host_ms;
		state.counters["ratio"] = plugin_ms / host_ms;
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
