#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace cvtest {

// A program run as a direct child of the test process. It is never detached: whoever stops
// it also reaps it. The child is killed if the thread that started it ends (PR_SET_PDEATHSIG),
// so a crashed test leaves no server behind; start servers from the thread that owns them.
class ChildProcess {
public:
	ChildProcess() = default;
	~ChildProcess();
	ChildProcess(const ChildProcess &) = delete;
	ChildProcess &operator=(const ChildProcess &) = delete;

	// Starts argv[0] (a path, or a name looked up with find_executable) with its standard
	// output and error on the given descriptors (-1: /dev/null); standard input is /dev/null.
	// The descriptors stay owned by the caller.
	bool start(const std::vector<std::string> &argv, int out_fd, int err_fd, std::string *error);

	pid_t pid() const { return pid_; }
	// Whether it still runs (reaps it when it has ended).
	bool running();
	// Waits up to timeout_ms for it to end by itself; false when it still runs.
	bool wait(int timeout_ms);
	// SIGTERM, then SIGKILL after grace_ms; reaps it.
	void terminate(int grace_ms = 5000);
	// SIGKILL and reap.
	void kill_hard();

	// The wait status of the last child that ended (valid once it was reaped).
	int status() const { return status_; }
	// "exit code N" or "killed by signal N".
	std::string describe_status() const;
	bool exited_with(int code) const;

private:
	pid_t pid_ = -1;
	int status_ = 0;
};

// Full path of an executable found in PATH or the usual sbin folders; empty when none.
std::string find_executable(const std::string &name);

// Runs a program to its end and returns its exit code, -1 when it could not start or was
// killed after timeout_ms. Its standard output and error go to *output when given.
int run_program(const std::vector<std::string> &argv, int timeout_ms, std::string *output);

// Whole contents of a file; empty when it cannot be read.
std::string read_text_file(const std::string &path);

// A new private folder "<parent or $TMPDIR or /tmp>/<prefix>XXXXXX"; empty on failure.
std::string make_temp_dir(const std::string &parent, const std::string &prefix, std::string *error);

} // namespace cvtest
