// What the output costs on the host's encoder thread and on its own write thread,
// beside the same packets muxed with bare FFmpeg calls; how long the encoder thread is
// held while the network stalls, and how fast memory grows meanwhile.

#include "bare_ffmpeg_mux.h"
#include "bench_util.h"
#include "timed_mux_output.h"

#include "mux/mux_output.h"

#include "mux_pipeline.h"
#include "process_stats.h"
#include "stream_servers.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <malloc.h>
#include <vector>

namespace cvbench {

using cvtest::CallbackTime;
using cvtest::steady_ns;
using cvtest::TimedMux;

namespace {

constexpr int kBareRuns = 5;
constexpr double kFlowingSeconds = 10;
constexpr double kSampleSeconds = 0.2;
// Memory is compared while the queue grows: once the socket buffers are full.
constexpr size_t kMinGrowthSamples = 10;

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

// Streams the canvas to nginx for state.range(0) seconds through the timed output,
// then sends the recorded packets again with bare FFmpeg to the same server (under
// another key), as fast as it takes them. Costs are CPU time per packet (the machine
// is shared with the encoders, so wall time would mostly measure who else ran), the
// loopback socket's included on both sides; "held" is the wall time the encoder
// thread spent in the callback.
void BM_PacketPath(benchmark::State &state)
{
	cvtest::RtmpServer server;
	std::string error;
	if (!server.start(&error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	for (auto _ : state) {
		TimedMux::instance().reset(true);
		cvtest::MuxPipeline pipeline(pipeline_options());
		if (!pipeline.create(server.app_url(), "path") || !pipeline.start()) {
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
			if (!mux_with_bare_ffmpeg(packets, streams, server.app_url() + "/bare", &bare, &error) ||
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
	server.stop();
}

// Streams to nginx for 10 s; then the server stops reading (the process is stopped,
// its sockets stay open) for state.range(0) seconds, and reads again for 10 s more.
// "held" figures are wall time on the encoder thread, preemption by the encoders
// included; the CPU figure is the callback's own work. The reference is the same
// figure over the 10 s before the stall, from the same stream; the 10 s after it,
// while the backlog drains, are reported beside.
//
// During the stall the process's resident memory and the bytes in the write queue are
// sampled. Once the socket buffers are full every packet stays in the queue, which
// then grows by the stream's own bitrate; memory should grow by that much and no more.
// Memory the process freed earlier is given back to the system as the stream starts,
// so that reusing it does not hide growth; the allocator's own count of the bytes it
// handed out during the stall is reported beside.
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
		// Trimming takes the allocator's locks: calls meanwhile are left out.
		const uint64_t trim_begin = steady_ns();
		malloc_trim(0);
		const uint64_t trim_end = steady_ns();
		sleep_s(kFlowingSeconds);
		cv::MuxOutput *mux = TimedMux::instance().mux();
		if (!mux) {
			state.SkipWithError("the output has no state");
			return;
		}

		std::vector<double> at_s;
		std::vector<double> resident;
		std::vector<double> queued;
		const uint64_t heap_begin = cvtest::heap_in_use();
		const uint64_t queued_begin = queued_bytes(*mux);
		const uint64_t stall_begin = steady_ns();
		const uint64_t stall_until = stall_begin + uint64_t(state.range(0)) * 1000000000u;
		server.pause();
		while (steady_ns() < stall_until) {
			sleep_s(kSampleSeconds);
			queued.push_back(double(queued_bytes(*mux)));
			resident.push_back(double(resident_bytes()));
			at_s.push_back(double(steady_ns() - stall_begin) / 1e9);
		}
		const uint64_t stall_end = steady_ns();
		const uint64_t heap_end = cvtest::heap_in_use();
		const uint64_t queued_end = queued_bytes(*mux);
		size_t queued_packets = 0;
		{
			std::lock_guard queue_lock(mux->queue_mutex);
			queued_packets = mux->queue.size();
		}
		server.resume();
		sleep_s(kFlowingSeconds);
		pipeline.stop();

		std::vector<uint64_t> before;
		std::vector<uint64_t> before_cpu;
		std::vector<uint64_t> stalled;
		std::vector<uint64_t> stalled_cpu;
		std::vector<uint64_t> after;
		const std::vector<CallbackTime> times = TimedMux::instance().times();
		for (size_t i = 1; i < times.size(); i++) {
			const uint64_t started = times[i].started_ns;
			if (started + times[i].took_ns >= trim_begin && started < trim_end)
				continue;
			if (started < stall_begin) {
				before.push_back(times[i].took_ns);
				before_cpu.push_back(times[i].cpu_ns);
			} else if (started < stall_end) {
				stalled.push_back(times[i].took_ns);
				stalled_cpu.push_back(times[i].cpu_ns);
			} else {
				after.push_back(times[i].took_ns);
			}
		}
		if (stalled.empty() || before.empty() || after.empty()) {
			state.SkipWithError("no packets arrived during the stall");
			return;
		}
		state.counters["stalled_packets"] = double(stalled.size());
		state.counters["queued_at_resume"] = double(queued_packets);
		state.counters["stall_max_us"] = percentile(stalled, 1.0) / 1000;
		state.counters["stall_p99_us"] = percentile(stalled, 0.99) / 1000;
		state.counters["stall_cpu_max_us"] = percentile(stalled_cpu, 1.0) / 1000;
		state.counters["flowing_max_us"] = percentile(before, 1.0) / 1000;
		state.counters["flowing_p99_us"] = percentile(before, 0.99) / 1000;
		state.counters["flowing_cpu_max_us"] = percentile(before_cpu, 1.0) / 1000;
		state.counters["resumed_max_us"] = percentile(after, 1.0) / 1000;
		state.counters["resumed_p99_us"] = percentile(after, 0.99) / 1000;
		state.counters["trim_ms"] = double(trim_end - trim_begin) / 1e6;

		// The queue grows from the last sample that found it empty on.
		size_t first = 0;
		for (size_t i = 0; i < queued.size(); i++)
			if (queued[i] == 0)
				first = i + 1;
		const std::vector<double> window_s(at_s.begin() + long(first), at_s.end());
		const std::vector<double> window_resident(resident.begin() + long(first), resident.end());
		const std::vector<double> window_queued(queued.begin() + long(first), queued.end());
		double resident_per_min = 0;
		double queued_per_min = 0;
		if (window_s.size() >= kMinGrowthSamples) {
			resident_per_min = slope(window_s, window_resident) * 60;
			queued_per_min = slope(window_s, window_queued) * 60;
		}
		state.counters["growth_window_s"] = window_s.size() >= 2 ? window_s.back() - window_s.front() : 0;
		state.counters["rss_mb_per_min"] = resident_per_min / 1e6;
		state.counters["queued_mb_per_min"] = queued_per_min / 1e6;
		state.counters["rss_per_queued"] = queued_per_min > 0 ? resident_per_min / queued_per_min : 0;
		// What the allocator handed out over the whole stall, beside what the queue gained.
		state.counters["heap_per_queued"] =
			queued_end > queued_begin
				? (double(heap_end) - double(heap_begin)) / double(queued_end - queued_begin)
				: 0;
	}
	server.stop();
}

} // namespace

BENCHMARK(BM_PacketPath)->Arg(10)->Iterations(1)->Repetitions(3)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_StalledNetwork)->Arg(10)->Iterations(1)->Repetitions(3)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace cvbench
