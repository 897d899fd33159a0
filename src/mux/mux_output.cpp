// The output type's registration and lifecycle: create, update, start, stop, destroy.

#include "mux_output.h"

#include "stream_url.h"

#include "core/plugin_log.h"

#include <util/bmem.h>

namespace cv {

namespace {

constexpr uint32_t kCaptureFlags = OBS_OUTPUT_VIDEO | OBS_OUTPUT_AUDIO;

void read_strings(MuxOutput &mux, obs_data_t *settings, bool clear_missing)
{
	const char *server = obs_data_get_string(settings, "server");
	const char *key = obs_data_get_string(settings, "key");
	if (server || clear_missing)
		mux.server = trim_blanks(server ? server : "");
	if (key || clear_missing)
		mux.key = trim_blanks(key ? key : "");
}

void read_rate(MuxOutput &mux, obs_data_t *settings)
{
	const long long num = obs_data_get_int(settings, "fps_num");
	const long long den = obs_data_get_int(settings, "fps_den");
	if (num > 0 && num <= UINT32_MAX)
		mux.fps_num = uint32_t(num);
	if (den >= 1 && den <= UINT32_MAX)
		mux.fps_den = uint32_t(den);
}

void clear_reconnect(MuxOutput &mux)
{
	mux.reconnecting = false;
	mux.next_retry_ns = 0;
	mux.retry_count = 0;
}

const char *cv_mux_get_name(void *)
{
	return "Vertical RTMP Mux (multitrack v2)";
}

void *cv_mux_create(obs_data_t *settings, obs_output_t *output)
{
	auto *mux = new MuxOutput;
	mux->output = output;
	read_strings(*mux, settings, false);
	read_rate(*mux, settings);
	rebuild_url(*mux);
	return mux;
}

void cv_mux_update(void *data, obs_data_t *settings)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return;
	std::lock_guard lock(mux->lock);
	read_strings(*mux, settings, true);
	read_rate(*mux, settings);
	rebuild_url(*mux);
}

void cv_mux_destroy(void *data)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return;
	{
		std::unique_lock lock(mux->lock);
		mux->abort_io = true;
		close_muxer(*mux, lock);
		release_pending(*mux);
	}
	delete mux;
}

bool cv_mux_start(void *data)
{
	blog(LOG_INFO, "[%s] cv_mux_start called", kLogTag);
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return false;

	std::unique_lock lock(mux->lock);
	clear_reconnect(*mux);
	if (mux->url.empty()) {
		obs_output_set_last_error(mux->output, "Missing RTMP server/key");
		return false;
	}

	// A muxer left over from an earlier run is finished first. The output is not
	// active meanwhile, so packets arriving while the lock is released for the
	// writer's join are ignored.
	mux->active = false;
	close_muxer(*mux, lock);
	mux->abort_io = false;
	release_pending(*mux);
	reset_stream_state(*mux);
	mux->active = true;
	mux->fatal = false;
	mux->srt_clean_start_pending = false;
	// Not held into the host: its audio thread holds its own lock while it hands
	// packets to this output, and starting the capture takes that lock.
	lock.unlock();

	const char *error = nullptr;
	if (!obs_output_can_begin_data_capture(mux->output, kCaptureFlags))
		error = "obs_output_can_begin_data_capture failed";
	else if (!obs_output_initialize_encoders(mux->output, kCaptureFlags))
		error = "obs_output_initialize_encoders failed";
	if (error) {
		obs_output_set_last_error(mux->output, error);
		lock.lock();
		mux->active = false;
		return false;
	}
	obs_output_begin_data_capture(mux->output, kCaptureFlags);
	return true;
}

void cv_mux_stop(void *data, uint64_t)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return;

	std::unique_lock lock(mux->lock, std::try_to_lock);
	if (!lock.owns_lock()) {
		// The encoder thread holds the lock, most likely while it connects: cut
		// that short instead of waiting for the server to answer.
		mux->abort_io = true;
		lock.lock();
	}
	clear_reconnect(*mux);
	const bool was_active = mux->active;
	mux->active = false;
	lock.unlock();

	if (!was_active)
		return;
	// Outside the lock: the host may call back into the output from here.
	obs_output_end_data_capture(mux->output);
	lock.lock();
	close_muxer(*mux, lock);
}

void cv_mux_defaults(obs_data_t *settings)
{
	obs_data_set_default_string(settings, "server", "");
	obs_data_set_default_string(settings, "key", "");
}

obs_properties_t *cv_mux_properties(void *)
{
	obs_properties_t *props = obs_properties_create();
	obs_properties_add_text(props, "server", "RTMP Server", OBS_TEXT_DEFAULT);
	obs_properties_add_text(props, "key", "Stream Key", OBS_TEXT_PASSWORD);
	return props;
}

} // namespace

MuxOutput::MuxOutput()
{
	reset_stream_state(*this);
}

void PendingPacket::hold(const encoder_packet &packet)
{
	release();
	data = static_cast<uint8_t *>(bmemdup(packet.data, packet.size));
	size = packet.size;
	pts = packet.pts;
	dts = packet.dts;
	timebase_num = packet.timebase_num;
	timebase_den = packet.timebase_den;
	keyframe = packet.keyframe;
	held = true;
}

void PendingPacket::release()
{
	bfree(data);
	data = nullptr;
	size = 0;
	held = false;
}

void rebuild_url(MuxOutput &mux)
{
	const StreamUrl built = build_stream_url(mux.server, mux.key);
	mux.url = built.url;
	mux.tc_url = built.tc_url;
}

void reset_stream_state(MuxOutput &mux)
{
	mux.last_video_dts = AV_NOPTS_VALUE;
	mux.last_video_pts = AV_NOPTS_VALUE;
	mux.base_pts = AV_NOPTS_VALUE;
	mux.base_dts = AV_NOPTS_VALUE;
	mux.last_audio_dts.fill(AV_NOPTS_VALUE);
	mux.first_audio_pts.fill(AV_NOPTS_VALUE);
	mux.first_audio_dts.fill(AV_NOPTS_VALUE);
	mux.audio_streams.fill(nullptr);
	mux.first_audio_stream = nullptr;
	mux.audio_stream_count = 0;
	mux.keyframe_seen = 0;
	mux.video_started = false;
	mux.audio_allowed = false;
}

void release_pending(MuxOutput &mux)
{
	mux.pending_video.release();
	for (PendingPacket &pending : mux.pending_audio)
		pending.release();
}

void fail_output(MuxOutput &mux, const char *error)
{
	obs_output_set_last_error(mux.output, error);
	obs_output_signal_stop(mux.output, OBS_OUTPUT_ERROR);
}

obs_output_info mux_output_info()
{
	obs_output_info info = {};
	info.id = kMuxOutputId;
	info.flags = OBS_OUTPUT_VIDEO | OBS_OUTPUT_AUDIO | OBS_OUTPUT_ENCODED | OBS_OUTPUT_MULTI_TRACK;
	info.get_name = cv_mux_get_name;
	info.create = cv_mux_create;
	info.destroy = cv_mux_destroy;
	info.start = cv_mux_start;
	info.stop = cv_mux_stop;
	info.encoded_packet = cv_mux_encoded_packet;
	info.update = cv_mux_update;
	info.get_defaults = cv_mux_defaults;
	info.get_properties = cv_mux_properties;
	return info;
}

void register_mux_output()
{
	const obs_output_info info = mux_output_info();
	obs_register_output(&info);
}

} // namespace cv
