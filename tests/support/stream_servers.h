#pragma once

#include "child_process.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

// Real servers on 127.0.0.1 for tests that stream to them and then look at what arrived.
// Each keeps its files in a private folder (below parent_dir when given, else $TMPDIR or
// /tmp) that is removed when the object is destroyed (kept when CV_KEEP_SERVER_FILES is set).
// Every process they run is a child of the test process, reaped when stopped.
namespace cvtest {

// A port that was free on 127.0.0.1 a moment ago; 0 when none could be found.
uint16_t free_tcp_port();
uint16_t free_udp_port();

// The system's nginx with the RTMP module, in the foreground as a single process, with
// application "live" recording every publish to its own FLV file named after the stream key.
class RtmpServer {
public:
	explicit RtmpServer(std::string parent_dir = {});
	~RtmpServer();
	RtmpServer(const RtmpServer &) = delete;
	RtmpServer &operator=(const RtmpServer &) = delete;

	// Returns once the port accepts connections. The first start picks a free port.
	bool start(std::string *error);
	// Fast shutdown (SIGTERM): open sessions are closed and their recordings finished.
	void stop();
	// SIGKILL, as if the server crashed.
	void kill_hard();
	// SIGSTOP: connections stay open and new ones are accepted by the kernel, but
	// nothing is read any more, so a sender's socket buffers fill up. resume() undoes it.
	void pause();
	void resume();
	// Stops it when running and starts it again on the same port and record folder.
	bool restart(std::string *error);
	bool running();

	uint16_t port() const { return port_; }
	// "rtmp://127.0.0.1:PORT/live"; a stream publishes to app_url() + "/" + key.
	std::string app_url() const;
	// The recordings of one stream key, oldest first: one per publish (nginx-rtmp names them
	// by the second, so two publishes of a key within one second of one run share a file).
	std::vector<std::string> recordings(const std::string &key) const;
	// nginx-rtmp's access log: one line per finished session, e.g.
	// 127.0.0.1 [date] PUBLISH "live" "key" "" - 145241 529 "" "FMLE/3.0 (...)" (3s)
	std::string access_log() const;
	// nginx's error log (connects, publishes, disconnects at level info), for failure messages.
	std::string error_log() const;
	const std::string &dir() const { return dir_; }

private:
	bool launch(std::string *error);

	std::string parent_dir_;
	std::string dir_;
	uint16_t port_ = 0;
	int generation_ = 0;
	ChildProcess nginx_;
};

// An SRT listener (the cv_srt_receiver program next to the tests) that stores the MPEG-TS
// bytes each caller sends, unchanged, in a file of its own. It takes several callers at once,
// so a caller that reconnects is accepted even before the end of its old connection has been
// noticed. Delivery is not held back by SRT's latency window, and what was delivered before
// a caller closes is stored (the caller itself must linger, or wait for its send buffer to
// empty, for its last packets to leave). restart() keeps the port; numbering goes on.
class SrtListener {
public:
	explicit SrtListener(std::string parent_dir = {});
	~SrtListener();
	SrtListener(const SrtListener &) = delete;
	SrtListener &operator=(const SrtListener &) = delete;

	// Returns once the port is bound. The first start picks a free port.
	bool start(std::string *error);
	// Ends the listener; open connections are closed and their callers told at once.
	void stop();
	// SIGKILL, as if the server crashed: callers only notice by their own timeout.
	void kill_hard();
	bool restart(std::string *error);
	bool running();

	uint16_t port() const { return port_; }
	// "srt://127.0.0.1:PORT" (caller mode is the default of FFmpeg's and OBS's SRT).
	std::string url() const;
	// Files that received data, one per connection, oldest first. A file whose connection
	// is still open may still grow.
	std::vector<std::string> recordings() const;
	// Waits until `count` connections have ended with data stored.
	bool wait_for_recordings(size_t count, int timeout_ms);
	std::string log() const;
	const std::string &dir() const { return dir_; }

private:
	struct Recording {
		int index;
		std::string path;
	};
	std::vector<Recording> files() const;
	bool complete(const Recording &recording) const;

	std::string parent_dir_;
	std::string dir_;
	uint16_t port_ = 0;
	int run_first_index_ = 1;
	ChildProcess receiver_;
};

// A TCP port on 127.0.0.1 that takes connections (the kernel completes them for the
// listen queue) and never reads or answers: a hung ingest, or a firewall that accepts.
class SilentTcpServer {
public:
	SilentTcpServer() = default;
	~SilentTcpServer();
	SilentTcpServer(const SilentTcpServer &) = delete;
	SilentTcpServer &operator=(const SilentTcpServer &) = delete;

	bool start(std::string *error);
	uint16_t port() const { return port_; }

private:
	int fd_ = -1;
	uint16_t port_ = 0;
};

} // namespace cvtest
