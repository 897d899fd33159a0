// The host's packet callback (lazy opening, held first packets, reconnect attempts)
// and the write thread that alone talks to the network.

#include "mux_output.h"

#include "write_errors.h"

#include "core/plugin_log.h"

#include <util/platform.h>

#include <algorithm>

namespace cv {

namespace {

constexpr uint64_t kRetryStepNs = 1000000000ULL;
constexpr uint32_t kMaxBackoffSteps = 5;

void replay_held(MuxOutput &mux)
{
	PendingPacket &video = mux.pending_video;
	if (video.held)
		process_video_packet(mux, video.data, video.size, video.pts, video.dts, video.timebase_num,
				     video.timebase_den, video.keyframe);
	video.release();
	for (size_t slot = 0; slot < kMuxAudioSlots; slot++) {
		PendingPacket &audio = mux.pending_audio[slot];
		if (audio.held && mux.audio_allowed)
			process_audio_packet(mux, slot, audio.data, audio.size, audio.pts, audio.dts,
					     audio.timebase_num, audio.timebase_den);
		audio.release();
	}
}

void hold(MuxOutput &mux, const encoder_packet &packet)
{
	if (packet.type == OBS_ENCODER_VIDEO) {
		if (packet.keyframe && !mux.pending_video.held)
			mux.pending_video.hold(packet);
	} else if (packet.track_idx < kMuxAudioSlots && !mux.pending_audio[packet.track_idx].held) {
		mux.pending_audio[packet.track_idx].hold(packet);
	}
}

void route(MuxOutput &mux, const encoder_packet &packet)
{
	if (packet.type == OBS_ENCODER_VIDEO)
		process_video_packet(mux, packet.data, packet.size, packet.pts, packet.dts, packet.timebase_num,
				     packet.timebase_den, packet.keyframe);
	else if (packet.track_idx < kMuxAudioSlots)
		process_audio_packet(mux, packet.track_idx, packet.data, packet.size, packet.pts, packet.dts,
				     packet.timebase_num, packet.timebase_den);
}

void try_reconnect(MuxOutput &mux, const encoder_packet &packet)
{
	const uint64_t now = os_gettime_ns();
	if (now < mux.next_retry_ns || packet.type != OBS_ENCODER_VIDEO || !packet.keyframe)
		return;

	blog(LOG_INFO, "[%s] attempting reconnect on keyframe", kLogTag);
	const int32_t result = open_muxer(mux);
	if (result == kOpened) {
		mux.reconnecting = false;
		mux.retry_count = 0;
		release_pending(mux);
		blog(LOG_INFO, "[%s] reconnect succeeded", kLogTag);
		// The keyframe that got us here is not written; the next one starts the
		// new stream through the start gate.
	} else if (result == kNotReady) {
		mux.next_retry_ns = now + kRetryStepNs;
	} else {
		const uint64_t steps = std::min(mux.retry_count + 1, kMaxBackoffSteps);
		mux.next_retry_ns = now + steps * kRetryStepNs;
		mux.retry_count++;
		blog(LOG_WARNING, "[%s] reconnect failed, will retry", kLogTag);
	}
}

// On the write thread, after a write found the connection gone. Tears the muxer
// down like a stop would, except that the thread cannot join itself: whoever opens
// the next muxer, or closes this one, joins it once it has returned.
void enter_reconnect_mode(MuxOutput &mux, uint64_t generation, int code)
{
	std::lock_guard lock(mux.lock);
	{
		std::lock_guard queue_lock(mux.queue_mutex);
		// A close or a newer opening has taken over; nothing left to do here.
		if (!mux.running || mux.generation != generation)
			return;
		mux.running = false;
		for (AVPacket *packet : mux.queue)
			av_packet_free(&packet);
		mux.queue.clear();
	}

	// Set before the line is logged: whoever reads the line finds the text in place.
	obs_output_set_last_error(mux.output, "RTMP/SRT disconnected, reconnecting...");
	char text[256] = {};
	av_strerror(code, text, sizeof(text));
	const char *reason = code == AVERROR(EIO) ? "write thread EIO" : "write thread lost the connection";
	blog(LOG_WARNING, "[%s] entering reconnect mode: %s (%s, code=%d)", kLogTag, reason, text, code);

	// The peer is gone: don't let the trailer wait for it.
	mux.abort_io = true;
	free_muxer(mux);

	release_pending(mux);
	mux.reconnecting = true;
	mux.retry_count++;
	mux.next_retry_ns = os_gettime_ns() + std::min(mux.retry_count, kMaxBackoffSteps) * kRetryStepNs;
}

} // namespace

void cv_mux_encoded_packet(void *data, encoder_packet *packet)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return;
	if (!packet) {
		obs_output_signal_stop(mux->output, OBS_OUTPUT_ENCODE_ERROR);
		return;
	}

	std::unique_lock lock(mux->lock);
	if (!mux->active)
		return;

	if (mux->reconnecting) {
		try_reconnect(*mux, *packet);
		return;
	}

	// Stopping with an error code ends the data capture too; one call, so the host
	// reports exactly one stop, carrying that code.
	if (mux->fatal) {
		mux->active = false;
		lock.unlock();
		obs_output_signal_stop(mux->output, OBS_OUTPUT_ERROR);
		return;
	}

	if (!mux->format) {
		const int32_t result = open_muxer(*mux);
		if (result == kNotReady) {
			hold(*mux, *packet);
			return;
		}
		if (result != kOpened) {
			// A stop that interrupted the connect is no failure.
			if (mux->abort_io)
				return;
			blog(LOG_ERROR, "[%s] open_muxer fatal — stopping output", kLogTag);
			mux->active = false;
			mux->fatal = true;
			release_pending(*mux);
			lock.unlock();
			obs_output_signal_stop(mux->output, OBS_OUTPUT_ERROR);
			return;
		}
		replay_held(*mux);
	}
	route(*mux, *packet);
}

void write_thread_loop(MuxOutput *mux, uint64_t generation)
{
	std::unique_lock queue_lock(mux->queue_mutex);
	for (;;) {
		mux->queue_cv.wait(queue_lock, [mux] { return !mux->queue.empty() || !mux->running; });
		if (mux->queue.empty())
			break;
		AVPacket *packet = mux->queue.front();
		mux->queue.pop_front();
		queue_lock.unlock();
		if (!packet)
			break;

		const int rc = av_interleaved_write_frame(mux->format, packet);
		av_packet_free(&packet);
		if (is_connection_lost(rc)) {
			enter_reconnect_mode(*mux, generation, rc);
			mux->writer_finished = true;
			return;
		}
		queue_lock.lock();
	}
	mux->writer_finished = true;
}

} // namespace cv
