#include "bench_util.h"

#include "timed_mux_output.h"

#include "mux/mux_output.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace cvbench {

cvtest::PipelineOptions pipeline_options()
{
	cvtest::PipelineOptions options;
	options.width = kCanvasWidth;
	options.height = kCanvasHeight;
	options.audio_tracks = 1;
	options.keyint_sec = 2;
	options.video_kbps = 6000;
	options.output_id = cvtest::kTimedMuxId;
	return options;
}

void sleep_s(double seconds)
{
	std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

double median(std::vector<double> values)
{
	std::sort(values.begin(), values.end());
	return values.empty() ? 0 : values[values.size() / 2];
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

double percentile(std::vector<uint64_t> values, double fraction)
{
	if (values.empty())
		return 0;
	std::sort(values.begin(), values.end());
	const size_t index = std::min(values.size() - 1, size_t(fraction * double(values.size() - 1) + 0.5));
	return double(values[index]);
}

double slope(const std::vector<double> &x, const std::vector<double> &y)
{
	const size_t n = std::min(x.size(), y.size());
	if (n < 2)
		return 0;
	double mean_x = 0;
	double mean_y = 0;
	for (size_t i = 0; i < n; i++) {
		mean_x += x[i];
		mean_y += y[i];
	}
	mean_x /= double(n);
	mean_y /= double(n);
	double covariance = 0;
	double variance = 0;
	for (size_t i = 0; i < n; i++) {
		covariance += (x[i] - mean_x) * (y[i] - mean_y);
		variance += (x[i] - mean_x) * (x[i] - mean_x);
	}
	return variance > 0 ? covariance / variance : 0;
}

uint64_t process_cpu_ns()
{
	rusage usage = {};
	getrusage(RUSAGE_SELF, &usage);
	auto ns = [](const timeval &time) {
		return uint64_t(time.tv_sec) * 1000000000u + uint64_t(time.tv_usec) * 1000u;
	};
	return ns(usage.ru_utime) + ns(usage.ru_stime);
}

uint64_t resident_bytes()
{
	FILE *statm = fopen("/proc/self/statm", "r");
	if (!statm)
		return 0;
	unsigned long size = 0;
	unsigned long resident = 0;
	const int read = fscanf(statm, "%lu %lu", &size, &resident);
	fclose(statm);
	return read == 2 ? uint64_t(resident) * uint64_t(sysconf(_SC_PAGESIZE)) : 0;
}

uint64_t queued_bytes(cv::MuxOutput &mux)
{
	std::lock_guard queue_lock(mux.queue_mutex);
	uint64_t bytes = 0;
	for (const AVPacket *packet : mux.queue)
		if (packet)
			bytes += uint64_t(packet->size);
	return bytes;
}

} // namespace cvbench
