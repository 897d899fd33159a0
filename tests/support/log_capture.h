#pragma once

#include <string>
#include <vector>

// Collects every line the host logs while a test runs (and echoes it to stderr when
// CV_TEST_VERBOSE is set), so tests can check what the plug-in said.
namespace cvtest {

void install_log_capture();
void clear_logs();
std::vector<std::string> log_lines();
// Number of captured lines that contain `text`.
size_t log_count(const std::string &text);
bool log_contains(const std::string &text);
// Waits until at least `count` captured lines contain `text`.
bool wait_for_log(const std::string &text, int timeout_ms, size_t count = 1);
// Whether one captured line is exactly `line`.
bool log_has_line(const std::string &line);
// The captured lines that contain `text`, joined by newlines (for failure messages).
std::string logs_matching(const std::string &text);

} // namespace cvtest
