#pragma once

#include "process.h"

#include <cstdint>
#include <string>
#include <vector>

// Real servers on 127.0.0.1 for tests that stream to them and then look at what arrived.
// Each keeps its files in a private folder, removed with it (kept when CV_KEEP_SERVER_FILES
// is set), and runs as a child of the test process.
namespace cvtest {

// A port that was free on 127.0.0.1 a moment ago.
uint16_t free_tcp_port();
uint16_t free_udp_port();

// A server program on a port of its own, started, killed and restarted on that port.
class ServerProcess {
public:
	virtual ~ServerProcess();
	// Returns once the port is taken by the server.
	bool start(std::string *error);
	void stop();      // SIGTERM: the server finishes what it has
	void kill_hard(); // SIGKILL, as if it crashed
	void pause();     // SIGSTOP: connections stay open, nothing is read any more
	void resume();
	bool restart(std::string *error);

	uint16_t port() const { return port_; }
	const std::string &dir() const { return dir_; }

protected:
	ServerProcess(const char *name, bool udp);
	virtual std::vector<std::string> command() = 0;
	virtual std::string output_file() { return dir_ + "/server.log"; }

	ChildProcess process_;
	std::string dir_;
	uint16_t port_ = 0;
	int run_ = 0;

private:
	const bool udp_;
};

// The system's nginx with its RTMP module, application "live", recording every publish to
// an FLV file of its own named after the stream key.
class RtmpServer : public ServerProcess {
public:
	RtmpServer() : ServerProcess("cv-rtmp-", false) {}
	// "rtmp://127.0.0.1:PORT/live"; a stream publishes to app_url() + "/" + key.
	std::string app_url() const { return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live"; }
	// One recording per publish of `key`, oldest first.
	std::vector<std::string> recordings(const std::string &key) const;

protected:
	std::vector<std::string> command() override;
};

// An SRT listener (the SRT project's srt-live-transmit) that stores the MPEG-TS bytes of
// one caller, unchanged, and ends when the caller goes: each start takes one connection.
class SrtListener : public ServerProcess {
public:
	explicit SrtListener(std::string options = {}) : ServerProcess("cv-srt-", true), options_(std::move(options)) {}
	// "srt://127.0.0.1:PORT" plus the listener's options ("?passphrase=..."), as a caller uses it.
	std::string url() const;
	// One file per start, oldest first; waits until the last caller has gone.
	std::vector<std::string> recordings();

protected:
	std::vector<std::string> command() override;
	std::string output_file() override;

private:
	std::string options_;
};

// A TCP port that takes connections (the kernel completes them for the listen queue) and
// never reads or answers: a hung ingest, or a firewall that accepts.
class SilentTcpServer {
public:
	SilentTcpServer();
	~SilentTcpServer();
	SilentTcpServer(const SilentTcpServer &) = delete;
	SilentTcpServer &operator=(const SilentTcpServer &) = delete;
	uint16_t port() const { return port_; }

private:
	int fd_ = -1;
	uint16_t port_ = 0;
};

} // namespace cvtest
