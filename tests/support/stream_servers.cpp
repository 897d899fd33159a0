#include "stream_servers.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace cvtest {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStartTimeoutMs = 10000;
constexpr int kStopGraceMs = 5000;

void sleep_ms(int ms)
{
	std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

uint16_t free_port(int type)
{
	const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return 0;
	sockaddr_in addr{};
	addr.sin_family = AF_INET;
	addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	socklen_t len = sizeof(addr);
	uint16_t port = 0;
	if (bind(fd, (sockaddr *)&addr, sizeof(addr)) == 0 && getsockname(fd, (sockaddr *)&addr, &len) == 0)
		port = ntohs(addr.sin_port);
	close(fd);
	return port;
}

// Whether process `pid` holds an IPv4 socket on `port`: for TCP a listening one, for UDP a
// bound one. Checking the owner (not just connecting) keeps a port that some other program
// took in the meantime from passing for ours, and leaves no test connection in the logs.
bool process_has_socket(pid_t pid, uint16_t port, bool udp)
{
	std::ifstream table(udp ? "/proc/net/udp" : "/proc/net/tcp");
	std::set<unsigned long> inodes;
	std::string line;
	std::getline(table, line); // header
	while (std::getline(table, line)) {
		unsigned local_addr, local_port, remote_addr, remote_port, state;
		unsigned long inode;
		if (sscanf(line.c_str(), " %*d: %X:%X %X:%X %X %*X:%*X %*X:%*X %*X %*u %*d %lu", &local_addr,
			   &local_port, &remote_addr, &remote_port, &state, &inode) != 6)
			continue;
		if (local_port == port && (udp || state == 0x0A /* LISTEN */))
			inodes.insert(inode);
	}
	if (inodes.empty())
		return false;

	const std::string fd_dir = "/proc/" + std::to_string(pid) + "/fd";
	DIR *dir = opendir(fd_dir.c_str());
	if (!dir)
		return false;
	bool found = false;
	while (dirent *entry = readdir(dir)) {
		char target[64];
		const std::string link = fd_dir + "/" + entry->d_name;
		const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
		if (n <= 0)
			continue;
		target[n] = '\0';
		unsigned long inode = 0;
		if (sscanf(target, "socket:[%lu]", &inode) == 1 && inodes.count(inode)) {
			found = true;
			break;
		}
	}
	closedir(dir);
	return found;
}

std::string tail(const std::string &text, size_t max_chars = 2000)
{
	return text.size() <= max_chars ? text : "..." + text.substr(text.size() - max_chars);
}

bool keep_files()
{
	const char *keep = getenv("CV_KEEP_SERVER_FILES");
	return keep && *keep && strcmp(keep, "0") != 0;
}

void remove_dir(const std::string &dir)
{
	if (dir.empty() || keep_files())
		return;
	std::error_code ec;
	std::filesystem::remove_all(dir, ec);
}

bool file_exists(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0;
}

int64_t file_size(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0 ? (int64_t)st.st_size : -1;
}

std::string quoted(const std::string &value)
{
	std::string out = "\"";
	for (char c : value) {
		if (c == '"' || c == '\\')
			out += '\\';
		out += c;
	}
	return out + "\"";
}

struct NginxSetup {
	std::string program;
	std::string module; // empty when the RTMP module is built in
	std::string error;
};

// nginx and its RTMP module, looked up once. CV_NGINX and CV_NGINX_RTMP_MODULE override.
const NginxSetup &nginx_setup()
{
	static const NginxSetup setup = [] {
		NginxSetup s;
		const char *program = getenv("CV_NGINX");
		s.program = program && *program ? program : find_executable("nginx");
		if (s.program.empty()) {
			s.error = "nginx not found (Debian package nginx)";
			return s;
		}
		const char *module = getenv("CV_NGINX_RTMP_MODULE");
		if (module && *module) {
			s.module = module;
			if (!file_exists(s.module))
				s.error = std::string("CV_NGINX_RTMP_MODULE does not exist: ") + module;
			return s;
		}

		std::string version;
		run_program({s.program, "-V"}, 10000, &version);
		std::vector<std::string> dirs;
		const std::string opt = "--modules-path=";
		const size_t at = version.find(opt);
		if (at != std::string::npos)
			dirs.push_back(
				version.substr(at + opt.size(), version.find_first_of(" \n", at) - at - opt.size()));
		for (const char *dir :
		     {"/usr/lib/nginx/modules", "/usr/share/nginx/modules", "/usr/lib64/nginx/modules",
		      "/usr/local/lib/nginx/modules", "/usr/local/nginx/modules", "/etc/nginx/modules"})
			dirs.push_back(dir);
		for (const std::string &dir : dirs) {
			if (file_exists(dir + "/ngx_rtmp_module.so")) {
				s.module = dir + "/ngx_rtmp_module.so";
				return s;
			}
		}
		// A build with the module compiled in names it among its --add-module options.
		const size_t add = version.find("--add-module=");
		if (add != std::string::npos && version.find("rtmp", add) != std::string::npos)
			return s;
		s.error = "nginx has no RTMP module (Debian package libnginx-mod-rtmp); searched " + dirs.front();
		return s;
	}();
	return setup;
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

// ---------------------------------------------------------------------------------------
// RtmpServer

RtmpServer::RtmpServer(std::string parent_dir) : parent_dir_(std::move(parent_dir)) {}

RtmpServer::~RtmpServer()
{
	stop();
	remove_dir(dir_);
}

bool RtmpServer::start(std::string *error)
{
	if (nginx_.pid() > 0 && nginx_.running())
		return true;
	const NginxSetup &setup = nginx_setup();
	if (!setup.error.empty()) {
		*error = setup.error;
		return false;
	}
	if (dir_.empty()) {
		dir_ = make_temp_dir(parent_dir_, "cv-rtmp-", error);
		if (dir_.empty())
			return false;
		if (mkdir((dir_ + "/recordings").c_str(), 0755) != 0) {
			*error = "mkdir recordings: " + std::string(strerror(errno));
			return false;
		}
	}

	// Only the first start may move to another port when the one it picked got taken.
	const bool pick = port_ == 0;
	for (int attempt = 0;; attempt++) {
		if (pick)
			port_ = free_tcp_port();
		if (launch(error))
			return true;
		if (!pick || attempt == 4 || error->find("Address already in use") == std::string::npos)
			return false;
	}
}

bool RtmpServer::launch(std::string *error)
{
	const NginxSetup &setup = nginx_setup();
	generation_++;
	const std::string conf_path = dir_ + "/nginx.conf";
	const std::string error_log_path = dir_ + "/error.log";
	{
		std::ofstream conf(conf_path, std::ios::trunc);
		conf << "# One nginx process in the foreground; every path below is private to this server.\n"
		     << "daemon off;\n"
		     << "master_process off;\n"
		     << "worker_processes 1;\n"
		     << "pid " << quoted(dir_ + "/nginx.pid") << ";\n"
		     << "error_log " << quoted(error_log_path) << " info;\n";
		if (!setup.module.empty())
			conf << "load_module " << quoted(setup.module) << ";\n";
		conf << "events {\n"
		     << "\tworker_connections 256;\n"
		     << "}\n"
		     << "rtmp {\n"
		     << "\taccess_log " << quoted(dir_ + "/rtmp-access.log") << ";\n"
		     << "\tserver {\n"
		     << "\t\tlisten 127.0.0.1:" << port_ << ";\n"
		     << "\t\tapplication live {\n"
		     << "\t\t\tlive on;\n"
		     << "\t\t\trecord all;\n"
		     // File names carry the second of the publish and the server run, so runs
		     // started within the same second do not overwrite each other's files.
		     << "\t\t\trecord_unique on;\n"
		     << "\t\t\trecord_suffix -g" << generation_ << ".flv;\n"
		     << "\t\t\trecord_path " << quoted(dir_ + "/recordings") << ";\n"
		     << "\t\t}\n"
		     << "\t}\n"
		     << "}\n";
		if (!conf) {
			*error = "cannot write " + conf_path;
			return false;
		}
	}

	// The log goes on across runs; only what this run adds tells about it.
	const size_t log_start = error_log().size();
	const int out_fd = open((dir_ + "/nginx.out").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
	const bool started = nginx_.start({setup.program, "-p", dir_ + "/", "-e", error_log_path, "-c", conf_path},
					  out_fd, out_fd, error);
	if (out_fd >= 0)
		close(out_fd);
	if (!started)
		return false;

	const Clock::time_point begin = Clock::now();
	while (Clock::now() - begin < std::chrono::milliseconds(kStartTimeoutMs)) {
		if (!nginx_.running()) {
			*error = "nginx ended (" + nginx_.describe_status() + ") before listening on port " +
				 std::to_string(port_) + ":\n" +
				 tail(error_log().substr(log_start) + read_text_file(dir_ + "/nginx.out"));
			return false;
		}
		if (process_has_socket(nginx_.pid(), port_, false))
			return true;
		// nginx keeps retrying a taken port for seconds; give it up early.
		if (error_log().find("Address already in use", log_start) != std::string::npos) {
			nginx_.kill_hard();
			*error = "port " + std::to_string(port_) + ": Address already in use";
			return false;
		}
		sleep_ms(10);
	}
	nginx_.kill_hard();
	*error = "nginx did not listen on port " + std::to_string(port_) + ":\n" + tail(error_log().substr(log_start));
	return false;
}

void RtmpServer::stop()
{
	nginx_.terminate(kStopGraceMs);
}

void RtmpServer::kill_hard()
{
	nginx_.kill_hard();
}

void RtmpServer::pause()
{
	if (nginx_.pid() > 0)
		::kill(nginx_.pid(), SIGSTOP);
}

void RtmpServer::resume()
{
	if (nginx_.pid() > 0)
		::kill(nginx_.pid(), SIGCONT);
}

bool RtmpServer::restart(std::string *error)
{
	stop();
	return start(error);
}

bool RtmpServer::running()
{
	return nginx_.running();
}

std::string RtmpServer::app_url() const
{
	return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live";
}

std::vector<std::string> RtmpServer::recordings(const std::string &key) const
{
	// Names are "<key>-<unix seconds>-g<server run>.flv".
	std::vector<std::tuple<long, long, std::string>> found;
	const std::string folder = dir_ + "/recordings";
	DIR *dir = dir_.empty() ? nullptr : opendir(folder.c_str());
	if (!dir)
		return {};
	while (dirent *entry = readdir(dir)) {
		const std::string name = entry->d_name;
		if (name.size() <= key.size() + 1 || name.compare(0, key.size() + 1, key + "-") != 0)
			continue;
		long seconds = 0, run = 0;
		int used = 0;
		const std::string rest = name.substr(key.size() + 1);
		if (sscanf(rest.c_str(), "%ld-g%ld.flv%n", &seconds, &run, &used) == 2 && (size_t)used == rest.size())
			found.emplace_back(run, seconds, folder + "/" + name);
	}
	closedir(dir);
	std::sort(found.begin(), found.end());
	std::vector<std::string> paths;
	for (const auto &entry : found)
		paths.push_back(std::get<2>(entry));
	return paths;
}

std::string RtmpServer::access_log() const
{
	return dir_.empty() ? std::string() : read_text_file(dir_ + "/rtmp-access.log");
}

std::string RtmpServer::error_log() const
{
	return dir_.empty() ? std::string() : read_text_file(dir_ + "/error.log");
}

// ---------------------------------------------------------------------------------------
// SrtListener

SrtListener::SrtListener(std::string parent_dir) : parent_dir_(std::move(parent_dir)) {}

SrtListener::~SrtListener()
{
	stop();
	remove_dir(dir_);
}

bool SrtListener::start(std::string *error)
{
	if (receiver_.pid() > 0 && receiver_.running())
		return true;
	const char *program = getenv("CV_SRT_RECEIVER");
	const std::string receiver = program && *program ? program : CV_SRT_RECEIVER;
	if (dir_.empty()) {
		dir_ = make_temp_dir(parent_dir_, "cv-srt-", error);
		if (dir_.empty())
			return false;
	}
	const std::vector<Recording> existing = files();
	run_first_index_ = existing.empty() ? 1 : existing.back().index + 1;

	const bool pick = port_ == 0;
	for (int attempt = 0;; attempt++) {
		if (pick)
			port_ = free_udp_port();
		const std::string log_path = dir_ + "/receiver.log";
		const size_t log_start = log().size();
		const int log_fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
		const bool started =
			receiver_.start({receiver, std::to_string(port_), dir_, std::to_string(run_first_index_)},
					log_fd, log_fd, error);
		if (log_fd >= 0)
			close(log_fd);
		if (!started)
			return false;

		const Clock::time_point begin = Clock::now();
		while (Clock::now() - begin < std::chrono::milliseconds(kStartTimeoutMs)) {
			if (!receiver_.running())
				break;
			if (process_has_socket(receiver_.pid(), port_, true) &&
			    log().find("listening", log_start) != std::string::npos)
				return true;
			sleep_ms(5);
		}
		receiver_.kill_hard();
		*error = "the SRT receiver did not listen on port " + std::to_string(port_) + " (" +
			 receiver_.describe_status() + "):\n" + tail(log().substr(log_start));
		// The port may have been taken after it was picked; only a first start moves.
		if (!pick || attempt == 2)
			return false;
	}
}

void SrtListener::stop()
{
	receiver_.terminate(kStopGraceMs);
}

void SrtListener::kill_hard()
{
	receiver_.kill_hard();
}

bool SrtListener::restart(std::string *error)
{
	stop();
	return start(error);
}

bool SrtListener::running()
{
	return receiver_.running();
}

std::string SrtListener::url() const
{
	return "srt://127.0.0.1:" + std::to_string(port_);
}

std::vector<SrtListener::Recording> SrtListener::files() const
{
	std::vector<Recording> found;
	DIR *dir = dir_.empty() ? nullptr : opendir(dir_.c_str());
	if (!dir)
		return found;
	while (dirent *entry = readdir(dir)) {
		int index = 0, used = 0;
		if (sscanf(entry->d_name, "srt-%d.ts%n", &index, &used) == 1 && entry->d_name[used] == '\0')
			found.push_back({index, dir_ + "/" + entry->d_name});
	}
	closedir(dir);
	std::sort(found.begin(), found.end(), [](const Recording &a, const Recording &b) { return a.index < b.index; });
	return found;
}

// Ended: the receiver marked it done, or the receiver that wrote it is gone.
bool SrtListener::complete(const Recording &recording) const
{
	if (recording.index < run_first_index_ || receiver_.pid() <= 0)
		return true;
	char marker[32];
	snprintf(marker, sizeof(marker), "/srt-%03d.done", recording.index);
	return file_exists(dir_ + marker);
}

std::vector<std::string> SrtListener::recordings() const
{
	std::vector<std::string> paths;
	for (const Recording &recording : files()) {
		if (file_size(recording.path) > 0)
			paths.push_back(recording.path);
	}
	return paths;
}

bool SrtListener::wait_for_recordings(size_t count, int timeout_ms)
{
	const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeout_ms);
	for (;;) {
		if (receiver_.pid() > 0)
			receiver_.running(); // reaps a receiver that ended by itself
		size_t done = 0;
		for (const Recording &recording : files())
			done += complete(recording) && file_size(recording.path) > 0;
		if (done >= count)
			return true;
		if (Clock::now() > end)
			return false;
		sleep_ms(20);
	}
}

std::string SrtListener::log() const
{
	return dir_.empty() ? std::string() : read_text_file(dir_ + "/receiver.log");
}

// ---------------------------------------------------------------------------------------
// SilentTcpServer

SilentTcpServer::~SilentTcpServer()
{
	if (fd_ >= 0)
		close(fd_);
}

bool SilentTcpServer::start(std::string *error)
{
	fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_in addr{};
	addr.sin_family = AF_INET;
	addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	socklen_t len = sizeof(addr);
	if (fd_ < 0 || bind(fd_, (sockaddr *)&addr, sizeof(addr)) != 0 || listen(fd_, 64) != 0 ||
	    getsockname(fd_, (sockaddr *)&addr, &len) != 0) {
		*error = std::string("silent server: ") + strerror(errno);
		return false;
	}
	port_ = ntohs(addr.sin_port);
	return true;
}

} // namespace cvtest
