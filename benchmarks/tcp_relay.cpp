#include "tcp_relay.h"

#include "servers.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace cvtest {

namespace {

constexpr int kSmallBuffer = 16384;

uint64_t now_ns()
{
	return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
				std::chrono::steady_clock::now().time_since_epoch())
				.count());
}

// Sends everything, waiting for room when the peer is slow.
bool send_all(int fd, const char *data, size_t size)
{
	while (size > 0) {
		const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			if (errno == EAGAIN) {
				pollfd out = {fd, POLLOUT, 0};
				poll(&out, 1, 100);
				continue;
			}
			return false;
		}
		data += n;
		size -= size_t(n);
	}
	return true;
}

struct Pair {
	int client;
	int server;
};

} // namespace

TcpRelay::~TcpRelay()
{
	stop();
}

bool TcpRelay::start(uint16_t upstream_port, std::string *error)
{
	if (thread_.joinable())
		return true;
	upstream_port_ = upstream_port;
	listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (listen_fd_ < 0 || pipe2(wake_, O_CLOEXEC) != 0) {
		*error = std::string("socket: ") + strerror(errno);
		stop();
		return false;
	}
	// Accepted sockets inherit the listener's small buffer (it must be set before listen).
	const int one = 1;
	const int buffer = kSmallBuffer;
	setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
	setsockopt(listen_fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
	sockaddr_in addr = loopback(0);
	socklen_t len = sizeof(addr);
	if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || listen(listen_fd_, 16) != 0 ||
	    getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
		*error = std::string("bind/listen: ") + strerror(errno);
		stop();
		return false;
	}
	port_ = ntohs(addr.sin_port);
	thread_ = std::thread(&TcpRelay::run, this);
	return true;
}

void TcpRelay::wake(char why)
{
	if (wake_[1] >= 0) {
		const ssize_t ignored = write(wake_[1], &why, 1);
		(void)ignored;
	}
}

void TcpRelay::stop()
{
	if (thread_.joinable()) {
		wake('s');
		thread_.join();
	}
	for (int *fd : {&listen_fd_, &wake_[0], &wake_[1]}) {
		if (*fd >= 0)
			close(*fd);
		*fd = -1;
	}
}

void TcpRelay::pause()
{
	paused_ = true;
	wake('p');
}

void TcpRelay::resume()
{
	paused_ = false;
	wake('r');
}

void TcpRelay::run()
{
	std::vector<Pair> pairs;
	auto drop = [&](size_t index) {
		close(pairs[index].client);
		close(pairs[index].server);
		pairs.erase(pairs.begin() + std::ptrdiff_t(index));
	};
	// With a rate limit, clients are read again once what was forwarded has had its time.
	uint64_t next_read_ns = 0;
	for (;;) {
		std::vector<pollfd> fds = {{wake_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
		const uint64_t now = now_ns();
		const bool held = paused_ || now < next_read_ns;
		for (const Pair &pair : pairs) {
			fds.push_back({pair.client, short(held ? 0 : POLLIN), 0});
			fds.push_back({pair.server, POLLIN, 0});
		}
		const int timeout_ms = !paused_ && now < next_read_ns ? int((next_read_ns - now) / 1000000 + 1) : -1;
		if (poll(fds.data(), fds.size(), timeout_ms) < 0) {
			if (errno == EINTR)
				continue;
			break;
		}
		if (fds[0].revents) {
			char why = 0;
			if (read(wake_[0], &why, 1) != 1 || why == 's')
				break;
		}
		// Only the pairs that were polled; one accepted below waits for the next round.
		const size_t polled = pairs.size();
		if (fds[1].revents & POLLIN) {
			const int client = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
			if (client >= 0) {
				accepted_++;
				const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
				const sockaddr_in addr = loopback(upstream_port_);
				if (server >= 0 &&
				    connect(server, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0) {
					pairs.push_back({client, server});
				} else {
					close(client);
					if (server >= 0)
						close(server);
				}
			}
		}
		// Walk backwards so dropping a pair keeps the remaining indexes valid.
		for (size_t i = polled; i-- > 0;) {
			const pollfd &from_client = fds[2 + 2 * i];
			const pollfd &from_server = fds[3 + 2 * i];
			char buf[65536];
			bool ok = true;
			if (from_client.revents) {
				const uint64_t rate = rate_;
				const size_t chunk = rate ? std::min<size_t>(sizeof(buf), size_t(rate / 100 + 1))
							  : sizeof(buf);
				const ssize_t n = read(pairs[i].client, buf, chunk);
				if (n > 0 && rate)
					next_read_ns =
						std::max(next_read_ns, now_ns()) + uint64_t(n) * 1000000000u / rate;
				if (n > 0) {
					uint64_t none = 0;
					first_byte_ns_.compare_exchange_strong(none, now_ns());
					from_clients_ += uint64_t(n);
					ok = send_all(pairs[i].server, buf, size_t(n));
				} else {
					ok = n < 0 && (errno == EINTR || errno == EAGAIN);
				}
			}
			if (ok && from_server.revents) {
				const ssize_t n = read(pairs[i].server, buf, sizeof(buf));
				if (n > 0)
					ok = send_all(pairs[i].client, buf, size_t(n));
				else
					ok = n < 0 && (errno == EINTR || errno == EAGAIN);
			}
			if (!ok)
				drop(i);
		}
	}
	while (!pairs.empty())
		drop(pairs.size() - 1);
}

} // namespace cvtest
