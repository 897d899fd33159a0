#include "process.h"

#include "wait.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <poll.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace cvtest {

namespace {

std::string find_program(const std::string &name)
{
	if (name.find('/') != std::string::npos)
		return name;
	std::stringstream dirs(std::string(getenv("PATH") ? getenv("PATH") : "") + ":/usr/sbin:/sbin");
	for (std::string dir; std::getline(dirs, dir, ':');)
		if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0)
			return dir + "/" + name;
	return {};
}

} // namespace

bool ChildProcess::start(const std::vector<std::string> &argv, const std::string &out, std::string *error,
			 const std::string &err)
{
	const std::string path = argv.empty() ? std::string() : find_program(argv[0]);
	if (path.empty()) {
		*error = "cannot find the program " + (argv.empty() ? std::string() : argv[0]);
		return false;
	}
	// Everything the child needs is made before fork: the test process has other threads.
	std::vector<char *> args;
	for (const std::string &arg : argv)
		args.push_back(const_cast<char *>(arg.c_str()));
	args.push_back(nullptr);
	auto open_output = [](const std::string &file) {
		return file.empty() ? open("/dev/null", O_WRONLY | O_CLOEXEC)
				    : open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
	};
	const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
	const int out_fd = open_output(out);
	const int err_fd = err.empty() ? fcntl(out_fd, F_DUPFD_CLOEXEC, 0) : open_output(err);
	const pid_t parent = getpid();
	pid_ = fork();
	if (pid_ == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		if (getppid() != parent || dup2(in, 0) < 0 || dup2(out_fd, 1) < 0 || dup2(err_fd, 2) < 0)
			_exit(127);
		sigset_t none;
		sigemptyset(&none);
		sigprocmask(SIG_SETMASK, &none, nullptr);
		execve(path.c_str(), args.data(), environ);
		_exit(127);
	}
	for (const int fd : {in, out_fd, err_fd})
		close(fd);
	if (pid_ < 0) {
		*error = std::string("fork: ") + strerror(errno);
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
	auto ended = [this] {
		if (pid_ <= 0)
			return true;
		int status = 0;
		const pid_t result = waitpid(pid_, &status, WNOHANG);
		if (result == 0 || (result < 0 && errno == EINTR))
			return false;
		status_ = status;
		pid_ = -1;
		return true;
	};
	return ended() || wait_until(ended, timeout_ms, 5);
}

void ChildProcess::terminate(int grace_ms)
{
	if (pid_ > 0 && kill(pid_, SIGTERM) == 0 && !wait(grace_ms))
		kill_hard();
}

void ChildProcess::kill_hard()
{
	if (pid_ <= 0)
		return;
	kill(pid_, SIGKILL);
	while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
	}
	pid_ = -1;
}

int ChildProcess::exit_code() const
{
	return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

int run_program(const std::vector<std::string> &argv, int timeout_ms, std::string *output)
{
	char log[] = "/tmp/cv-run-XXXXXX";
	const int fd = mkstemp(log);
	if (fd < 0)
		return -1;
	close(fd);
	ChildProcess child;
	std::string error;
	int code = -1;
	if (!child.start(argv, log, &error))
		*output = error;
	else if (!child.wait(timeout_ms))
		child.kill_hard();
	else
		code = child.exit_code();
	if (error.empty())
		*output = read_file(log);
	unlink(log);
	return code;
}

std::string read_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	std::stringstream text;
	text << in.rdbuf();
	return text.str();
}

void write_file(const std::string &path, const std::string &text)
{
	std::filesystem::create_directories(std::filesystem::path(path).parent_path());
	std::ofstream(path, std::ios::binary) << text;
}

std::string make_temp_dir(const std::string &prefix)
{
	const char *tmp = getenv("TMPDIR");
	std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/" + prefix + "XXXXXX";
	return mkdtemp(pattern.data()) ? pattern : std::string();
}

size_t thread_count()
{
	size_t count = 0;
	if (DIR *dir = opendir("/proc/self/task")) {
		while (dirent *entry = readdir(dir))
			count += entry->d_name[0] != '.';
		closedir(dir);
	}
	return count;
}

size_t heap_in_use()
{
	const struct mallinfo2 info = mallinfo2();
	return info.uordblks + info.hblkhd;
}

size_t resident_bytes()
{
	size_t pages = 0, resident = 0;
	std::ifstream("/proc/self/statm") >> pages >> resident;
	return resident * size_t(sysconf(_SC_PAGESIZE));
}

double heap_floor_growth_mb(const std::vector<size_t> &samples)
{
	const auto third = std::ptrdiff_t(samples.size() / 3);
	const double middle = double(*std::min_element(samples.begin() + third, samples.end() - third)) / 1e6;
	const double last = double(*std::min_element(samples.end() - third, samples.end())) / 1e6;
	fprintf(stderr, "heap floor %.1f MB, then %.1f MB\n", middle, last);
	return last - middle;
}

} // namespace cvtest
