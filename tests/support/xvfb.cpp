#include "xvfb.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace cvtest {

Xvfb::~Xvfb()
{
	stop();
}

bool Xvfb::start(std::string *error)
{
	int fds[2];
	if (pipe(fds) != 0) {
		*error = std::string("pipe: ") + strerror(errno);
		return false;
	}
	const std::string fd_text = std::to_string(fds[1]);
	const char *argv[] = {"Xvfb",         "-displayfd", fd_text.c_str(), "-screen",  "0",
			      "1280x1024x24", "-nolisten",  "tcp",           "-noreset", nullptr};

	posix_spawn_file_actions_t actions;
	posix_spawn_file_actions_init(&actions);
	posix_spawn_file_actions_addclose(&actions, fds[0]);
	// Xvfb reports every display number it finds taken; that is noise here.
	posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
	posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
	const int rc = posix_spawnp(&pid_, "Xvfb", &actions, nullptr, const_cast<char **>(argv), environ);
	posix_spawn_file_actions_destroy(&actions);
	close(fds[1]);
	if (rc != 0) {
		close(fds[0]);
		pid_ = -1;
		*error = std::string("cannot start Xvfb: ") + strerror(rc);
		return false;
	}

	// Xvfb writes the display number once it accepts connections.
	std::string number;
	pollfd pfd{fds[0], POLLIN, 0};
	while (poll(&pfd, 1, 15000) > 0) {
		char c;
		if (read(fds[0], &c, 1) != 1 || c == '\n')
			break;
		number += c;
	}
	close(fds[0]);
	if (number.empty()) {
		stop();
		*error = "Xvfb did not report a display";
		return false;
	}
	display_ = ":" + number;
	setenv("DISPLAY", display_.c_str(), 1);
	return true;
}

void Xvfb::stop()
{
	if (pid_ <= 0)
		return;
	kill(pid_, SIGTERM);
	int status = 0;
	while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
	}
	pid_ = -1;
}

} // namespace cvtest
