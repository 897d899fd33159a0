#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace cvtest {

// A TCP relay on 127.0.0.1 in front of a server on another local port: every connection
// it accepts is forwarded both ways to the server. It notes when the first byte from a
// client arrived, and can stop reading from clients (a server that accepts and never
// reads) until resumed; its sockets have small buffers so a sender fills them quickly.
class TcpRelay {
public:
	TcpRelay() = default;
	~TcpRelay();
	TcpRelay(const TcpRelay &) = delete;
	TcpRelay &operator=(const TcpRelay &) = delete;

	bool start(uint16_t upstream_port, std::string *error);
	void stop();
	void pause();
	void resume();
	// Forwards at most this many bytes a second from clients (0: as fast as it can), like
	// a link just wide enough for the stream.
	void limit_rate(uint64_t bytes_per_second) { rate_ = bytes_per_second; }

	uint16_t port() const { return port_; }
	int connections_accepted() const { return accepted_.load(); }
	uint64_t bytes_from_clients() const { return from_clients_.load(); }
	// Steady-clock time (ns since its epoch) of the first byte a client sent since the
	// start or the last forget_first_byte(); 0 while there was none.
	uint64_t first_byte_ns() const { return first_byte_ns_.load(); }
	void forget_first_byte() { first_byte_ns_ = 0; }

private:
	void run();
	void wake(char why);

	uint16_t port_ = 0;
	uint16_t upstream_port_ = 0;
	int listen_fd_ = -1;
	int wake_[2] = {-1, -1};
	std::thread thread_;
	std::atomic<bool> paused_{false};
	std::atomic<uint64_t> rate_{0};
	std::atomic<int> accepted_{0};
	std::atomic<uint64_t> from_clients_{0};
	std::atomic<uint64_t> first_byte_ns_{0};
};

} // namespace cvtest
