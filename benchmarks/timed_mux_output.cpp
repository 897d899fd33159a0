#include "timed_mux_output.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace cvtest {

namespace {

obs_output_info real_info;

} // namespace

uint64_t steady_ns()
{
	return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
				std::chrono::steady_clock::now().time_since_epoch())
				.count());
}

uint64_t thread_cpu_ns()
{
	timespec used = {};
	clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
	return uint64_t(used.tv_sec) * 1000000000u + uint64_t(used.tv_nsec);
}

void TimedMux::register_type()
{
	real_info = cv::mux_output_info();
	obs_output_info info = real_info;
	info.id = kTimedMuxId;
	info.create = create;
	info.destroy = destroy;
	info.encoded_packet = encoded_packet;
	obs_register_output(&info);
}

TimedMux &TimedMux::instance()
{
	static TimedMux timed;
	return timed;
}

void *TimedMux::create(obs_data_t *settings, obs_output_t *output)
{
	void *data = real_info.create(settings, output);
	std::lock_guard lock(instance().mutex_);
	instance().mux_ = data;
	return data;
}

void TimedMux::destroy(void *data)
{
	{
		std::lock_guard lock(instance().mutex_);
		if (instance().mux_ == data)
			instance().mux_ = nullptr;
	}
	real_info.destroy(data);
}

void TimedMux::encoded_packet(void *data, encoder_packet *packet)
{
	const uint64_t cpu_start = thread_cpu_ns();
	const uint64_t start = steady_ns();
	real_info.encoded_packet(data, packet);
	const uint64_t took = steady_ns() - start;
	const uint64_t cpu = thread_cpu_ns() - cpu_start;

	TimedMux &self = instance();
	std::lock_guard lock(self.mutex_);
	self.times_.push_back({start, took, cpu});
	if (self.keep_packets_ && packet) {
		RecordedPacket copy;
		copy.data.assign(packet->data, packet->data + packet->size);
		copy.pts = packet->pts;
		copy.dts = packet->dts;
		copy.timebase_num = packet->timebase_num;
		copy.timebase_den = packet->timebase_den;
		copy.video = packet->type == OBS_ENCODER_VIDEO;
		copy.keyframe = packet->keyframe;
		copy.track = packet->track_idx;
		self.packets_.push_back(std::move(copy));
	}
}

void TimedMux::reset(bool keep_packets)
{
	std::lock_guard lock(mutex_);
	keep_packets_ = keep_packets;
	times_.clear();
	packets_.clear();
	times_.reserve(1 << 16);
}

std::vector<CallbackTime> TimedMux::times() const
{
	std::lock_guard lock(mutex_);
	return times_;
}

std::vector<RecordedPacket> TimedMux::packets() const
{
	std::lock_guard lock(mutex_);
	return packets_;
}

cv::SessionStats TimedMux::stats() const
{
	std::lock_guard lock(mutex_);
	return cv::mux_data_stats(mux_);
}

bool TimedMux::wait_queue_drained(int timeout_ms) const
{
	const uint64_t deadline = steady_ns() + uint64_t(timeout_ms) * 1000000;
	while (stats().queued_packets != 0) {
		if (steady_ns() > deadline)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
	return true;
}

uint64_t TimedMux::stream_threads_cpu_ns()
{
	uint64_t total = 0;
	for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
		std::ifstream comm(task.path() / "comm");
		std::string name;
		if (!std::getline(comm, name) || name != cv::kSessionThreadName)
			continue;
		// The first field of schedstat is the time spent on a CPU, in nanoseconds.
		std::ifstream schedstat(task.path() / "schedstat");
		uint64_t ns = 0;
		if (schedstat >> ns)
			total += ns;
	}
	return total;
}

} // namespace cvtest
