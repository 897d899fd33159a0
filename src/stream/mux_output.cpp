// The output type's registration and its callbacks: create, update, start, stop,
// destroy, the encoded packets and the figures the host shows.

#include "mux_output.h"

#include "annexb.h"
#include "stream_url.h"

#include "base/log.h"

#include <obs.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

namespace cv {

namespace {

constexpr uint32_t kCaptureFlags = OBS_OUTPUT_VIDEO | OBS_OUTPUT_AUDIO;
// The queue holds at most this much of the stream, at its configured bitrates.
constexpr int64_t kQueueCapSeconds = 4;
constexpr size_t kQueueCapFloorBytes = size_t(2) << 20;
constexpr int64_t kDefaultAudioKbps = 160;

struct MuxOutput {
	obs_output_t *output = nullptr;

	// Settings, from create and update; read at start.
	std::mutex settings_mutex;
	std::string server;
	std::string key;
	uint32_t fps_num = 30;
	uint32_t fps_den = 1;

	// The newest stream. The packet callback only copies the pointer under this lock,
	// which nothing holds for longer than that.
	std::mutex session_mutex;
	std::shared_ptr<StreamSession> session;

	// Why the newest start or stream failed, set before the host hears of it.
	std::mutex failure_mutex;
	Error failure;

	void set_failure(Error error)
	{
		std::lock_guard lock(failure_mutex);
		failure = std::move(error);
	}

	// The encoders' headers are looked for at start and then with each packet until the
	// stream has them; one lookup at a time.
	std::mutex layout_mutex;
	AVRational fps = {30, 1};

	std::shared_ptr<StreamSession> current()
	{
		std::lock_guard lock(session_mutex);
		return session;
	}
};

void read_settings(MuxOutput &mux, obs_data_t *settings, bool clear_missing)
{
	std::lock_guard lock(mux.settings_mutex);
	const char *server = obs_data_get_string(settings, "server");
	const char *key = obs_data_get_string(settings, "key");
	if (server || clear_missing)
		mux.server = trim_blanks(server ? server : "");
	if (key || clear_missing)
		mux.key = trim_blanks(key ? key : "");
	const long long num = obs_data_get_int(settings, "fps_num");
	const long long den = obs_data_get_int(settings, "fps_den");
	if (num > 0 && num <= INT32_MAX)
		mux.fps_num = uint32_t(num);
	if (den >= 1 && den <= INT32_MAX)
		mux.fps_den = uint32_t(den);
}

std::vector<uint8_t> encoder_header(obs_encoder_t *encoder)
{
	uint8_t *data = nullptr;
	size_t size = 0;
	if (!encoder || !obs_encoder_get_extra_data(encoder, &data, &size) || !data || !size)
		return {};
	return std::vector<uint8_t>(data, data + size);
}

int64_t encoder_kbps(obs_encoder_t *encoder, int64_t fallback)
{
	OBSDataAutoRelease settings = obs_encoder_get_settings(encoder);
	const long long kbps = settings ? obs_data_get_int(settings, "bitrate") : 0;
	return kbps > 0 ? kbps : fallback;
}

QueueLimits queue_limits(obs_output_t *output)
{
	int64_t kbps = encoder_kbps(obs_output_get_video_encoder(output), 6000);
	for (size_t slot = 0; slot < kAudioSlots; slot++)
		if (obs_encoder_t *audio = obs_output_get_audio_encoder(output, slot))
			kbps += encoder_kbps(audio, kDefaultAudioKbps);
	QueueLimits limits;
	limits.max_bytes = std::max(kQueueCapFloorBytes, size_t(kbps * 1000 / 8 * kQueueCapSeconds));
	return limits;
}

// Hands the session the encoders' headers once the video one and at least one audio
// one exist; audio tracks still without theirs then are left out of the stream.
void send_layout_when_ready(MuxOutput &mux, StreamSession &session)
{
	std::lock_guard lock(mux.layout_mutex);
	if (!session.needs_layout())
		return;
	obs_encoder_t *video = obs_output_get_video_encoder(mux.output);
	StreamLayout layout;
	layout.video_header = encoder_header(video);
	layout.width = video ? obs_encoder_get_width(video) : 0;
	layout.height = video ? obs_encoder_get_height(video) : 0;
	if (layout.video_header.empty() || !layout.width || !layout.height)
		return;
	bool any_audio = false;
	for (size_t slot = 0; slot < kAudioSlots; slot++) {
		layout.audio_headers[slot] = encoder_header(obs_output_get_audio_encoder(mux.output, slot));
		any_audio = any_audio || !layout.audio_headers[slot].empty();
	}
	if (!any_audio)
		return;
	for (size_t slot = 0; slot < kAudioSlots; slot++)
		if (obs_output_get_audio_encoder(mux.output, slot) && layout.audio_headers[slot].empty())
			log_warning("track %zu extradata not ready, skipping", slot);

	obs_audio_info audio_info = {};
	layout.sample_rate = obs_get_audio_info(&audio_info) ? int(audio_info.samples_per_sec) : 48000;
	layout.fps = mux.fps;
	session.set_layout(layout);
}

bool to_queued_packet(const encoder_packet &packet, QueuedPacket *out)
{
	if (!packet.data || !packet.size || packet.size > size_t(INT32_MAX))
		return false;
	PacketPtr copy(av_packet_alloc());
	if (!copy || av_new_packet(copy.get(), int(packet.size)) < 0)
		return false;
	memcpy(copy->data, packet.data, packet.size);
	copy->pts = packet.pts;
	copy->dts = packet.dts;
	copy->time_base = {packet.timebase_num > 0 ? packet.timebase_num : 1,
			   packet.timebase_den > 0 ? packet.timebase_den : 1};

	PacketInfo &info = out->info;
	info.video = packet.type == OBS_ENCODER_VIDEO;
	info.keyframe = info.video && packet.keyframe;
	info.disposable = info.video && !info.keyframe && is_disposable(packet.data, packet.size);
	info.track = packet.track_idx;
	info.dts_usec = av_rescale_q(packet.dts, copy->time_base, AVRational{1, 1000000});
	info.bytes = packet.size;
	out->packet = std::move(copy);
	return true;
}

SessionEvents session_events(MuxOutput *mux)
{
	obs_output_t *output = mux->output;
	SessionEvents events;
	events.connected = [output] {
		obs_output_set_last_error(output, nullptr);
	};
	events.reconnecting = [output] {
		obs_output_set_last_error(output, kReconnectingError);
	};
	events.failed = [mux, output](Failure failure, const Error &error) {
		mux->set_failure(error);
		obs_output_set_last_error(output, english(error).c_str());
		// Ends the capture too: the host reports exactly one stop, carrying this code.
		obs_output_signal_stop(output,
				       failure == Failure::Encoder ? OBS_OUTPUT_ENCODE_ERROR : OBS_OUTPUT_ERROR);
	};
	return events;
}

const char *cv_mux_get_name(void *)
{
	return "Vertical RTMP Mux (multitrack v2)";
}

void *cv_mux_create(obs_data_t *settings, obs_output_t *output)
{
	auto *mux = new MuxOutput;
	mux->output = output;
	read_settings(*mux, settings, false);
	return mux;
}

void cv_mux_update(void *data, obs_data_t *settings)
{
	if (data)
		read_settings(*static_cast<MuxOutput *>(data), settings, true);
}

void cv_mux_destroy(void *data)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return;
	if (std::shared_ptr<StreamSession> session = mux->current()) {
		session->detach();
		session->stop();
	}
	delete mux;
}

bool cv_mux_start(void *data)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return false;

	Destination destination;
	{
		std::lock_guard lock(mux->settings_mutex);
		const StreamUrl built = build_stream_url(mux->server, mux->key);
		destination = {built.url, built.tc_url, mask_url_for_log(built.url, mux->key), is_srt_url(built.url),
			       stream_key_problem(mux->server, mux->key)};
		if (srt_key_ignored(mux->server, mux->key))
			log_warning("The stream key is not used: the SRT address has a stream id of its own");
		std::lock_guard layout_lock(mux->layout_mutex);
		mux->fps = {int(mux->fps_num), int(mux->fps_den)};
	}
	mux->set_failure({});
	if (destination.url.empty()) {
		mux->set_failure(ErrorCode::UrlEmpty);
		obs_output_set_last_error(mux->output, "Missing RTMP server/key");
		return false;
	}
	if (std::shared_ptr<StreamSession> earlier = mux->current())
		earlier->stop();

	// The connection is made while the encoders start.
	std::shared_ptr<StreamSession> session =
		StreamSession::launch(destination, queue_limits(mux->output), session_events(mux));
	const char *error = nullptr;
	if (!obs_output_can_begin_data_capture(mux->output, kCaptureFlags))
		error = "obs_output_can_begin_data_capture failed";
	else if (!obs_output_initialize_encoders(mux->output, kCaptureFlags))
		error = "obs_output_initialize_encoders failed";
	if (error) {
		session->detach();
		session->stop();
		mux->set_failure(ErrorCode::NoEncoder);
		obs_output_set_last_error(mux->output, error);
		return false;
	}

	send_layout_when_ready(*mux, *session);
	{
		std::lock_guard lock(mux->session_mutex);
		mux->session = session;
	}
	obs_output_begin_data_capture(mux->output, kCaptureFlags);
	session->begin_events();
	return true;
}

void cv_mux_stop(void *data, uint64_t)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return;
	const std::shared_ptr<StreamSession> session = mux->current();
	// A stream that failed has ended the capture already, with its own stop code.
	const bool failed = session && session->stop();
	if (!failed)
		obs_output_end_data_capture(mux->output);
}

void cv_mux_encoded_packet(void *data, encoder_packet *packet)
{
	auto *mux = static_cast<MuxOutput *>(data);
	if (!mux)
		return;
	const std::shared_ptr<StreamSession> session = mux->current();
	if (!session)
		return;
	if (!packet) {
		session->encoder_failed();
		return;
	}
	if (session->needs_layout())
		send_layout_when_ready(*mux, *session);
	QueuedPacket queued;
	if (to_queued_packet(*packet, &queued))
		session->push(std::move(queued));
}

uint64_t cv_mux_total_bytes(void *data)
{
	return mux_data_stats(data).bytes_sent;
}

int cv_mux_dropped_frames(void *data)
{
	return int(std::min<uint64_t>(mux_data_stats(data).dropped.video_frames, INT32_MAX));
}

float cv_mux_congestion(void *data)
{
	return mux_data_stats(data).congestion;
}

int cv_mux_connect_time_ms(void *data)
{
	return mux_data_stats(data).connect_time_ms;
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
	info.get_total_bytes = cv_mux_total_bytes;
	info.get_dropped_frames = cv_mux_dropped_frames;
	info.get_congestion = cv_mux_congestion;
	info.get_connect_time_ms = cv_mux_connect_time_ms;
	return info;
}

void register_mux_output()
{
	const obs_output_info info = mux_output_info();
	obs_register_output(&info);
}

SessionStats mux_data_stats(void *data)
{
	auto *mux = static_cast<MuxOutput *>(data);
	const std::shared_ptr<StreamSession> session = mux ? mux->current() : nullptr;
	return session ? session->stats() : SessionStats{};
}

SessionStats mux_output_stats(obs_output_t *output)
{
	if (!output || strcmp(obs_output_get_id(output), kMuxOutputId) != 0)
		return {};
	return mux_data_stats(obs_obj_get_data(output));
}

Error mux_output_failure(obs_output_t *output)
{
	if (!output || strcmp(obs_output_get_id(output), kMuxOutputId) != 0)
		return {};
	auto *mux = static_cast<MuxOutput *>(obs_obj_get_data(output));
	if (!mux)
		return {};
	std::lock_guard lock(mux->failure_mutex);
	return mux->failure;
}

bool wait_for_mux_streams(std::chrono::milliseconds timeout)
{
	return StreamSession::wait_for_all(timeout);
}

} // namespace cv
