#include "log_capture.h"

#include <util/base.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace cvtest {

namespace {

std::mutex lines_mutex;
std::vector<std::string> lines;

void capture(int level, const char *format, va_list args, void *)
{
	char buffer[8192];
	vsnprintf(buffer, sizeof(buffer), format, args);
	{
		std::lock_guard lock(lines_mutex);
		lines.emplace_back(buffer);
	}
	static const bool verbose = getenv("CV_TEST_VERBOSE") != nullptr;
	if (verbose || level <= LOG_ERROR)
		fprintf(stderr, "[obs %d] %s\n", level, buffer);
}

} // namespace

void install_log_capture()
{
	base_set_log_handler(capture, nullptr);
}

void clear_logs()
{
	std::lock_guard lock(lines_mutex);
	lines.clear();
}

std::vector<std::string> log_lines()
{
	std::lock_guard lock(lines_mutex);
	return lines;
}

size_t log_count(const std::string &text)
{
	size_t count = 0;
	for (const std::string &line : log_lines())
		count += line.find(text) != std::string::npos;
	return count;
}

bool log_contains(const std::string &text)
{
	return log_count(text) > 0;
}

bool wait_for_log(const std::string &text, int timeout_ms, size_t count)
{
	const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
	while (log_count(text) < count) {
		if (std::chrono::steady_clock::now() > deadline)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
	}
	return true;
}

bool log_has_line(const std::string &line)
{
	for (const std::string &captured : log_lines()) {
		if (captured == line)
			return true;
	}
	return false;
}

std::string logs_matching(const std::string &text)
{
	std::string out;
	for (const std::string &line : log_lines()) {
		if (line.find(text) != std::string::npos)
			out += line + "\n";
	}
	return out;
}

} // namespace cvtest
