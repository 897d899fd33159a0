#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

// Programs the tests run (servers, Xvfb, ffprobe), and what the test process itself holds.
namespace cvtest {

// A child of the test process, reaped by whoever stops it (PID 1 here does not reap), and
// killed when the thread that started it ends, so a crashed test leaves nothing behind.
class ChildProcess {
public:
	ChildProcess() = default;
	~ChildProcess() { kill_hard(); }
	ChildProcess(const ChildProcess &) = delete;
	ChildProcess &operator=(const ChildProcess &) = delete;

	// argv[0] is a path or a name looked up in PATH and the sbin folders. Its standard
	// output goes to the file `out` (appended; nowhere when empty), its standard error too
	// unless `err` names another file.
	bool start(const std::vector<std::string> &argv, const std::string &out, std::string *error,
		   const std::string &err = {});
	bool running();
	// Waits for it to end by itself; false when it still runs after `timeout_ms`.
	bool wait(int timeout_ms);
	void terminate(int grace_ms = 5000); // SIGTERM, then SIGKILL
	void kill_hard();                    // SIGKILL
	pid_t pid() const { return pid_; }
	// Once it has ended: its exit code (-1 when a signal ended it).
	int exit_code() const;

private:
	pid_t pid_ = -1;
	int status_ = 0;
};

// Runs a program to its end: its exit code, or -1 when it could not start or ran longer
// than `timeout_ms`. Its standard output and error go to *output.
int run_program(const std::vector<std::string> &argv, int timeout_ms, std::string *output);

std::string read_file(const std::string &path);
// Writes the file, making its folders.
void write_file(const std::string &path, const std::string &text);
// A new private folder "/tmp/<prefix>XXXXXX" (or under $TMPDIR); empty on failure.
std::string make_temp_dir(const std::string &prefix);

size_t thread_count();
// Bytes the allocator has handed out and not been given back.
size_t heap_in_use();
// Bytes of the process's memory that are resident now (what top shows as RES).
size_t resident_bytes();
// How much the heap's floor rose from the middle third of `samples` to the last, in MB. The
// first third is left out: caches and pools the host fills once (its renderer's among them)
// may still be growing there. A single sample may catch objects still being destroyed.
double heap_floor_growth_mb(const std::vector<size_t> &samples);

} // namespace cvtest
