// The SRT listener the stream tests run as a child process:
//
//   cv_srt_receiver PORT DIR FIRST
//
// accepts any number of callers on 127.0.0.1:PORT, at the same time if need be, and stores
// what each one sends, unchanged, in DIR/srt-NNN.ts, numbered from FIRST in the order they
// connect. When a connection has ended and everything it delivered is stored, an empty
// DIR/srt-NNN.done appears beside its file. Delivery does not wait for SRT's latency window
// (TSBPD is off), and data still buffered when a caller closes is read before the file is
// finished. SIGTERM closes every connection (the callers hear of it at once) and ends the
// program; SIGKILL is a crash, which callers only notice by their own timeout.

#include <srt/srt.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t stop_requested = 0;

void on_signal(int)
{
	stop_requested = 1;
}

void say(const char *format, ...)
{
	va_list args;
	va_start(args, format);
	vfprintf(stderr, format, args);
	va_end(args);
	fputc('\n', stderr);
	fflush(stderr);
}

std::string file_name(const std::string &dir, int index, const char *extension)
{
	char name[32];
	snprintf(name, sizeof(name), "/srt-%03d%s", index, extension);
	return dir + name;
}

struct Connection {
	int index = 0;
	int fd = -1;
	unsigned long long bytes = 0;
};

bool write_all(int fd, const char *data, size_t size)
{
	while (size > 0) {
		const ssize_t n = write(fd, data, size);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return false;
		data += n;
		size -= (size_t)n;
	}
	return true;
}

// Stores everything the connection has delivered; false once it has ended (SRT hands out
// what it still buffers before it reports a lost or closed connection).
bool drain(SRTSOCKET sock, Connection &c)
{
	char buf[2048];
	for (;;) {
		const int n = srt_recvmsg(sock, buf, sizeof(buf));
		if (n > 0) {
			if (!write_all(c.fd, buf, (size_t)n))
				say("connection %d: cannot store data: %s", c.index, strerror(errno));
			c.bytes += (unsigned long long)n;
			continue;
		}
		if (n == SRT_ERROR && srt_getlasterror(nullptr) == SRT_EASYNCRCV)
			return true;
		return false;
	}
}

void finish(int eid, SRTSOCKET sock, Connection &c, const std::string &dir, const char *why)
{
	srt_epoll_remove_usock(eid, sock);
	srt_close(sock);
	close(c.fd);
	const int marker = open(file_name(dir, c.index, ".done").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
	if (marker >= 0)
		close(marker);
	say("connection %d %s after %llu bytes", c.index, why, c.bytes);
}

} // namespace

int main(int argc, char **argv)
{
	if (argc != 4) {
		fprintf(stderr, "usage: %s PORT DIR FIRST\n", argv[0]);
		return 2;
	}
	const int port = atoi(argv[1]);
	const std::string dir = argv[2];
	int next_index = atoi(argv[3]);

	struct sigaction action = {};
	action.sa_handler = on_signal;
	sigaction(SIGTERM, &action, nullptr);
	sigaction(SIGINT, &action, nullptr);

	srt_startup();
	srt_setloglevel(LOG_ERR);
	const SRTSOCKET listener = srt_create_socket();
	const bool no = false;
	// Accepted sockets take these over from the listener.
	srt_setsockflag(listener, SRTO_RCVSYN, &no, sizeof(no));
	srt_setsockflag(listener, SRTO_TSBPDMODE, &no, sizeof(no));
	sockaddr_in addr = {};
	addr.sin_family = AF_INET;
	addr.sin_port = htons((uint16_t)port);
	addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	if (srt_bind(listener, (sockaddr *)&addr, sizeof(addr)) == SRT_ERROR || srt_listen(listener, 16) == SRT_ERROR) {
		say("cannot listen on 127.0.0.1:%d: %s", port, srt_getlasterror_str());
		return 1;
	}
	const int eid = srt_epoll_create();
	const int listen_events = SRT_EPOLL_IN | SRT_EPOLL_ERR;
	srt_epoll_add_usock(eid, listener, &listen_events);
	say("listening on 127.0.0.1:%d", port);

	std::map<SRTSOCKET, Connection> connections;
	while (!stop_requested) {
		SRT_EPOLL_EVENT events[32];
		const int count = srt_epoll_uwait(eid, events, 32, 100);
		for (int i = 0; i < count; i++) {
			const SRTSOCKET sock = events[i].fd;
			if (sock == listener) {
				sockaddr_storage peer;
				int peer_len = sizeof(peer);
				const SRTSOCKET accepted = srt_accept(listener, (sockaddr *)&peer, &peer_len);
				if (accepted == SRT_INVALID_SOCK)
					continue;
				Connection c;
				c.index = next_index++;
				const std::string path = file_name(dir, c.index, ".ts");
				c.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
				if (c.fd < 0) {
					say("cannot create %s: %s", path.c_str(), strerror(errno));
					srt_close(accepted);
					continue;
				}
				srt_setsockflag(accepted, SRTO_RCVSYN, &no, sizeof(no));
				const int events_wanted = SRT_EPOLL_IN | SRT_EPOLL_ERR;
				srt_epoll_add_usock(eid, accepted, &events_wanted);
				connections[accepted] = c;
				say("connection %d accepted", c.index);
				continue;
			}
			const auto it = connections.find(sock);
			if (it != connections.end() && !drain(sock, it->second)) {
				finish(eid, sock, it->second, dir, "ended");
				connections.erase(it);
			}
		}
	}

	// Keep what has arrived, then tell every caller.
	for (auto &entry : connections) {
		drain(entry.first, entry.second);
		finish(eid, entry.first, entry.second, dir, "stopped");
	}
	srt_close(listener);
	say("stopped");
	// SRT's own teardown waits for its timers; nothing is left for it to do.
	_exit(0);
}
