#pragma once

#include <condition_variable>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace cv {

// One thread of its own that runs the jobs it is given, one after the other, in the
// order they came: the work with the host's encoders and outputs that may take a while
// (an encoder opening, an output closing), so that the host's UI thread never waits for
// it. Jobs may be given from any thread. The thread is joined when the object goes,
// after every job given before.
class JobThread {
public:
	explicit JobThread(const char *name);
	~JobThread();
	JobThread(const JobThread &) = delete;
	JobThread &operator=(const JobThread &) = delete;

	void post(std::function<void()> job);
	// Waits until every job given before has run; false on timeout.
	bool wait_idle(std::chrono::milliseconds timeout);
	// Whether no job is waiting or running.
	bool idle() const;
	// Whether the caller is this thread.
	bool on_thread() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
	void run(const char *name);

	mutable std::mutex mutex_;
	std::condition_variable wake_;
	std::condition_variable done_;
	std::deque<std::function<void()>> jobs_;
	bool running_job_ = false;
	bool stopping_ = false;
	std::thread thread_;
};

} // namespace cv
