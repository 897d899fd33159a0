#include "job_thread.h"

#include <pthread.h>

namespace cv {

JobThread::JobThread(const char *name) : thread_([this, name] { run(name); }) {}

JobThread::~JobThread()
{
	{
		std::lock_guard lock(mutex_);
		stopping_ = true;
	}
	wake_.notify_all();
	thread_.join();
}

void JobThread::post(std::function<void()> job)
{
	{
		std::lock_guard lock(mutex_);
		jobs_.push_back(std::move(job));
	}
	wake_.notify_all();
}

bool JobThread::wait_idle(std::chrono::milliseconds timeout)
{
	std::unique_lock lock(mutex_);
	return done_.wait_for(lock, timeout, [this] { return jobs_.empty() && !running_job_; });
}

bool JobThread::idle() const
{
	std::lock_guard lock(mutex_);
	return jobs_.empty() && !running_job_;
}

void JobThread::run(const char *name)
{
	pthread_setname_np(pthread_self(), name);
	std::unique_lock lock(mutex_);
	for (;;) {
		wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
		if (jobs_.empty())
			return; // stopping, and every job has run
		std::function<void()> job = std::move(jobs_.front());
		jobs_.pop_front();
		running_job_ = true;
		lock.unlock();
		job();
		job = nullptr;
		lock.lock();
		running_job_ = false;
		done_.notify_all();
	}
}

} // namespace cv
