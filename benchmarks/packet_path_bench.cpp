// What the output costs per packet, beside the host's own "rtmp_output" fed the very
// same packets and bare FFmpeg calls muxing them; how long the encoder thread is held
// while the server stalls or never answers; and how much memory a long stall costs,
// beside the host's output in the same stall.

#include "bare_ffmpeg_mux.h"
#include "side_by_side.h"
#include "bench_util.h"
#include "replay_encoders.h"
#include "timed_mux_output.h"

#include "pipeline.h"
#include "process.h"
#include "servers.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

namespace cvbench {

using cvtest::CallbackTime;
using cvtest::steady_ns;
using cvtest::TimedMux;

namespace {

constexpr int kBareRuns = 5;
constexpr double kRecordSeconds = 10;
constexpr double kSettleSeconds = 1;
constexpr double kFlowingSeconds = 10;
constexpr double kSampleSeconds = 0.2;

std::vector<uint8_t> header_of(obs_encoder_t *encoder)
{
	uint8_t *data = nullptr;
	size_t size = 0;
	if (!encoder || !obs_encoder_get_extra_data(encoder, &data, &size) || !data)
		return {};
	return {data, data + size};
}

// The callbacks' times that began in [begin, end).
std::vector<CallbackTime> times_between(uint64_t begin, uint64_t end)
{
	std::vector<CallbackTime> times;
	for (const CallbackTime &time : TimedMux::instance().times())
		if (time.started_ns >= begin && time.started_ns < end)
			times.push_back(time);
	return times;
}

std::vector<uint64_t> wall(const std::vector<CallbackTime> &times)
{
	std::vector<uint64_t> values;
	for (const CallbackTime &time : times)
		values.push_back(time.took_ns);
	return values;
}

std::vector<uint64_t> cpu(const std::vector<CallbackTime> &times)
{
	std::vector<uint64_t> values;
	for (const CallbackTime &time : times)
		values.push_back(time.cpu_ns);
	return values;
}

// One output fed by the replay encoders for kFlowingSeconds: the CPU the packet-carrying
// threads used, and how many packets the encoders handed out meanwhile.
struct Feed {
	uint64_t cpu_ns = 0;
	uint64_t output_thread_ns = 0;
	uint64_t callback_cpu_ns = 0; // the timed output's callbacks only
	size_t packets = 0;
	double per_packet() const { return packets ? double(cpu_ns) / double(packets) : 0; }
};

bool feed(const std::function<obs_output_t *(obs_encoder_t *, obs_encoder_t *)> &make_output, const char *output_thread,
	  Feed *result)
{
	OBSEncoderAutoRelease video = obs_video_encoder_create(kReplayVideoId, "replay video", nullptr, nullptr);
	OBSEncoderAutoRelease audio = obs_audio_encoder_create(kReplayAudioId, "replay audio", nullptr, 0, nullptr);
	if (!video || !audio)
		return false;
	obs_encoder_set_video(video, obs_get_video());
	obs_encoder_set_audio(audio, obs_get_audio());
	OBSOutputAutoRelease output = make_output(video, audio);
	TimedMux::instance().reset(false);
	if (!output || !obs_output_start(output))
		return false;
	sleep_s(kSettleSeconds);
	const ThreadTimes before = thread_times();
	const uint64_t begin = steady_ns();
	sleep_s(kFlowingSeconds);
	const ThreadTimes after = thread_times();
	const uint64_t end = steady_ns();
	obs_output_stop(output);
	for (int i = 0; i < 500 && obs_output_active(output); i++)
		sleep_s(0.02);

	result->cpu_ns = cpu_between(before, after);
	result->output_thread_ns = output_thread ? cpu_between(before, after, output_thread) : 0;
	for (const CallbackTime &time : times_between(begin, end))
		result->callback_cpu_ns += time.cpu_ns;
	// A video frame and, at 48 kHz, 1.5625 AAC frames for each of them.
	obs_video_info video_info = {};
	obs_get_video_info(&video_info);
	const double seconds = double(end - begin) / 1e9;
	result->packets =
		size_t(seconds * double(video_info.fps_num) / double(video_info.fps_den) + seconds * 48000 / 1024);
	return !obs_output_active(output);
}

// Streams the canvas for 10 s through the timed output and records its packets. Then the
// same packets are handed out, at the pace of the live stream, by replay encoders to
// the plug-in's output, to the host's rtmp_output and to an output that drops them;
// each one's cost is what its packet-carrying threads (all but the renderer's) used
// beyond the dropping output's, per packet. Last, bare FFmpeg calls mux the recorded
// packets into the same server, as fast as it takes them, timed on their thread.
void BM_PacketPath(benchmark::State &state)
{
	SideBySide side;
	std::string error;
	if (!side.make("record", "unused", &error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	TimedMux::instance().reset(true);
	if (!side.pipeline.start() || !side.pipeline.wait_connected(20000)) {
		state.SkipWithError("the output did not start");
		return;
	}
	sleep_s(kRecordSeconds);
	// The headers go with the encoders when they stop.
	obs_output_t *recorded = side.pipeline.output();
	BareStreams streams;
	streams.width = int(kCanvasWidth);
	streams.height = int(kCanvasHeight);
	streams.video_extradata = header_of(obs_output_get_video_encoder(recorded));
	streams.audio_extradata = header_of(obs_output_get_audio_encoder(recorded, 0));
	side.pipeline.stop();
	const std::vector<cvtest::RecordedPacket> packets = TimedMux::instance().packets();
	set_replay(packets, streams.video_extradata, streams.audio_extradata);
	const std::string server = side.server.app_url();

	for (auto _ : state) {
		Feed null;
		Feed host;
		Feed plugin;
		cvtest::HostRtmpOutput rtmp;
		const bool fed =
			feed(
				[](obs_encoder_t *video, obs_encoder_t *audio) -> obs_output_t * {
					obs_output_t *output =
						obs_output_create(kNullOutputId, "null", nullptr, nullptr);
					obs_output_set_video_encoder(output, video);
					obs_output_set_audio_encoder(output, audio, 0);
					return output;
				},
				nullptr, &null) &&
			feed(
				[&](obs_encoder_t *video, obs_encoder_t *audio) -> obs_output_t * {
					rtmp = cvtest::make_host_rtmp_output(server, "host-path", video, audio);
					return obs_output_get_ref(rtmp.output);
				},
				"rtmp-stream: se", &host) &&
			feed(
				[&](obs_encoder_t *video, obs_encoder_t *audio) -> obs_output_t * {
					OBSDataAutoRelease settings = obs_data_create();
					obs_data_set_string(settings, "server", server.c_str());
					obs_data_set_string(settings, "key", "plugin-path");
					obs_output_t *output = obs_output_create(cvtest::kTimedMuxId, "plugin path",
										 settings, nullptr);
					obs_output_set_video_encoder(output, video);
					obs_output_set_audio_encoder(output, audio, 0);
					return output;
				},
				cv::kSessionThreadName, &plugin);
		rtmp = {};
		if (!fed) {
			state.SkipWithError("an output did not take the replayed packets");
			return;
		}

		std::vector<double> bare_per_packet;
		for (int run = 0; run < kBareRuns; run++) {
			BareResult bare;
			if (!mux_with_bare_ffmpeg(packets, streams, server + "/bare", &bare, &error) ||
			    bare.packets == 0) {
				state.SkipWithError(error.c_str());
				return;
			}
			bare_per_packet.push_back(double(bare.packet_cpu_ns) / double(bare.packets));
		}

		const double plugin_ns = plugin.per_packet() - null.per_packet();
		const double host_ns = host.per_packet() - null.per_packet();
		state.counters["packets"] = double(plugin.packets);
		state.counters["plugin_cpu_ns"] = plugin_ns;
		state.counters["host_rtmp_cpu_ns"] = host_ns;
		state.counters["bare_ffmpeg_cpu_ns"] = median(bare_per_packet);
		state.counters["null_cpu_ns"] = null.per_packet();
		state.counters["plugin_callback_cpu_ns"] = double(plugin.callback_cpu_ns) / double(plugin.packets);
		state.counters["plugin_thread_cpu_ns"] = double(plugin.output_thread_ns) / double(plugin.packets);
		state.counters["host_thread_cpu_ns"] = double(host.output_thread_ns) / double(host.packets);
		state.counters["ratio"] = host_ns > 0 ? plugin_ns / host_ns : 0;
	}
	side.server.stop();
}

// Samples resident memory while the server is held still for `seconds`. Memory freed
// before stays with the process and is reused first, so what grows is new.
struct StallMemory {
	double rss_growth = 0;
	double queue_max = 0;
};

StallMemory stall_memory(cvtest::RtmpServer &server, double seconds)
{
	StallMemory memory;
	const double rss_before = double(resident_bytes());
	const uint64_t until = steady_ns() + uint64_t(seconds * 1e9);
	server.pause();
	while (steady_ns() < until) {
		sleep_s(kSampleSeconds);
		memory.rss_growth = std::max(memory.rss_growth, double(resident_bytes()) - rss_before);
		memory.queue_max = std::max(memory.queue_max, double(TimedMux::instance().stats().queued_bytes));
	}
	server.resume();
	return memory;
}

// Streams 10 s, then the server stops reading (its process is stopped, its sockets stay
// open) for state.range(0) seconds, and reads again. The encoder-thread callbacks of the
// stall are compared with those of the 10 s before it ("held" is wall time, preemption
// by the encoders included). Resident memory is sampled during the stall; then the host's
// rtmp_output, on the same encoders, goes through the same stall.
void BM_StalledNetwork(benchmark::State &state)
{
	const double stall_s = double(state.range(0));
	for (auto _ : state) {
		SideBySide side;
		std::string error;
		if (!side.make("stall", "host-stall", &error)) {
			state.SkipWithError(error.c_str());
			return;
		}
		TimedMux::instance().reset(false);
		if (!side.pipeline.start() || !side.pipeline.wait_connected(20000)) {
			state.SkipWithError("the output did not start");
			return;
		}
		sleep_s(kFlowingSeconds);
		const uint64_t stall_begin = steady_ns();
		const StallMemory plugin = stall_memory(side.server, stall_s);
		const uint64_t stall_end = steady_ns();
		sleep_s(kFlowingSeconds);
		side.pipeline.stop();

		if (!obs_output_start(side.host.output)) {
			state.SkipWithError("the host's rtmp_output did not start");
			return;
		}
		sleep_s(kFlowingSeconds);
		const StallMemory host = stall_memory(side.server, stall_s);
		obs_output_stop(side.host.output);
		for (int i = 0; i < 1500 && obs_output_active(side.host.output); i++)
			sleep_s(0.02);

		const std::vector<CallbackTime> before =
			times_between(stall_begin - uint64_t(kFlowingSeconds * 1e9), stall_begin);
		const std::vector<CallbackTime> stalled = times_between(stall_begin, stall_end);
		if (stalled.empty() || before.empty()) {
			state.SkipWithError("no packets arrived during the stall");
			return;
		}
		state.counters["stalled_packets"] = double(stalled.size());
		state.counters["stall_max_us"] = percentile(wall(stalled), 1.0) / 1000;
		state.counters["stall_p99_us"] = percentile(wall(stalled), 0.99) / 1000;
		state.counters["stall_cpu_max_us"] = percentile(cpu(stalled), 1.0) / 1000;
		state.counters["flowing_max_us"] = percentile(wall(before), 1.0) / 1000;
		state.counters["flowing_p99_us"] = percentile(wall(before), 0.99) / 1000;
		state.counters["flowing_cpu_max_us"] = percentile(cpu(before), 1.0) / 1000;
		state.counters["plugin_rss_growth_mb"] = plugin.rss_growth / 1e6;
		state.counters["host_rss_growth_mb"] = host.rss_growth / 1e6;
		state.counters["plugin_queue_max_mb"] = plugin.queue_max / 1e6;
		// The plug-in's cap for this stream: four seconds of its bitrates, 2 MiB at least.
		state.counters["queue_cap_mb"] =
			std::max(double(2 << 20), (pipeline_options().video_kbps + 160) * 1000.0 / 8 * 4) / 1e6;
	}
}

// The stream while its output connects to a server that takes the connection and never
// answers (until the connection gives up after 10 s), beside the same stream flowing
// to nginx.
void BM_HungServerCallback(benchmark::State &state)
{
	for (auto _ : state) {
		cvtest::SilentTcpServer silent;
		cvtest::RtmpServer nginx;
		std::string error;
		if (!silent.port() || !nginx.start(&error)) {
			state.SkipWithError(error.c_str());
			return;
		}
		std::vector<CallbackTime> hung;
		std::vector<CallbackTime> flowing;
		for (const bool answers : {false, true}) {
			cvtest::MuxPipeline pipeline(pipeline_options());
			const std::string url = answers ? nginx.app_url()
							: "rtmp://127.0.0.1:" + std::to_string(silent.port()) + "/live";
			TimedMux::instance().reset(false);
			if (!pipeline.create(url, "hung") || !pipeline.start()) {
				state.SkipWithError("the output did not start");
				return;
			}
			sleep_s(1);
			const uint64_t begin = steady_ns();
			sleep_s(7);
			(answers ? flowing : hung) = times_between(begin, steady_ns());
			pipeline.stop();
		}
		if (hung.empty() || flowing.empty()) {
			state.SkipWithError("no packets arrived");
			return;
		}
		state.counters["hung_max_us"] = percentile(wall(hung), 1.0) / 1000;
		state.counters["hung_p99_us"] = percentile(wall(hung), 0.99) / 1000;
		state.counters["hung_cpu_max_us"] = percentile(cpu(hung), 1.0) / 1000;
		state.counters["flowing_max_us"] = percentile(wall(flowing), 1.0) / 1000;
		state.counters["flowing_p99_us"] = percentile(wall(flowing), 0.99) / 1000;
		state.counters["goal_us"] = 1000;
	}
}

} // namespace

BENCHMARK(BM_PacketPath)->Iterations(1)->Repetitions(3)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_StalledNetwork)->Arg(60)->Iterations(1)->Repetitions(3)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_HungServerCallback)->Iterations(1)->Repetitions(3)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
