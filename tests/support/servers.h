#pragma once

#include "process.h"

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

// Real servers on 127.0.0.1, children of the test process, with private folders.
namespace cvtest {

sockaddr_in loopback(uint16_t port); // 127.0.0.1:port
uint16_t free_tcp_port();
uint16_t free_udp_port();

class ServerProcess {
public:
	virtual ~ServerProcess();
	bool start(std::string *error); // returns once the server has its port
	void stop();                    // SIGTERM: the server finishes what it has
	void kill_hard();               // SIGKILL, as if it crashed
	void pause();                   // SIGSTOP: connections stay open, nothing is read any more
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

// nginx with its RTMP module, application "live", recording each publish to an FLV file.
class RtmpServer : public ServerProcess {
public:
	RtmpServer() : ServerProcess("cv-rtmp-", false) {}
	std::string app_url() const { return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live"; }
	// One recording per publish of `key`, oldest first.
	std::vector<std::string> recordings(const std::string &key) const;
	// From the next start on, nginx's stream module also takes TLS on a port of 127.0.0.1
	// (a new one when `port` is 0) with this certificate, and hands what it decrypts to
	// the RTMP port. Returns the port.
	uint16_t serve_tls(const std::string &certificate, const std::string &key, uint16_t port = 0);

protected:
	std::vector<std::string> command() override;

private:
	struct TlsPort {
		uint16_t port;
		std::string certificate, key;
	};
	std::vector<TlsPort> tls_ports_;
};

// srt-live-transmit as a listener: stores one caller's MPEG-TS bytes and ends when the
// caller goes, so each start takes one connection.
class SrtListener : public ServerProcess {
public:
	explicit SrtListener(std::string options = {}) : ServerProcess("cv-srt-", true), options_(std::move(options)) {}
	std::string url() const; // with the listener's options, as a caller uses it
	// One file per start, oldest first; waits until the last caller has gone.
	std::vector<std::string> recordings();

protected:
	std::vector<std::string> command() override;
	std::string output_file() override;

private:
	std::string options_;
};

// A TCP port that takes connections and never answers: a hung ingest.
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
