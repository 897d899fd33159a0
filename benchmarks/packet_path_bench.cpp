// What the output costs on the host's encoder thread and on its own write thread,
// beside the same packets muxed with bare FFmpeg calls, and how long the encoder
// thread is held while the network stalls.

#include "bare_ffmpeg_mux.h"
#include "timed_mux_output.h"

#include "mux/mux_output.h"

#include "mux_pipeline.h"
#include "stream_servers.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace cvbench {

using cvtest::CallbackTime;
using cvtest::kTimedMuxId;
using cvtest::steady_ns;
using cvtest::TimedMux;

namespace {

constexpr uint32_t kCanvasWidth = 1080;
constexpr uint32_t kCanvasHeight = 1920;
constexpr int kBareRuns = 5;

cvtest::PipelineOptions pipeline_options()
{
	cvtest::PipelineOptions options;
	options.width = kCanvasWidth;
	options.height = kCanvasHeight;
	options.audio_tracks = 1;
	options.keyint_sec = 2;
	options.video_kbps = 6000;
	options.output_id = kTimedMuxId;
	return options;
}

void sleep_s(double seconds)
{
	std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

std::vector<uint8_t> extradata(obs_encoder_t *encoder)
{
	uint8_t *data = nullptr;
	size_t size = 0;
	if (!encoder || !obs_encoder_get_extra_data(encoder, &data, &size) || !data)
		return {};
	return {data, data + size};
}

BareStreams streams_of(obs_output_t *output)
{
	BareStreams streams;
	streams.width = int(kCanvasWidth);
	streams.height = int(kCanvasHeight);
	streams.video_extradata = extradata(obs_output_get_video_encoder(output));
	obs_encoder_t *audio = obs_output_get_audio_encoder(output, 0);
	streams.audio_extradata = extradata(audio);
	if (audio)
		streams.sample_rate = int(obs_encoder_get_sample_rate(audio));
	return streams;
}

double percentile(std::vector<uint64_t> values, double fraction)
{
	if (values.empty())
		return 0;
	std::sort(values.begin(), values.end());
	const size_t index = std::min(values.size() - 1, size_t(fraction * double(values.size() - 1) + 0.5));
	return double(values[index]);
}

double mean(const std::vector<uint64_t> &values)
{
	if (values.empty())
		return 0;
	double sum = 0;
	for (uint64_t value : values)
		sum += double(value);
	return sum / double(values.size());
}

double median(std::vector<double> values)
{
	std::sort(values.begin(), values.end());
	return values.empty() ? 0 : values[values.size() / 2];
}

// Streams the canvas to /dev/null for state.range(0) seconds through the timed
// output, then muxes the recorded packets again with bare FFmpeg into the same sink.
// Costs are CPU time per packet (the machine is shared with the encoders, so wall
// time would mostly measure who else ran); "held" is the wall time the encoder
// thread spent in the callback.
void BM_PacketPath(benchmark::State &state)
{
	for (auto _ : state) {
		TimedMux::instance().reset(true);
		cvtest::MuxPipeline pipeline(pipeline_options());
		if (!pipeline.create("file:/dev", "null") || !pipeline.start()) {
			state.SkipWithError("the output did not start");
			return;
		}
		sleep_s(double(state.range(0)));
		if (!TimedMux::instance().wait_queue_drained(5000)) {
			state.SkipWithError("the write queue did not drain");
			return;
		}
		const uint64_t writer_ns = TimedMux::instance().writer_cpu_ns();
		const BareStreams streams = streams_of(pipeline.output());
		pipeline.stop();

		// The first call opens the muxer (file, header, write thread): not a
		// per-packet cost.
		std::vector<uint64_t> held;
		std::vector<uint64_t> cpu;
		const std::vector<CallbackTime> times = TimedMux::instance().times();
		for (size_t i = 1; i < times.size(); i++) {
			held.push_back(times[i].took_ns);
			cpu.push_back(times[i].cpu_ns);
		}
		if (held.empty() || writer_ns == 0) {
			state.SkipWithError("no packets went through the output");
			return;
		}

		const std::vector<RecordedPacket> packets = TimedMux::instance().packets();
		std::vector<double> bare_per_packet;
		for (int run = 0; run < kBareRuns; run++) {
			BareResult bare;
			std::string error;
			if (!mux_with_bare_ffmpeg(packets, streams, "file:/dev/null", &bare, &error) ||
			    bare.packets == 0) {
				state.SkipWithError(error.c_str());
				return;
			}
			bare_per_packet.push_back(double(bare.packet_cpu_ns) / double(bare.packets));
		}

		const double callback_cpu = mean(cpu);
		const double writer_cpu = double(writer_ns) / double(times.size());
		const double bare = median(bare_per_packet);
		state.counters["packets"] = double(times.size());
		state.counters["callback_cpu_ns"] = callback_cpu;
		state.counters["writer_cpu_ns"] = writer_cpu;
		state.counters["plugin_cpu_ns"] = callback_cpu + writer_cpu;
		state.counters["bare_ffmpeg_cpu_ns"] = bare;
		state.counters["ratio"] = (callback_cpu + writer_cpu) / bare;
		state.counters["callback_held_med_ns"] = percentile(held, 0.5);
	}
}

// Streams to nginx; after a few seconds the server stops reading (the process is
// stopped, its sockets stay open) for state.range(0) seconds, then resumes. "held"
// figures are wall time on the encoder thread, preemption by the encoders included;
// the CPU figure is the callback's own work.
void BM_StalledNetwork(benchmark::State &state)
{
	cvtest::RtmpServer server;
	std::string error;
	if (!server.start(&error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	for (auto _ : state) {
		TimedMux::instance().reset(false);
		cvtest::MuxPipeline pipeline(pipeline_options());
		if (!pipeline.create(server.app_url(), "stall") || !pipeline.start()) {
			state.SkipWithError("the output did not start");
			return;
		}
		sleep_s(3);
		const uint64_t stall_begin = steady_ns();
		server.pause();
		sleep_s(double(state.range(0)));
		const uint64_t stall_end = steady_ns();
		size_t queued = 0;
		if (cv::MuxOutput *mux = TimedMux::instance().mux()) {
			std::lock_guard queue_lock(mux->queue_mutex);
			queued = mux->queue.size();
		}
		server.resume();
		sleep_s(3);
		pipeline.stop();

		std::vector<uint64_t> stalled;
		std::vector<uint64_t> stalled_cpu;
		std::vector<uint64_t> flowing;
		const std::vector<CallbackTime> times = TimedMux::instance().times();
		for (size_t i = 1; i < times.size(); i++) {
			const bool in_stall = times[i].started_ns >= stall_begin && times[i].started_ns < stall_end;
			(in_stall ? stalled : flowing).push_back(times[i].took_ns);
			if (in_stall)
				stalled_cpu.push_back(times[i].cpu_ns);
		}
		if (stalled.empty()) {
			state.SkipWithError("no packets arrived during the stall");
			return;
		}
		state.counters["stalled_packets"] = double(stalled.size());
		state.counters["queued_at_resume"] = double(queued);
		state.counters["stall_max_us"] = percentile(stalled, 1.0) / 1000;
		state.counters["stall_cpu_max_us"] = percentile(stalled_cpu, 1.0) / 1000;
		state.counters["stall_p99_us"] = percentile(stalled, 0.99) / 1000;
		state.counters["flowing_max_us"] = percentile(flowing, 1.0) / 1000;
		state.counters["flowing_p99_us"] = percentile(flowing, 0.99) / 1000;
	}
	server.stop();
}

} // namespace

BENCHMARK(BM_PacketPath)->Arg(10)->Iterations(1)->Repetitions(3)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_StalledNetwork)->Arg(10)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
