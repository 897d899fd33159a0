#include "stream_session.h"

#include "stream_url.h"
#include "write_errors.h"

#include "base/log.h"

#include <algorithm>
#include <pthread.h>
#include <thread>

namespace cv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kFirstRetry(250);
constexpr milliseconds kLongestRetry(5000);

// Session threads still running, so the module can wait for them before it goes.
std::mutex threads_mutex;
std::condition_variable threads_ended;
int live_threads = 0;

double seconds_since(Clock::time_point at)
{
	return std::chrono::duration<double>(Clock::now() - at).count();
}

} // namespace

milliseconds retry_delay(unsigned attempt)
{
	// 0.25, 0.25, 0.5, 0.5, 1, 1, 2, 2, 4, 4, 5 s...: a server that is back within a
	// second or two is found at once, one that stays away is not pestered.
	milliseconds delay = kFirstRetry;
	for (unsigned i = 0; i < attempt / 2 && delay < kLongestRetry; i++)
		delay *= 2;
	return std::min(delay, kLongestRetry);
}

std::shared_ptr<StreamSession> StreamSession::launch(const Destination &destination, const QueueLimits &limits,
						     SessionEvents events)
{
	std::shared_ptr<StreamSession> session(new StreamSession(destination, limits, std::move(events)));
	{
		std::lock_guard lock(threads_mutex);
		live_threads++;
	}
	// Detached: a stop never waits for the network. The thread keeps the session alive
	// until it has sent its trailer or given up.
	std::thread([session]() mutable {
		pthread_setname_np(pthread_self(), kSessionThreadName);
		session->run();
		session.reset();
		std::lock_guard lock(threads_mutex);
		live_threads--;
		threads_ended.notify_all();
	}).detach();
	return session;
}

bool StreamSession::wait_for_all(milliseconds timeout)
{
	std::unique_lock lock(threads_mutex);
	return threads_ended.wait_for(lock, timeout, [] { return live_threads == 0; });
}

StreamSession::StreamSession(const Destination &destination, const QueueLimits &limits, SessionEvents events)
	: destination_(destination),
	  queue_(limits),
	  max_sent_bytes_(limits.max_bytes),
	  events_(std::move(events))
{
}

StreamSession::~StreamSession() = default;

void StreamSession::begin_events()
{
	{
		std::lock_guard events_lock(events_mutex_);
		events_begun_ = true;
	}
	events_ready_.notify_all();
}

void StreamSession::set_layout(const StreamLayout &layout)
{
	{
		std::lock_guard lock(mutex_);
		layout_ = layout;
		has_layout_.store(true, std::memory_order_release);
	}
	wake_.notify_all();
}

void StreamSession::push(QueuedPacket packet)
{
	bool began = false;
	int64_t behind_usec = 0;
	{
		std::lock_guard lock(mutex_);
		if (stop_requested_)
			return;
		began = queue_.push(std::move(packet));
		if (began) {
			behind_usec = queue_.span_usec();
			drop_began_ = Clock::now();
		}
	}
	wake_.notify_one();
	if (began)
		log_warning("Vertical stream falling behind (%.1f s queued): dropping frames",
			    double(behind_usec) / 1e6);
}

void StreamSession::encoder_failed()
{
	{
		std::lock_guard lock(mutex_);
		encoder_failed_ = true;
	}
	wake_.notify_all();
}

bool StreamSession::stop()
{
	bool failed;
	{
		std::lock_guard events_lock(events_mutex_);
		events_closed_ = true;
		failed = failed_;
		std::lock_guard lock(mutex_);
		stop_requested_ = true;
		// A connection not yet made is of no use any more; one that is made gets to
		// send what is queued and say goodbye.
		deadline_.cut(connecting_ ? milliseconds(0) : kStopBudget);
	}
	events_ready_.notify_all();
	wake_.notify_all();
	return failed;
}

void StreamSession::detach()
{
	{
		std::lock_guard events_lock(events_mutex_);
		events_closed_ = true;
	}
	events_ready_.notify_all();
}

SessionStats StreamSession::stats() const
{
	std::lock_guard lock(mutex_);
	SessionStats stats;
	stats.connected = connected_;
	stats.reconnecting = reconnecting_;
	stats.bytes_sent = bytes_sent_;
	stats.reconnects = reconnects_;
	stats.dropped = queue_.dropped();
	stats.queued_packets = queue_.size();
	stats.queued_bytes = queue_.bytes();
	stats.queued_usec = queue_.span_usec();
	stats.congestion = queue_.congestion();
	stats.connect_time_ms = connect_time_ms_;
	if (first_connected_ != Clock::time_point{})
		stats.live_for = std::chrono::duration_cast<milliseconds>(Clock::now() - first_connected_);
	return stats;
}

void StreamSession::run()
{
	const std::string problem = destination_.problem.empty() ? stream_url_problem(destination_.url)
								 : destination_.problem;
	if (!problem.empty()) {
		log_error("Unusable stream address (%s): %s", problem.c_str(), destination_.log_url.c_str());
		fail(Failure::Stream, ErrorCode::Rejected);
		return;
	}
	log_info("Vertical stream connecting to %s", destination_.log_url.c_str());

	bool ever_connected = false;
	unsigned attempt = 0;
	Clock::time_point lost_at;
	for (;;) {
		bool lost = false;
		std::string error;
		std::string untrusted;
		{
			Connection connection(destination_, deadline_);
			const Clock::time_point began = Clock::now();
			if (!connect(connection, &error, &untrusted)) {
				bool stopped;
				{
					std::lock_guard lock(mutex_);
					stopped = stop_requested_ || encoder_failed_;
				}
				if (stopped)
					break;
				// Waiting does not mend a certificate, and this server gets no key, on a
				// reconnect neither: a certificate that changes under a stream is the
				// sign of someone in between.
				if (!untrusted.empty()) {
					log_error(
						"Vertical stream refused the certificate of %s (%s); nothing was sent",
						destination_.log_url.c_str(), untrusted.c_str());
					fail(Failure::Stream, {ErrorCode::Certificate, untrusted});
					break;
				}
				const bool timed_out = deadline_.passed();
				if (timed_out)
					error = "no answer within 10 s";
				if (!ever_connected) {
					log_error("Vertical stream could not connect to %s: %s",
						  destination_.log_url.c_str(), error.c_str());
					fail(Failure::Stream, timed_out ? ErrorCode::NoAnswer : ErrorCode::Rejected);
					break;
				}
				const milliseconds delay = retry_delay(++attempt);
				log_warning("Reconnect attempt %u failed: %s; next attempt in %.2f s", attempt,
					    error.c_str(), double(delay.count()) / 1000);
				if (!sleep_unless_stopped(delay))
					break;
				continue;
			}

			const int connect_ms =
				int(std::chrono::duration_cast<milliseconds>(Clock::now() - began).count());
			{
				std::lock_guard lock(mutex_);
				connected_ = true;
				reconnecting_ = false;
				connect_time_ms_ = connect_ms;
				bytes_sent_ += connection.bytes_written();
				queue_.set_connected(true);
				if (ever_connected)
					reconnects_++;
				else
					first_connected_ = Clock::now();
			}
			if (ever_connected) {
				log_info("Vertical stream reconnected after %.1f s (attempt %u)",
					 seconds_since(lost_at), attempt + 1);
				tell(events_.connected);
			} else {
				log_info("Vertical stream connected to %s in %d ms", destination_.log_url.c_str(),
					 connect_ms);
			}
			ever_connected = true;
			attempt = 0;

			lost = pump(connection, &error);
			if (lost) {
				lost_at = Clock::now();
				log_warning("Vertical stream lost its connection: %s; reconnecting", error.c_str());
				// Said before the state shows it, so whoever sees the state finds the text.
				tell(events_.reconnecting);
			}
			{
				std::lock_guard lock(mutex_);
				connected_ = false;
				queue_.set_connected(false);
				if (lost) {
					reconnecting_ = true;
					queue_.restart_at_newest_keyframe(std::move(sent_));
				}
				sent_.clear();
				sent_bytes_ = 0;
			}
			if (lost) {
				// The peer is gone: closing must not wait for it.
				deadline_.arm(milliseconds(0));
			} else {
				connection.finish();
			}
		}
		if (!lost || !sleep_unless_stopped(retry_delay(0)))
			break;
	}

	bool encoder_error = false;
	const SessionStats totals = stats();
	{
		std::lock_guard lock(mutex_);
		encoder_error = encoder_failed_;
		stop_requested_ = true;
		queue_.clear();
		connected_ = false;
		reconnecting_ = false;
	}
	if (encoder_error)
		fail(Failure::Encoder, ErrorCode::EncoderStopped);
	log_info("Vertical stream ended: %.1f MB sent, %llu video frames dropped, %u reconnects",
		 double(totals.bytes_sent) / 1e6, (unsigned long long)totals.dropped.video_frames, totals.reconnects);
}

bool StreamSession::connect(Connection &connection, std::string *error, std::string *untrusted)
{
	{
		std::lock_guard lock(mutex_);
		connecting_ = true;
		if (stop_requested_ || encoder_failed_)
			return false;
		deadline_.arm(kConnectTimeout);
	}
	if (!connection.open(error, untrusted))
		return false;

	// The encoders normally have their headers by now; the connection waits for them.
	StreamLayout layout;
	{
		std::unique_lock lock(mutex_);
		wake_.wait(lock, [this] { return has_layout_ || stop_requested_ || encoder_failed_; });
		if (!has_layout_)
			return false;
		layout = layout_;
		deadline_.arm(kConnectTimeout);
	}
	const bool started = connection.start(layout, error);
	std::lock_guard lock(mutex_);
	connecting_ = false;
	return started && !stop_requested_;
}

bool StreamSession::pump(Connection &connection, std::string *error)
{
	for (;;) {
		QueuedPacket packet;
		bool settled = false;
		DropCounts dropped;
		Clock::time_point drop_began;
		{
			std::unique_lock lock(mutex_);
			wake_.wait(lock, [this] { return !queue_.empty() || stop_requested_ || encoder_failed_; });
			if (encoder_failed_ || !queue_.pop(&packet))
				return false;
			settled = queue_.settle();
			dropped = queue_.dropped();
			drop_began = drop_began_;
			// Writes made after a stop share what is left of its budget.
			deadline_.arm(kWriteTimeout);
		}
		if (settled)
			log_info("Vertical stream caught up after %.1f s: %llu video frames and %llu audio packets "
				 "dropped so far",
				 seconds_since(drop_began), (unsigned long long)dropped.video_frames,
				 (unsigned long long)dropped.audio_packets);

		// The connection writes a reference to the payload with its own timing; the packet
		// itself is kept, unchanged, with the rest of its group of pictures.
		QueuedPacket outgoing{PacketPtr(av_packet_clone(packet.packet.get())), packet.info};
		if (!outgoing.packet)
			continue;
		keep_sent(std::move(packet));
		const uint64_t written = connection.bytes_written();
		const int rc = connection.write(outgoing);
		{
			std::lock_guard lock(mutex_);
			bytes_sent_ += connection.bytes_written() - written;
			if (rc >= 0)
				continue;
			if (stop_requested_)
				return false;
		}
		if (deadline_.passed()) {
			*error = "no progress for 10 s";
			return true;
		}
		if (is_connection_lost(rc, connection.stream_error())) {
			*error = error_text(rc);
			return true;
		}
		log_debug("packet not sent: %s", error_text(rc).c_str());
	}
}

void StreamSession::keep_sent(QueuedPacket packet)
{
	if (packet.info.video && packet.info.keyframe) {
		sent_.clear();
		sent_bytes_ = 0;
	}
	// Only whole from its keyframe on, and no larger than the queue would keep it.
	sent_bytes_ += packet.info.bytes;
	if (sent_bytes_ > max_sent_bytes_)
		sent_.clear();
	else if (!sent_.empty() || (packet.info.video && packet.info.keyframe))
		sent_.push_back(std::move(packet));
}

bool StreamSession::sleep_unless_stopped(milliseconds delay)
{
	std::unique_lock lock(mutex_);
	return !wake_.wait_for(lock, delay, [this] { return stop_requested_ || encoder_failed_; });
}

void StreamSession::fail(Failure failure, const Error &error)
{
	std::unique_lock events_lock(events_mutex_);
	events_ready_.wait(events_lock, [this] { return events_begun_ || events_closed_; });
	if (events_closed_ || failed_)
		return;
	failed_ = true;
	if (events_.failed)
		events_.failed(failure, error);
}

void StreamSession::tell(const std::function<void()> &event)
{
	std::unique_lock events_lock(events_mutex_);
	events_ready_.wait(events_lock, [this] { return events_begun_ || events_closed_; });
	if (!events_closed_ && event)
		event();
}

} // namespace cv
