#include "stream/send_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

using Names = std::vector<std::string>;

// "K0" a keyframe at 0 ms, "P40" a frame others refer to, "B80" a disposable one, "A20"
// audio; "K0:400" one of 400 bytes (10 by default).
static cv::QueuedPacket packet(const std::string &name)
{
	cv::QueuedPacket queued;
	queued.packet.reset(av_packet_alloc());
	queued.info.video = name[0] != 'A';
	queued.info.keyframe = name[0] == 'K';
	queued.info.disposable = name[0] == 'B';
	queued.info.dts_usec = std::stoll(name.substr(1)) * 1000;
	const size_t colon = name.find(':');
	queued.info.bytes = colon == std::string::npos ? 10 : std::stoul(name.substr(colon + 1));
	return queued;
}

// What a connection would send, oldest first; the queue is empty afterwards.
static Names drain(cv::SendQueue &queue)
{
	Names sent;
	cv::QueuedPacket q;
	while (queue.pop(&q)) {
		const char kind = !q.info.video ? 'A' : q.info.keyframe ? 'K' : q.info.disposable ? 'B' : 'P';
		sent.push_back(kind + std::to_string(q.info.dts_usec / 1000));
	}
	return sent;
}

static void push_all(cv::SendQueue &queue, const std::vector<std::string> &names)
{
	for (const std::string &name : names)
		queue.push(packet(name));
}

constexpr cv::QueueLimits kLimits = {100000, 200000, 400000, 1000};

TEST(SendQueue, EveryConnectionStartsWithTheNewestKeyframe)
{
	cv::SendQueue queue(kLimits);
	// Unconnected, every new keyframe makes what came before it useless.
	push_all(queue, {"A0", "P10", "K20", "A25", "P30", "K60", "A65", "P70"});
	EXPECT_EQ(drain(queue), (Names{"K60", "A65", "P70"}));
	EXPECT_EQ(queue.dropped().video_frames, 3u);
	EXPECT_EQ(queue.dropped().audio_packets, 2u);
	EXPECT_EQ(queue.dropped().bytes, 50u);

	// Connected, the queue keeps everything within its limits.
	queue.set_connected(true);
	push_all(queue, {"P80", "A85", "K90", "P95"});
	EXPECT_EQ(drain(queue), (Names{"P80", "A85", "K90", "P95"}));

	// A lost connection keeps what follows the newest keyframe for the next one...
	push_all(queue, {"P100", "A105", "K110", "P120", "A125"});
	queue.set_connected(false);
	queue.restart_at_newest_keyframe();
	EXPECT_EQ(drain(queue), (Names{"K110", "P120", "A125"}));

	// ...the part of its group of pictures already sent included.
	queue.set_connected(true);
	push_all(queue, {"P126", "A127"});
	std::deque<cv::QueuedPacket> sent;
	for (const char *name : {"K110", "P120", "A125"})
		sent.push_back(packet(name));
	queue.set_connected(false);
	queue.restart_at_newest_keyframe(std::move(sent));
	EXPECT_EQ(drain(queue), (Names{"K110", "P120", "A125", "P126", "A127"}));

	// ...and without one queued, the next connection waits for a keyframe.
	push_all(queue, {"P130", "A135"});
	queue.restart_at_newest_keyframe();
	queue.set_connected(true);
	push_all(queue, {"A140", "P150", "K160", "A165"});
	EXPECT_EQ(drain(queue), (Names{"K160", "A165"}));
}

TEST(SendQueue, FallingBehindDropsLeastNeededFramesFirst)
{
	cv::SendQueue queue(kLimits);
	queue.set_connected(true);
	EXPECT_FALSE(queue.push(packet("K0")));

	// Past the first limit, frames nothing refers to go, queued and new.
	push_all(queue, {"B20", "P40", "A50", "B60", "P80", "B100"});
	EXPECT_TRUE(queue.push(packet("B110"))) << "dropping starts";
	EXPECT_FALSE(queue.push(packet("P120"))) << "and is said once";
	EXPECT_EQ(queue.congestion(), 0.6f);

	// Past the second, all queued non-key frames go, new ones until a keyframe; audio goes on.
	push_all(queue, {"A130", "P210", "A215", "P220"});
	EXPECT_EQ(queue.congestion(), 1.0f);
	push_all(queue, {"K240", "P250"});
	EXPECT_EQ(drain(queue), (Names{"K0", "A50", "A130", "A215", "K240"}));
	EXPECT_EQ(queue.dropped().video_frames, 10u);
	EXPECT_FALSE(queue.settle()) << "frames still wait for a keyframe";
	push_all(queue, {"K300", "P310"});
	EXPECT_TRUE(queue.settle()) << "the queue is short again";
	EXPECT_EQ(drain(queue), (Names{"K300", "P310"}));
}

TEST(SendQueue, CapsDropWholeGroupsOfPicturesOldestFirst)
{
	// Past the longest span, whole groups go, their audio included.
	cv::SendQueue span(kLimits);
	span.set_connected(true);
	push_all(span, {"P0", "A10", "K20", "A30", "K180", "A190", "K350", "A360", "K500"});
	EXPECT_EQ(drain(span), (Names{"K180", "A190", "K350", "A360", "K500"}));
	EXPECT_EQ(span.dropped().audio_packets, 2u);

	// Past the byte cap likewise, down to the newest group; a single group past it goes whole.
	cv::SendQueue bytes(kLimits);
	bytes.set_connected(true);
	push_all(bytes, {"K0:400", "A10:100", "K20:400", "A30:300"});
	EXPECT_EQ(bytes.bytes(), 700u);
	EXPECT_EQ(drain(bytes), (Names{"K20", "A30"}));
	push_all(bytes, {"K40:1200", "P50", "A55"});
	EXPECT_EQ(drain(bytes), (Names{"A55"})) << "frames wait for the next keyframe, audio does not";
}
