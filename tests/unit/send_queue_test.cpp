#include "stream/send_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace {

// Packets are named by what they are and when: "K0" a keyframe at 0 ms, "P40" a frame
// others refer to, "B80" a disposable one, "A20" audio.
cv::QueuedPacket packet(const std::string &name, size_t bytes = 10)
{
	cv::QueuedPacket queued;
	queued.packet.reset(av_packet_alloc());
	queued.info.video = name[0] != 'A';
	queued.info.keyframe = name[0] == 'K';
	queued.info.disposable = name[0] == 'B';
	queued.info.dts_usec = std::stoll(name.substr(1)) * 1000;
	queued.info.bytes = bytes;
	queued.packet->pts = queued.info.dts_usec;
	return queued;
}

std::string name_of(const cv::PacketInfo &info)
{
	const char kind = !info.video ? 'A' : info.keyframe ? 'K' : info.disposable ? 'B' : 'P';
	return kind + std::to_string(info.dts_usec / 1000);
}

// What a connection would send, oldest first; the queue is empty afterwards.
std::vector<std::string> drain(cv::SendQueue &queue)
{
	std::vector<std::string> sent;
	cv::QueuedPacket queued;
	while (queue.pop(&queued))
		sent.push_back(name_of(queued.info));
	return sent;
}

void push_all(cv::SendQueue &queue, const std::vector<std::string> &names)
{
	for (const std::string &name : names)
		queue.push(packet(name));
}

constexpr cv::QueueLimits kLimits = {100000, 200000, 400000, 1000};

using Names = std::vector<std::string>;

} // namespace

TEST(SendQueue, EveryConnectionStartsWithTheNewestKeyframe)
{
	cv::SendQueue queue(kLimits);
	// Nothing before the first keyframe can be sent; without a connection every new
	// keyframe makes what came before it useless.
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

	// ...and without one queued, waits for the next.
	push_all(queue, {"P130", "A135"});
	queue.restart_at_newest_keyframe();
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
	EXPECT_TRUE(queue.dropping());
	EXPECT_FALSE(queue.push(packet("P120"))) << "and is said once";
	EXPECT_EQ(queue.congestion(), 0.6f);

	// Past the second, every queued frame but keyframes goes, and new ones until the
	// next keyframe that comes while the queue is short; audio goes on.
	push_all(queue, {"A130", "P210", "A215", "P220"});
	EXPECT_EQ(queue.congestion(), 1.0f);
	push_all(queue, {"K240", "P250"});
	EXPECT_EQ(drain(queue), (Names{"K0", "A50", "A130", "A215", "K240"}));
	EXPECT_EQ(queue.dropped().video_frames, 10u);
	EXPECT_EQ(queue.dropped().audio_packets, 0u);
	EXPECT_FALSE(queue.settle()) << "frames still wait for a keyframe";
	push_all(queue, {"K300", "P310"});
	EXPECT_TRUE(queue.settle()) << "the queue is short again";
	EXPECT_FALSE(queue.dropping());
	EXPECT_EQ(drain(queue), (Names{"K300", "P310"}));
}

TEST(SendQueue, CapsDropWholeGroupsOfPicturesOldestFirst)
{
	// Past the longest span, whole groups go, their audio included.
	cv::SendQueue span(kLimits);
	span.set_connected(true);
	push_all(span, {"P0", "A10", "K20", "A30", "K180", "A190", "K350", "A360"});
	span.push(packet("K500"));
	EXPECT_EQ(drain(span), (Names{"K180", "A190", "K350", "A360", "K500"}));
	EXPECT_EQ(span.dropped().audio_packets, 2u);

	// Past the byte cap likewise, down to the newest group; a single group past it goes whole.
	cv::SendQueue bytes(kLimits);
	bytes.set_connected(true);
	bytes.push(packet("K0", 400));
	bytes.push(packet("A10", 100));
	bytes.push(packet("K20", 400));
	bytes.push(packet("A30", 300));
	EXPECT_EQ(bytes.bytes(), 700u);
	EXPECT_EQ(drain(bytes), (Names{"K20", "A30"}));
	bytes.push(packet("K40", 1200));
	bytes.push(packet("P50"));
	bytes.push(packet("A55"));
	EXPECT_EQ(drain(bytes), (Names{"A55"})) << "frames wait for the next keyframe, audio does not";
}
