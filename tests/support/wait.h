#pragma once

#include <chrono>
#include <functional>
#include <thread>

// Waiting in tests: a plain pause, and a poll until something holds.
namespace cvtest {

inline void sleep_ms(int ms)
{
	std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Polls `done` every `every_ms` until it holds (true) or `timeout_ms` has passed (false).
inline bool wait_until(const std::function<bool()> &done, int timeout_ms, int every_ms = 20)
{
	const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
	while (!done()) {
		if (std::chrono::steady_clock::now() > deadline)
			return false;
		sleep_ms(every_ms);
	}
	return true;
}

} // namespace cvtest
