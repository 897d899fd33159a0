#include "bench_util.h"

#include "timed_mux_output.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
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

ThreadTimes thread_times()
{
	ThreadTimes times;
	for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
		std::ifstream comm(task.path() / "comm");
		std::ifstream schedstat(task.path() / "schedstat");
		std::string name;
		uint64_t ns = 0;
		// The first field of schedstat is the time spent on a CPU, in nanoseconds.
		if (std::getline(comm, name) && schedstat >> ns)
			times.threads[std::stoi(task.path().filename().string())] = {name, ns};
	}
	return times;
}

uint64_t cpu_between(const ThreadTimes &before, const ThreadTimes &after, const std::string &name)
{
	uint64_t total = 0;
	for (const auto &[tid, thread] : after.threads) {
		const std::string &thread_name = thread.first;
		const bool renderer = thread_name.rfind("llvmpipe", 0) == 0 ||
				      thread_name.rfind("libobs: graph", 0) == 0;
		if (name.empty() ? renderer : thread_name.rfind(name, 0) != 0)
			continue;
		const auto earlier = before.threads.find(tid);
		const uint64_t start = earlier == before.threads.end() ? 0 : earlier->second.second;
		total += thread.second >= start ? thread.second - start : 0;
	}
	return total;
}

namespace {

uint32_t big_endian(const uint8_t *bytes, size_t count)
{
	uint32_t value = 0;
	for (size_t i = 0; i < count; i++)
		value = (value << 8) | bytes[i];
	return value;
}

} // namespace

bool FlvKeyframeWatch::found()
{
	std::ifstream file(path_, std::ios::binary);
	struct stat st = {};
	if (!file || stat(path_.c_str(), &st) != 0)
		return false;
	const uint64_t size = uint64_t(st.st_size);
	if (next_tag_ == 0) {
		uint8_t header[9];
		if (size < sizeof(header) + 4 || !file.read(reinterpret_cast<char *>(header), sizeof(header)) ||
		    header[0] != 'F' || header[1] != 'L' || header[2] != 'V')
			return false;
		next_tag_ = big_endian(header + 5, 4) + 4;
	}
	for (;;) {
		uint8_t tag[13];
		if (next_tag_ + sizeof(tag) > size)
			return false;
		file.seekg(std::streamoff(next_tag_));
		if (!file.read(reinterpret_cast<char *>(tag), sizeof(tag)))
			return false;
		const uint64_t data_size = big_endian(tag + 1, 3);
		// Only a tag that has fully arrived counts.
		if (next_tag_ + 11 + data_size > size)
			return false;
		const bool video = (tag[0] & 0x1f) == 9;
		if (video && data_size >= 2 && tag[11] == 0x17 && tag[12] == 1)
			return true;
		next_tag_ += 11 + data_size + 4;
	}
}

} // namespace cvbench
