#include "child_process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace cvtest {

namespace {

using Clock = std::chrono::steady_clock;

int elapsed_ms(Clock::time_point since)
{
	return (int)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

bool is_executable(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

// Only async-signal-safe calls between fork and exec: the test process has other threads.
[[noreturn]] void exec_child(pid_t parent, int null_fd, int out_fd, int err_fd, int report_fd, int max_fd,
			     const char *path, char *const argv[])
{
	prctl(PR_SET_PDEATHSIG, SIGKILL);
	if (getppid() != parent)
		_exit(127);

	sigset_t none;
	sigemptyset(&none);
	sigprocmask(SIG_SETMASK, &none, nullptr);
	for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD, SIGUSR1, SIGUSR2})
		signal(sig, SIG_DFL);

	// Move the report pipe out of the way of 0..2 before those are replaced.
	if (report_fd <= 2) {
		const int moved = fcntl(report_fd, F_DUPFD_CLOEXEC, 3);
		if (moved < 0)
			_exit(127);
		report_fd = moved;
	}
	if (dup2(null_fd, STDIN_FILENO) < 0 || dup2(out_fd >= 0 ? out_fd : null_fd, STDOUT_FILENO) < 0 ||
	    dup2(err_fd >= 0 ? err_fd : null_fd, STDERR_FILENO) < 0)
		_exit(127);
	for (int fd = 3; fd < max_fd; fd++) {
		if (fd != report_fd)
			close(fd);
	}

	execve(path, argv, environ);
	const int err = errno;
	ssize_t ignored = write(report_fd, &err, sizeof(err));
	(void)ignored;
	_exit(127);
}

} // namespace

ChildProcess::~ChildProcess()
{
	kill_hard();
}

bool ChildProcess::start(const std::vector<std::string> &argv, int out_fd, int err_fd, std::string *error)
{
	if (pid_ > 0) {
		*error = "already running";
		return false;
	}
	if (argv.empty()) {
		*error = "no program";
		return false;
	}
	const std::string path = argv[0].find('/') == std::string::npos ? find_executable(argv[0]) : argv[0];
	if (path.empty() || !is_executable(path)) {
		*error = "cannot find the program " + argv[0];
		return false;
	}

	// Everything the child needs is prepared before fork.
	std::vector<char *> args;
	for (const std::string &arg : argv)
		args.push_back(const_cast<char *>(arg.c_str()));
	args.push_back(nullptr);

	rlimit limit{};
	int max_fd = 1024;
	if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
		max_fd = (int)std::min<rlim_t>(limit.rlim_cur, 1 << 16);

	const int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
	int report[2];
	if (null_fd < 0 || pipe2(report, O_CLOEXEC) != 0) {
		*error = std::string("cannot prepare the child: ") + strerror(errno);
		if (null_fd >= 0)
			close(null_fd);
		return false;
	}

	const pid_t parent = getpid();
	const pid_t pid = fork();
	if (pid == 0)
		exec_child(parent, null_fd, out_fd, err_fd, report[1], max_fd, path.c_str(), args.data());
	const int fork_errno = errno;
	close(report[1]);
	close(null_fd);
	if (pid < 0) {
		close(report[0]);
		*error = std::string("fork: ") + strerror(fork_errno);
		return false;
	}

	// The report pipe closes on exec; data on it is the errno of a failed exec.
	int exec_errno = 0;
	ssize_t n;
	do {
		n = read(report[0], &exec_errno, sizeof(exec_errno));
	} while (n < 0 && errno == EINTR);
	close(report[0]);
	pid_ = pid;
	if (n > 0) {
		wait(-1);
		*error = "cannot run " + path + ": " + strerror(exec_errno);
		return false;
	}
	return true;
}

bool ChildProcess::running()
{
	return !wait(0);
}

bool ChildProcess::wait(int timeout_ms)
{
	if (pid_ <= 0)
		return true;
	const Clock::time_point begin = Clock::now();
	for (;;) {
		int st = 0;
		const pid_t r = waitpid(pid_, &st, timeout_ms < 0 ? 0 : WNOHANG);
		if (r == pid_ || (r < 0 && errno == ECHILD)) {
			status_ = r == pid_ ? st : 0;
			pid_ = -1;
			return true;
		}
		if (r < 0 && errno == EINTR)
			continue;
		if (timeout_ms >= 0 && elapsed_ms(begin) >= timeout_ms)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
}

void ChildProcess::terminate(int grace_ms)
{
	if (pid_ <= 0)
		return;
	kill(pid_, SIGTERM);
	if (!wait(grace_ms))
		kill_hard();
}

void ChildProcess::kill_hard()
{
	if (pid_ <= 0)
		return;
	kill(pid_, SIGKILL);
	wait(-1);
}

std::string ChildProcess::describe_status() const
{
	if (WIFEXITED(status_))
		return "exit code " + std::to_string(WEXITSTATUS(status_));
	if (WIFSIGNALED(status_))
		return "killed by signal " + std::to_string(WTERMSIG(status_));
	return "status " + std::to_string(status_);
}

bool ChildProcess::exited_with(int code) const
{
	return WIFEXITED(status_) && WEXITSTATUS(status_) == code;
}

std::string find_executable(const std::string &name)
{
	std::string dirs = getenv("PATH") ? getenv("PATH") : "";
	dirs += ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
	std::stringstream list(dirs);
	std::string dir;
	while (std::getline(list, dir, ':')) {
		if (dir.empty())
			continue;
		const std::string path = dir + "/" + name;
		if (is_executable(path))
			return path;
	}
	return {};
}

int run_program(const std::vector<std::string> &argv, int timeout_ms, std::string *output)
{
	int fds[2];
	if (pipe2(fds, O_CLOEXEC) != 0) {
		if (output)
			*output = std::string("pipe: ") + strerror(errno);
		return -1;
	}
	ChildProcess child;
	std::string error;
	const bool started = child.start(argv, fds[1], fds[1], &error);
	close(fds[1]);
	if (!started) {
		close(fds[0]);
		if (output)
			*output = error;
		return -1;
	}

	std::string text;
	const Clock::time_point begin = Clock::now();
	bool timed_out = false;
	for (;;) {
		const int left = timeout_ms - elapsed_ms(begin);
		if (left <= 0) {
			timed_out = true;
			break;
		}
		pollfd pfd{fds[0], POLLIN, 0};
		const int r = poll(&pfd, 1, left);
		if (r < 0 && errno == EINTR)
			continue;
		if (r <= 0)
			continue;
		char buf[4096];
		const ssize_t n = read(fds[0], buf, sizeof(buf));
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			break; // every writer is gone
		text.append(buf, (size_t)n);
	}
	close(fds[0]);
	if (timed_out) {
		child.kill_hard();
		text += "\n(killed after " + std::to_string(timeout_ms) + " ms)";
	} else if (!child.wait(std::max(1000, timeout_ms - elapsed_ms(begin)))) {
		child.kill_hard();
		timed_out = true;
	}
	if (output)
		*output = text;
	if (timed_out || !WIFEXITED(child.status()))
		return -1;
	return WEXITSTATUS(child.status());
}

std::string read_text_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	std::stringstream text;
	text << in.rdbuf();
	return text.str();
}

std::string make_temp_dir(const std::string &parent, const std::string &prefix, std::string *error)
{
	std::string base = parent;
	if (base.empty())
		base = getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
	std::string templ = base + "/" + prefix + "XXXXXX";
	if (!mkdtemp(&templ[0])) {
		*error = "mkdtemp in " + base + ": " + strerror(errno);
		return {};
	}
	return templ;
}

} // namespace cvtest
