#include "servers.h"

#include "wait.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cvtest {

sockaddr_in loopback(uint16_t port)
{
	sockaddr_in addr{};
	addr.sin_family = AF_INET;
	addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	addr.sin_port = htons(port);
	return addr;
}

namespace {

constexpr int kStartTimeoutMs = 10000;

// A free port below the kernel's ephemeral range: a server restarted on the same port can
// then never find it taken by a socket that the kernel gave a port of its own choosing, a
// caller's retries among them.
uint16_t free_port(int type)
{
	int ephemeral_low = 32768;
	if (FILE *range = fopen("/proc/sys/net/ipv4/ip_local_port_range", "r")) {
		if (fscanf(range, "%d", &ephemeral_low) != 1)
			ephemeral_low = 32768;
		fclose(range);
	}
	const int low = 10000, high = std::max(low + 1000, ephemeral_low);
	static unsigned seed = unsigned(getpid()) * 2654435761u;
	for (int attempt = 0; attempt < 200; attempt++) {
		seed = seed * 1103515245u + 12345u;
		const uint16_t port = uint16_t(low + (seed >> 8) % unsigned(high - low));
		const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
		const sockaddr_in addr = loopback(port);
		const bool free = fd >= 0 && bind(fd, (const sockaddr *)&addr, sizeof(addr)) == 0;
		if (fd >= 0)
			close(fd);
		if (free)
			return port;
	}
	return 0;
}

// Whether a server has the port on 127.0.0.1: it cannot be bound. For TCP a port that the
// previous run left in TIME_WAIT is free.
bool port_taken(uint16_t port, bool udp)
{
	const int fd = socket(AF_INET, (udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
	const int one = 1;
	if (!udp)
		setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
	const sockaddr_in addr = loopback(port);
	const bool taken = bind(fd, (const sockaddr *)&addr, sizeof(addr)) != 0 && errno == EADDRINUSE;
	close(fd);
	return taken;
}

} // namespace

uint16_t free_tcp_port()
{
	return free_port(SOCK_STREAM);
}

uint16_t free_udp_port()
{
	return free_port(SOCK_DGRAM);
}

ServerProcess::ServerProcess(const char *name, bool udp) : dir_(make_temp_dir(name)), udp_(udp) {}

ServerProcess::~ServerProcess()
{
	process_.terminate(2000);
	if (!getenv("CV_KEEP_SERVER_FILES") && !dir_.empty())
		std::filesystem::remove_all(dir_);
}

bool ServerProcess::start(std::string *error)
{
	if (process_.running())
		return true;
	if (!port_)
		port_ = udp_ ? free_udp_port() : free_tcp_port();
	run_++;
	if (!process_.start(command(), output_file(), error, dir_ + "/server.log"))
		return false;
	if (wait_until([&] { return port_taken(port_, udp_) || !process_.running(); }, kStartTimeoutMs) &&
	    process_.running())
		return true;
	*error = "the server did not take port " + std::to_string(port_) + ":\n" + read_file(dir_ + "/server.log");
	process_.kill_hard();
	return false;
}

void ServerProcess::stop()
{
	process_.terminate(5000);
}

void ServerProcess::kill_hard()
{
	process_.kill_hard();
}

void ServerProcess::pause()
{
	if (process_.pid() > 0)
		::kill(process_.pid(), SIGSTOP);
}

void ServerProcess::resume()
{
	if (process_.pid() > 0)
		::kill(process_.pid(), SIGCONT);
}

bool ServerProcess::restart(std::string *error)
{
	stop();
	return start(error);
}

uint16_t RtmpServer::serve_tls(const std::string &certificate, const std::string &key, uint16_t port)
{
	if (!port)
		port = free_tcp_port();
	tls_ports_.erase(std::remove_if(tls_ports_.begin(), tls_ports_.end(),
					[&](const TlsPort &tls) { return tls.port == port; }),
			 tls_ports_.end());
	tls_ports_.push_back({port, certificate, key});
	return port;
}

std::vector<std::string> RtmpServer::command()
{
	const std::string conf = dir_ + "/nginx.conf";
	std::filesystem::create_directories(dir_ + "/recordings");
	std::string modules;
	for (const std::string name : {"rtmp", "stream"}) {
		if (name == "stream" && tls_ports_.empty())
			continue;
		for (const char *dir : {"/usr/lib/nginx/modules/", "/usr/share/nginx/modules/"})
			if (std::filesystem::exists(dir + ("ngx_" + name + "_module.so"))) {
				modules += "load_module " + (dir + ("ngx_" + name + "_module.so")) + ";\n";
				break;
			}
	}
	// One process in the foreground; file names carry the second of the publish and the
	// server's run, so that runs within the same second keep their files apart.
	std::ofstream file(conf);
	file << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
	     << "pid " << dir_ << "/nginx.pid;\nerror_log " << dir_ << "/error.log info;\n"
	     << modules << "events { worker_connections 256; }\n"
	     << "rtmp { server { listen 127.0.0.1:" << port_ << "; application live {\n"
	     << "live on; record all; record_unique on; record_suffix -g" << run_ << ".flv;\n"
	     << "record_path " << dir_ << "/recordings; } } }\n";
	if (!tls_ports_.empty()) {
		file << "stream {\n";
		for (const TlsPort &tls : tls_ports_)
			file << "server { listen 127.0.0.1:" << tls.port << " ssl; ssl_certificate " << tls.certificate
			     << "; ssl_certificate_key " << tls.key << "; proxy_pass 127.0.0.1:" << port_ << "; }\n";
		file << "}\n";
	}
	return {"nginx", "-p", dir_ + "/", "-e", dir_ + "/error.log", "-c", conf};
}

std::vector<std::string> RtmpServer::recordings(const std::string &key) const
{
	// "<key>-<unix seconds>-g<run>.flv", in the order of run and second.
	std::vector<std::pair<std::pair<long, long>, std::string>> found;
	std::error_code error;
	for (const auto &entry : std::filesystem::directory_iterator(dir_ + "/recordings", error)) {
		const std::string name = entry.path().filename().string();
		long seconds = 0, run = 0;
		if (name.rfind(key + "-", 0) == 0 &&
		    sscanf(name.c_str() + key.size() + 1, "%ld-g%ld.flv", &seconds, &run) == 2)
			found.push_back({{run, seconds}, entry.path().string()});
	}
	std::sort(found.begin(), found.end());
	std::vector<std::string> paths;
	for (const auto &file : found)
		paths.push_back(file.second);
	return paths;
}

std::string SrtListener::url() const
{
	return "srt://127.0.0.1:" + std::to_string(port_) + (options_.empty() ? "" : "?" + options_);
}

std::vector<std::string> SrtListener::command()
{
	return {"srt-live-transmit", "-a:no",
		"srt://127.0.0.1:" + std::to_string(port_) + "?mode=listener" +
			(options_.empty() ? "" : "&" + options_),
		"file://con"};
}

std::string SrtListener::output_file()
{
	char name[32];
	snprintf(name, sizeof(name), "/srt-%03d.ts", run_);
	return dir_ + name;
}

std::vector<std::string> SrtListener::recordings()
{
	process_.wait(10000);
	std::vector<std::string> paths;
	for (int run = 1; run <= run_; run++) {
		char name[32];
		snprintf(name, sizeof(name), "/srt-%03d.ts", run);
		std::error_code error;
		if (std::filesystem::file_size(dir_ + name, error) > 0 && !error)
			paths.push_back(dir_ + name);
	}
	return paths;
}

SilentTcpServer::SilentTcpServer()
{
	fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_in addr = loopback(0);
	socklen_t len = sizeof(addr);
	if (fd_ >= 0 && bind(fd_, (sockaddr *)&addr, sizeof(addr)) == 0 && listen(fd_, 64) == 0 &&
	    getsockname(fd_, (sockaddr *)&addr, &len) == 0)
		port_ = ntohs(addr.sin_port);
}

SilentTcpServer::~SilentTcpServer()
{
	if (fd_ >= 0)
		close(fd_);
}

} // namespace cvtest
