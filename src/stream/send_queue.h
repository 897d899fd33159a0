#pragma once

// The packets that wait for the network, and what is given up when the network falls
// behind: a live stream would rather skip than lag.
//
// - Queued video spanning more than `disposable_usec`: frames that no other frame
//   refers to are dropped, queued ones and new ones.
// - More than `keyframe_usec`: every queued non-key video frame is dropped, and new
//   ones until the next keyframe; audio goes on.
// - More than `max_span_usec` or `max_bytes`: whole groups of pictures, audio included,
//   are dropped oldest first, so what is queued always starts at a keyframe or within
//   the group being sent.
// - Without a connection, every new keyframe drops what came before it: a connection
//   starts with the newest keyframe, and nothing older would ever be sent.

extern "C" {
#include <libavcodec/packet.h>
}

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

namespace cv {

struct PacketFree {
	void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

// What the queue knows of a packet (its timestamps are in the packet's own time base).
struct PacketInfo {
	bool video = false;
	bool keyframe = false;
	bool disposable = false; // no other frame refers to it
	size_t track = 0;        // audio track slot
	int64_t dts_usec = 0;
	size_t bytes = 0;
};

struct QueuedPacket {
	PacketPtr packet;
	PacketInfo info;
};

struct QueueLimits {
	int64_t disposable_usec = 1000000;
	int64_t keyframe_usec = 2000000;
	int64_t max_span_usec = 4000000;
	size_t max_bytes = 4 << 20;
};

struct DropCounts {
	uint64_t video_frames = 0;
	uint64_t audio_packets = 0;
	uint64_t bytes = 0;
};

class SendQueue {
public:
	explicit SendQueue(const QueueLimits &limits = {});

	// Takes the packet, or drops it by the rules above. Returns true when this push
	// began a period of dropping while connected (none was going on).
	bool push(QueuedPacket packet);
	// The oldest packet; false when nothing is queued.
	bool pop(QueuedPacket *out);

	// Whether a connection is sending (see the last rule above).
	void set_connected(bool connected);
	// A connection was lost: keep what follows the newest keyframe for the next one, or
	// nothing when there is none. `sent` is what the lost connection had sent of the
	// current group of pictures: it goes back in front of what is queued.
	void restart_at_newest_keyframe(std::deque<QueuedPacket> sent = {});
	void clear();

	bool empty() const { return packets_.empty(); }
	size_t size() const { return packets_.size(); }
	size_t bytes() const { return bytes_; }
	// From the oldest queued packet to the newest one pushed (kept or not).
	int64_t span_usec() const;
	// How near the queue is to dropping everything but keyframes, 0 to 1.
	float congestion() const;
	// A rule is dropping packets now; it ends once the queue is short again.
	bool dropping() const { return dropping_; }
	// Ends a period of dropping once the queue is short again and no frame waits for a
	// keyframe; returns true when it did so now.
	bool settle();
	const DropCounts &dropped() const { return dropped_; }

private:
	void append(QueuedPacket packet);
	// Keeps the totals of what is queued as a packet goes in or out.
	void count(const PacketInfo &info, bool in);
	void count_drop(const PacketInfo &info);
	void drop_front(size_t count);
	template<typename Unwanted> void drop_where(Unwanted unwanted);
	void enforce_limits();
	size_t keyframe_after_front() const;

	QueueLimits limits_;
	std::deque<QueuedPacket> packets_;
	size_t bytes_ = 0;
	size_t queued_disposable_ = 0;
	size_t queued_non_key_ = 0;
	int64_t newest_usec_ = 0;
	bool connected_ = false;
	// No keyframe since the last (re)start: nothing may be queued until one comes.
	bool need_start_ = true;
	// New non-key video frames are dropped until a keyframe comes.
	bool skip_to_keyframe_ = false;
	bool dropping_ = false;
	DropCounts dropped_;
};

} // namespace cv
