#pragma once

// One run of the vertical stream, from a start to its stop, on a thread of its own: it
// connects while the encoders start, sends what they hand over, and reconnects when
// the connection is lost. The host's threads only hand packets over; nothing they call
// here waits for the network or for a lock held across it.

#include "connection.h"
#include "send_queue.h"

#include "base/errors.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace cv {

inline constexpr std::chrono::milliseconds kConnectTimeout(10000);
inline constexpr std::chrono::milliseconds kWriteTimeout(10000);
// What a stop leaves for the packets still queued, the trailer and the unpublish.
inline constexpr std::chrono::milliseconds kStopBudget(2000);

// Name of the session threads, as tools like top and gdb show them.
inline constexpr const char *kSessionThreadName = "cv-stream";

inline constexpr const char *kRejectedError = "Stream rejected — check server URL and stream key";
inline constexpr const char *kNoAnswerError = "The server did not answer within 10 s — check the server URL";
inline constexpr const char *kReconnectingError = "RTMP/SRT disconnected, reconnecting...";

enum class Failure {
	Stream,  // the server refused or never answered; the error says which
	Encoder, // the host's encoder stopped
};

// Told on the session's thread, one at a time, none before begin_events() and none after
// stop() or detach().
struct SessionEvents {
	std::function<void()> connected;                         // live again after a lost connection
	std::function<void()> reconnecting;                      // a live connection was lost
	std::function<void(Failure, const Error &error)> failed; // at most once; the session ends
};

struct SessionStats {
	bool connected = false;
	bool reconnecting = false;
	uint64_t bytes_sent = 0;
	uint32_t reconnects = 0;
	DropCounts dropped;
	size_t queued_packets = 0;
	size_t queued_bytes = 0;
	int64_t queued_usec = 0;
	float congestion = 0;
	int connect_time_ms = 0;
	// Since the first connection of this run was made; zero until then.
	std::chrono::milliseconds live_for{0};
};

// The delay before reconnect attempt `attempt` (0 for the first after a loss).
std::chrono::milliseconds retry_delay(unsigned attempt);

class StreamSession {
public:
	// Starts connecting at once; packets may be pushed right away.
	static std::shared_ptr<StreamSession> launch(const Destination &destination, const QueueLimits &limits,
						     SessionEvents events);
	~StreamSession();
	StreamSession(const StreamSession &) = delete;
	StreamSession &operator=(const StreamSession &) = delete;

	// Events are held back until the host's output has begun its capture.
	void begin_events();
	// The encoders' headers: the container header waits for them.
	void set_layout(const StreamLayout &layout);
	bool needs_layout() const { return !has_layout_.load(std::memory_order_acquire); }
	void push(QueuedPacket packet);
	// The host's encoder stopped with an error.
	void encoder_failed();
	// Sends what is queued, the trailer and the unpublish in the background, within
	// kStopBudget, and ends. Returns at once: true when the session had already failed
	// (and said so).
	bool stop();
	// No more events: whatever they would touch is going away.
	void detach();

	SessionStats stats() const;

	// Waits until every session thread of the process has ended; false on timeout.
	static bool wait_for_all(std::chrono::milliseconds timeout);

private:
	StreamSession(const Destination &destination, const QueueLimits &limits, SessionEvents events);
	void run();
	bool connect(Connection &connection, std::string *error, std::string *untrusted);
	// Sends until the connection is lost (true, with the reason) or the stop has sent
	// what it could (false).
	bool pump(Connection &connection, std::string *error);
	void keep_sent(QueuedPacket packet);
	bool sleep_unless_stopped(std::chrono::milliseconds delay);
	void fail(Failure failure, const Error &error);
	void tell(const std::function<void()> &event);

	const Destination destination_;
	IoDeadline deadline_;
	std::atomic<bool> has_layout_{false};

	mutable std::mutex mutex_; // guards everything below up to events_mutex_
	std::condition_variable wake_;
	SendQueue queue_;
	// What the connection has sent of the current group of pictures, so that the next
	// connection can start with its keyframe (the session's thread alone uses it).
	std::deque<QueuedPacket> sent_;
	size_t sent_bytes_ = 0;
	size_t max_sent_bytes_;
	StreamLayout layout_;
	bool stop_requested_ = false;
	bool encoder_failed_ = false;
	bool connecting_ = true;
	bool connected_ = false;
	bool reconnecting_ = false;
	uint32_t reconnects_ = 0;
	uint64_t bytes_sent_ = 0;
	int connect_time_ms_ = 0;
	std::chrono::steady_clock::time_point first_connected_{};
	std::chrono::steady_clock::time_point drop_began_;

	// Held while an event is told; stop() and detach() take it, so none is told after.
	std::mutex events_mutex_;
	std::condition_variable events_ready_;
	SessionEvents events_;
	bool events_begun_ = false;
	bool events_closed_ = false;
	bool failed_ = false;
};

} // namespace cv
