#include "send_queue.h"

#include <algorithm>

namespace cv {

namespace {

bool non_key_video(const PacketInfo &info)
{
	return info.video && !info.keyframe;
}

bool disposable_video(const PacketInfo &info)
{
	return non_key_video(info) && info.disposable;
}

} // namespace

SendQueue::SendQueue(const QueueLimits &limits) : limits_(limits) {}

bool SendQueue::push(QueuedPacket packet)
{
	const PacketInfo &info = packet.info;
	newest_usec_ = packets_.empty() ? info.dts_usec : std::max(newest_usec_, info.dts_usec);
	const bool was_dropping = dropping_;

	bool keep = true;
	if (info.video && info.keyframe) {
		skip_to_keyframe_ = false;
		need_start_ = false;
		if (!connected_)
			drop_front(packets_.size());
	} else if (info.video) {
		keep = !need_start_ && !skip_to_keyframe_ &&
		       !(info.disposable && span_usec() > limits_.disposable_usec);
	} else {
		keep = !need_start_;
	}

	if (keep)
		append(std::move(packet));
	else
		count_drop(info);
	enforce_limits();
	return dropping_ && !was_dropping;
}

bool SendQueue::pop(QueuedPacket *out)
{
	if (packets_.empty())
		return false;
	*out = std::move(packets_.front());
	packets_.pop_front();
	count(out->info, false);
	return true;
}

void SendQueue::set_connected(bool connected)
{
	connected_ = connected;
	if (!connected)
		dropping_ = false;
}

void SendQueue::restart_at_newest_keyframe(std::deque<QueuedPacket> sent)
{
	while (!sent.empty()) {
		count(sent.back().info, true);
		packets_.push_front(std::move(sent.back()));
		sent.pop_back();
	}
	auto newest = std::find_if(packets_.rbegin(), packets_.rend(), [](const QueuedPacket &queued) {
		return queued.info.video && queued.info.keyframe;
	});
	if (newest == packets_.rend()) {
		drop_front(packets_.size());
		need_start_ = true;
	} else {
		drop_front(size_t(packets_.rend() - newest) - 1);
	}
	skip_to_keyframe_ = false;
}

void SendQueue::clear()
{
	drop_front(packets_.size());
	need_start_ = true;
	skip_to_keyframe_ = false;
	dropping_ = false;
}

int64_t SendQueue::span_usec() const
{
	return packets_.empty() ? 0 : std::max<int64_t>(0, newest_usec_ - packets_.front().info.dts_usec);
}

float SendQueue::congestion() const
{
	return std::clamp(float(span_usec()) / float(limits_.keyframe_usec), 0.0f, 1.0f);
}

bool SendQueue::settle()
{
	if (!dropping_ || skip_to_keyframe_ || span_usec() > limits_.disposable_usec / 2)
		return false;
	dropping_ = false;
	return true;
}

void SendQueue::append(QueuedPacket packet)
{
	count(packet.info, true);
	packets_.push_back(std::move(packet));
}

void SendQueue::count(const PacketInfo &info, bool in)
{
	auto add = [in](size_t &total, size_t amount) {
		total = in ? total + amount : total - amount;
	};
	add(bytes_, info.bytes);
	add(queued_disposable_, disposable_video(info) ? 1 : 0);
	add(queued_non_key_, non_key_video(info) ? 1 : 0);
}

void SendQueue::count_drop(const PacketInfo &info)
{
	(info.video ? dropped_.video_frames : dropped_.audio_packets)++;
	dropped_.bytes += info.bytes;
	if (connected_)
		dropping_ = true;
}

void SendQueue::drop_front(size_t count)
{
	QueuedPacket dropped;
	for (size_t i = 0; i < count && pop(&dropped); i++)
		count_drop(dropped.info);
}

template<typename Unwanted> void SendQueue::drop_where(Unwanted unwanted)
{
	std::deque<QueuedPacket> kept;
	QueuedPacket queued;
	while (pop(&queued)) {
		if (unwanted(queued.info))
			count_drop(queued.info);
		else
			kept.push_back(std::move(queued));
	}
	for (QueuedPacket &packet : kept)
		append(std::move(packet));
}

void SendQueue::enforce_limits()
{
	const int64_t span = span_usec();
	if (span > limits_.disposable_usec && queued_disposable_)
		drop_where(disposable_video);
	if (span > limits_.keyframe_usec) {
		if (queued_non_key_)
			drop_where(non_key_video);
		skip_to_keyframe_ = true;
	}

	while (span_usec() > limits_.max_span_usec || bytes_ > limits_.max_bytes) {
		const size_t keyframe = keyframe_after_front();
		if (keyframe == 0) {
			// A single group of pictures past the limits: give it up whole.
			drop_front(packets_.size());
			if (connected_)
				skip_to_keyframe_ = true;
			else
				need_start_ = true;
			break;
		}
		drop_front(keyframe);
	}
}

size_t SendQueue::keyframe_after_front() const
{
	for (size_t i = 1; i < packets_.size(); i++)
		if (packets_[i].info.video && packets_[i].info.keyframe)
			return i;
	return 0;
}

} // namespace cv
