// From encoder packets to queued FFmpeg packets: time base, durations, monotonic
// timestamps, Annex B access units for MPEG-TS, and the start gates.

#include "mux_output.h"

#include "annexb.h"
#include "stream_url.h"

#include "core/plugin_log.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

namespace cv {

namespace {

constexpr int64_t kFallbackFrameTicks = 3000;
constexpr auto kRounding = AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX);
constexpr size_t kNalTypesLimit = 20;

struct PacketFree {
	void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

int64_t rescale(int64_t value, AVRational from, AVRational to)
{
	return value == AV_NOPTS_VALUE ? value : av_rescale_q_rnd(value, from, to, kRounding);
}

long long ll(int64_t value)
{
	return static_cast<long long>(value);
}

AVRational encoder_time_base(int32_t num, int32_t den)
{
	return {num > 0 ? num : 1, den > 0 ? den : 1};
}

int64_t frame_ticks(const MuxOutput &mux, AVRational tb)
{
	const AVRational frame = {int(mux.fps_den ? mux.fps_den : 1), int(mux.fps_num ? mux.fps_num : 30)};
	const int64_t ticks = av_rescale_q(1, frame, tb);
	return ticks < 1 ? kFallbackFrameTicks : ticks;
}

void fill_missing_times(const MuxOutput &mux, AVPacket *packet)
{
	if (packet->dts == AV_NOPTS_VALUE)
		packet->dts = mux.last_video_dts == AV_NOPTS_VALUE ? 0 : mux.last_video_dts + packet->duration;
	if (packet->pts == AV_NOPTS_VALUE)
		packet->pts = packet->dts;
}

void rebase(const MuxOutput &mux, AVPacket *packet)
{
	if (packet->pts != AV_NOPTS_VALUE && mux.base_pts != AV_NOPTS_VALUE)
		packet->pts -= mux.base_pts;
	if (packet->dts != AV_NOPTS_VALUE && mux.base_dts != AV_NOPTS_VALUE)
		packet->dts -= mux.base_dts;
}

void record_base(MuxOutput &mux, const AVPacket *packet)
{
	if (packet->pts != AV_NOPTS_VALUE)
		mux.base_pts = packet->pts;
	if (packet->dts != AV_NOPTS_VALUE)
		mux.base_dts = packet->dts;
}

// What a video packet's NAL units say, each scanned only when asked for: the queue
// sees every packet, and most need at most one of the scans.
class NalScan {
public:
	explicit NalScan(const AVPacket *packet)
		: annexb(is_annexb(packet->data, size_t(packet->size))),
		  packet_(packet)
	{
	}

	bool aud() { return scanned(aud_, has_aud); }
	bool idr() { return scanned(idr_, has_idr); }

	const bool annexb;

private:
	bool scanned(std::optional<bool> &fact, bool (*scan)(const uint8_t *, size_t))
	{
		if (!fact)
			fact = annexb && scan(packet_->data, size_t(packet_->size));
		return *fact;
	}

	const AVPacket *packet_;
	std::optional<bool> aud_;
	std::optional<bool> idr_;
};

// Packets that the start gate will drop must not advance the last video time, or
// the keyframe that opens the stream after a reconnect is pushed past them.
bool may_pass_gate(const MuxOutput &mux, bool key)
{
	return key || (is_srt_url(mux.url) ? mux.clean_start_armed : mux.keyframe_seen != 0);
}

void log_ready(const char *what, const AVPacket *packet, bool idr)
{
	const bool annexb = is_annexb(packet->data, size_t(packet->size));
	blog(LOG_INFO, "[%s] %s: key=%d pts=%lld dts=%lld dur=%lld annexb=%d idr=%d aud=%d size=%d", kLogTag, what,
	     (packet->flags & AV_PKT_FLAG_KEY) ? 1 : 0, ll(packet->pts), ll(packet->dts), ll(packet->duration),
	     annexb ? 1 : 0, idr ? 1 : 0, has_aud(packet->data, size_t(packet->size)) ? 1 : 0, packet->size);
}

// SRT, Annex B payload from the encoder: make each packet a self-contained access unit.
void direct_annexb_path(MuxOutput &mux, PacketPtr packet)
{
	const bool idr = (packet->flags & AV_PKT_FLAG_KEY) || has_idr(packet->data, size_t(packet->size));
	if (idr) {
		packet->flags |= AV_PKT_FLAG_KEY;
		if (!mux.video_started)
			record_base(mux, packet.get());
	}
	rebase(mux, packet.get());

	const AVCodecParameters *par = mux.video_stream->codecpar;
	if (idr && !mux.video_started && par->extradata && par->extradata_size > 0 && par->extradata[0] == 1) {
		size_t header_size = 0;
		uint8_t *headers = avcc_to_annexb_headers(par->extradata, size_t(par->extradata_size), &header_size);
		if (headers) {
			std::vector<uint8_t> prefix;
			if (!has_aud(packet->data, size_t(packet->size)))
				prefix.assign(std::begin(kAccessUnitDelimiter), std::end(kAccessUnitDelimiter));
			prefix.insert(prefix.end(), headers, headers + header_size);
			av_free(headers);
			if (!prepend_bytes(packet.get(), prefix.data(), prefix.size())) {
				fail_output(mux, "failed to prepend SPS/PPS");
				return;
			}
			blog(LOG_INFO, "[%s] injected SPS/PPS on first direct annexb IDR: spspps_bytes=%d total=%d",
			     kLogTag, int(header_size), packet->size);
		}
	}

	if (may_pass_gate(mux, idr))
		fix_monotonic_ts(packet->pts, packet->dts, mux.last_video_dts);
	if (!has_aud(packet->data, size_t(packet->size)) && !prepend_aud(packet.get())) {
		fail_output(mux, "failed to prepend AUD");
		return;
	}
	log_ready("direct-ready", packet.get(), idr);
	enqueue_packet(mux, packet.get(), true);
}

// SRT, avcC payload: FFmpeg's filter turns it into Annex B with parameter sets.
void filter_path(MuxOutput &mux, PacketPtr source, int64_t frame_duration)
{
	int rc = av_bsf_send_packet(mux.annexb_filter, source.get());
	source.reset();
	if (rc < 0) {
		char text[256] = {};
		av_strerror(rc, text, sizeof(text));
		blog(LOG_ERROR, "[%s] av_bsf_send_packet(video) failed: %s (code=%d)", kLogTag, text, rc);
		fail_output(mux, "video Annex B conversion failed");
		return;
	}

	for (;;) {
		PacketPtr packet(av_packet_alloc());
		if (!packet) {
			fail_output(mux, "av_packet_alloc(video/filt) failed");
			return;
		}
		rc = av_bsf_receive_packet(mux.annexb_filter, packet.get());
		if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
			return;
		if (rc < 0) {
			char text[256] = {};
			av_strerror(rc, text, sizeof(text));
			blog(LOG_ERROR, "[%s] av_bsf_receive_packet(video) failed: %s (code=%d)", kLogTag, text, rc);
			fail_output(mux, "video Annex B receive failed");
			return;
		}

		packet->stream_index = mux.video_stream->index;
		if (packet->duration < 1)
			packet->duration = frame_duration;
		fill_missing_times(mux, packet.get());
		const bool idr = (packet->flags & AV_PKT_FLAG_KEY) || has_idr(packet->data, size_t(packet->size));
		if (idr) {
			packet->flags |= AV_PKT_FLAG_KEY;
			if (!mux.video_started) {
				record_base(mux, packet.get());
				mux.video_started = true;
				mux.audio_allowed = true;
			}
		}
		rebase(mux, packet.get());
		if (!has_aud(packet->data, size_t(packet->size)) && !prepend_aud(packet.get())) {
			fail_output(mux, "failed to prepend AUD");
			return;
		}
		if (may_pass_gate(mux, idr))
			fix_monotonic_ts(packet->pts, packet->dts, mux.last_video_dts);
		log_ready("bsf-ready", packet.get(), idr);
		rc = enqueue_packet(mux, packet.get(), true);
		if (rc != 0 && rc != AVERROR(EAGAIN))
			return;
	}
}

} // namespace

void process_video_packet(MuxOutput &mux, const uint8_t *data, size_t size, int64_t pts, int64_t dts, int32_t tb_num,
			  int32_t tb_den, bool keyframe)
{
	if (!mux.format || !mux.video_stream || !data || !size)
		return;

	const bool is_srt = is_srt_url(mux.url);
	const AVRational tb = mux.video_stream->time_base;
	const AVRational encoder_tb = encoder_time_base(tb_num, tb_den);
	const int64_t frame_duration = frame_ticks(mux, tb);

	PacketPtr packet(av_packet_alloc());
	if (!packet) {
		fail_output(mux, "av_packet_alloc(video/src) failed");
		return;
	}
	if (size > size_t(INT32_MAX) || av_new_packet(packet.get(), int(size)) < 0) {
		fail_output(mux, "av_new_packet(video/src) failed");
		return;
	}
	memcpy(packet->data, data, size);
	packet->stream_index = mux.video_stream->index;
	packet->pts = rescale(pts, encoder_tb, tb);
	packet->dts = rescale(dts, encoder_tb, tb);
	packet->duration = is_srt ? std::max<int64_t>(av_rescale_q(1, encoder_tb, tb), 1) : 0;
	if (packet->duration < 1)
		packet->duration = frame_duration;
	fill_missing_times(mux, packet.get());
	if (keyframe)
		packet->flags |= AV_PKT_FLAG_KEY;

	if (!is_srt || !mux.annexb_filter) {
		// Every opening starts its clock at its first keyframe, as each audio track
		// starts at its own first packet; after a reconnect the encoder's running
		// time would otherwise put the video seconds behind the audio.
		if (!mux.keyframe_seen && keyframe && mux.base_pts == AV_NOPTS_VALUE)
			record_base(mux, packet.get());
		rebase(mux, packet.get());
		if (may_pass_gate(mux, keyframe))
			fix_monotonic_ts(packet->pts, packet->dts, mux.last_video_dts);
		enqueue_packet(mux, packet.get(), true);
		return;
	}
	if (is_annexb(packet->data, size_t(packet->size)))
		direct_annexb_path(mux, std::move(packet));
	else
		filter_path(mux, std::move(packet), frame_duration);
}

void process_audio_packet(MuxOutput &mux, size_t slot, const uint8_t *data, size_t size, int64_t pts, int64_t dts,
			  int32_t tb_num, int32_t tb_den)
{
	if (!mux.format || !data || !size || slot >= kMuxAudioSlots || !mux.audio_allowed)
		return;
	AVStream *stream = mux.audio_streams[slot];
	if (!stream)
		return;

	PacketPtr packet(av_packet_alloc());
	if (!packet) {
		fail_output(mux, "av_packet_alloc(audio) failed");
		return;
	}
	if (size > size_t(INT32_MAX) || av_new_packet(packet.get(), int(size)) < 0) {
		fail_output(mux, "av_new_packet(audio) failed");
		return;
	}
	memcpy(packet->data, data, size);
	packet->stream_index = stream->index;
	const AVRational encoder_tb = encoder_time_base(tb_num, tb_den);
	packet->pts = rescale(pts, encoder_tb, stream->time_base);
	packet->dts = rescale(dts, encoder_tb, stream->time_base);

	if (is_srt_url(mux.url)) {
		const int rate = stream->codecpar->sample_rate > 0 ? stream->codecpar->sample_rate : 48000;
		packet->duration = av_rescale_q(1024, AVRational{1, rate}, stream->time_base);
	} else {
		packet->duration = 0;
	}

	// Each track starts at zero on its own.
	if (mux.first_audio_pts[slot] == AV_NOPTS_VALUE && packet->pts != AV_NOPTS_VALUE)
		mux.first_audio_pts[slot] = packet->pts;
	if (mux.first_audio_dts[slot] == AV_NOPTS_VALUE && packet->dts != AV_NOPTS_VALUE)
		mux.first_audio_dts[slot] = packet->dts;
	if (packet->pts != AV_NOPTS_VALUE && mux.first_audio_pts[slot] != AV_NOPTS_VALUE)
		packet->pts -= mux.first_audio_pts[slot];
	if (packet->dts != AV_NOPTS_VALUE && mux.first_audio_dts[slot] != AV_NOPTS_VALUE)
		packet->dts -= mux.first_audio_dts[slot];

	fix_monotonic_ts(packet->pts, packet->dts, mux.last_audio_dts[slot]);
	enqueue_packet(mux, packet.get(), false);
}

int enqueue_packet(MuxOutput &mux, AVPacket *packet, bool is_video)
{
	const bool is_srt = is_srt_url(mux.url);
	if (is_srt && !is_video && !mux.clean_start_armed)
		return AVERROR(EAGAIN);

	bool armed_now = false;
	bool key = false;
	if (is_video) {
		NalScan scan(packet);
		const bool annexb = scan.annexb;
		key = (packet->flags & AV_PKT_FLAG_KEY) || scan.idr();

		if (is_srt && !mux.clean_start_armed) {
			if (!(annexb && scan.aud() && scan.idr() && key)) {
				blog(LOG_WARNING,
				     "[%s] dropping pre-start SRT video packet: size=%d pts=%lld dts=%lld annexb=%d aud=%d "
				     "idr=%d key=%d",
				     kLogTag, packet->size, ll(packet->pts), ll(packet->dts), annexb ? 1 : 0,
				     scan.aud() ? 1 : 0, scan.idr() ? 1 : 0, key ? 1 : 0);
				return AVERROR(EAGAIN);
			}
			mux.srt_clean_start_pending = false;
			mux.clean_start_armed = true;
			armed_now = true;
			blog(LOG_INFO, "[%s] SRT clean start armed on keyframe: size=%d pts=%lld dts=%lld", kLogTag,
			     packet->size, ll(packet->pts), ll(packet->dts));
		} else if (!key && !mux.keyframe_seen) {
			blog(LOG_WARNING, "[%s] dropping pre-keyframe video packet: size=%d pts=%lld dts=%lld", kLogTag,
			     packet->size, ll(packet->pts), ll(packet->dts));
			return AVERROR(EAGAIN);
		}

		if ((armed_now || key) && !mux.keyframe_seen) {
			mux.keyframe_seen = 1;
			mux.video_started = true;
			mux.audio_allowed = true;
			// The base comes from the packet's own time when the path before did not
			// set one; a base already taken from the encoder's time stays, so the
			// rest of the opening keeps being rebased by it.
			if (mux.base_pts == AV_NOPTS_VALUE)
				mux.base_pts = packet->pts;
			if (mux.base_dts == AV_NOPTS_VALUE)
				mux.base_dts = packet->dts;
			const std::string nal_types =
				annexb ? nal_types_string(packet->data, size_t(packet->size), kNalTypesLimit) : "[]";
			blog(LOG_INFO,
			     "[%s] first TS keyframe written: size=%d pts=%lld dts=%lld aud=%d idr=%d key=%d nal_types=%s",
			     kLogTag, packet->size, ll(packet->pts), ll(packet->dts), scan.aud() ? 1 : 0,
			     scan.idr() ? 1 : 0, (packet->flags & AV_PKT_FLAG_KEY) ? 1 : 0, nal_types.c_str());
		}
	}

	// The queue takes the packet's payload over: from here on only the write
	// thread touches it.
	AVPacket *clone = av_packet_alloc();
	if (clone)
		av_packet_move_ref(clone, packet);
	if (!clone) {
		blog(LOG_ERROR, "[%s] av_packet_clone failed — dropping %s packet pts=%lld", kLogTag,
		     is_video ? "video" : "audio", ll(packet->pts));
		return AVERROR(ENOMEM);
	}

	{
		std::lock_guard queue_lock(mux.queue_mutex);
		if (mux.running) {
			mux.queue.push_back(clone);
			mux.queue_cv.notify_one();
			return 0;
		}
	}
	av_packet_free(&clone);
	return AVERROR(EAGAIN);
}

} // namespace cv
