// Opening and closing the FFmpeg muxer: FLV over RTMP, MPEG-TS over SRT.

#include "mux_output.h"

#include "annexb.h"
#include "flv_capabilities.h"
#include "stream_url.h"

#include "core/plugin_log.h"

#include <chrono>
#include <string>

namespace cv {

namespace {

constexpr int kExtradataPadding = 64;
constexpr auto kWriterGrace = std::chrono::seconds(3);

struct ExtraData {
	uint8_t *data = nullptr;
	size_t size = 0;
};

bool encoder_extra_data(obs_encoder_t *encoder, ExtraData *out)
{
	uint8_t *data = nullptr;
	size_t size = 0;
	if (!obs_encoder_get_extra_data(encoder, &data, &size) || !data || !size)
		return false;
	*out = {data, size};
	return true;
}

bool copy_extradata(AVCodecParameters *par, const ExtraData &extra)
{
	par->extradata = static_cast<uint8_t *>(av_mallocz(extra.size + kExtradataPadding));
	if (!par->extradata)
		return false;
	memcpy(par->extradata, extra.data, extra.size);
	par->extradata_size = int(extra.size);
	return true;
}

std::string error_text(int code)
{
	char text[256] = {};
	av_strerror(code, text, sizeof(text));
	return text;
}

int interrupt_io(void *opaque)
{
	return static_cast<MuxOutput *>(opaque)->abort_io.load() ? 1 : 0;
}

// Everything an opening builds, freed together on every failure path.
struct Opening {
	AVFormatContext *format = nullptr;
	AVBSFContext *filter = nullptr;
	AVDictionary *options = nullptr;

	~Opening()
	{
		av_dict_free(&options);
		av_bsf_free(&filter);
		if (format) {
			if (format->pb && !(format->oformat->flags & AVFMT_NOFILE))
				avio_closep(&format->pb);
			avformat_free_context(format);
		}
	}
};

int32_t fatal(MuxOutput &mux, const char *error)
{
	obs_output_set_last_error(mux.output, error);
	return kOpenFatal;
}

} // namespace

int32_t open_muxer(MuxOutput &mux)
{
	if (mux.url.empty())
		return fatal(mux, "Missing RTMP server/key");
	if (const std::string problem = stream_url_problem(mux.url); !problem.empty()) {
		blog(LOG_ERROR, "[%s] unusable stream address (%s): %s", kLogTag, problem.c_str(),
		     mask_url_for_log(mux.url, mux.key).c_str());
		return fatal(mux, "Stream rejected — check server URL and stream key");
	}

	const bool is_srt = is_srt_url(mux.url);
	const char *format_name = is_srt ? "mpegts" : "flv";

	obs_encoder_t *video_encoder = obs_output_get_video_encoder(mux.output);
	if (!video_encoder)
		return fatal(mux, "No video encoder attached");
	ExtraData video_extra;
	if (!encoder_extra_data(video_encoder, &video_extra))
		return kNotReady;

	std::array<ExtraData, kMuxAudioSlots> audio_extra{};
	std::array<bool, kMuxAudioSlots> ready{};
	size_t ready_count = 0;
	for (size_t slot = 0; slot < kMuxAudioSlots; slot++) {
		obs_encoder_t *encoder = obs_output_get_audio_encoder(mux.output, slot);
		if (!encoder)
			continue;
		if (!encoder_extra_data(encoder, &audio_extra[slot])) {
			blog(LOG_WARNING, "[%s] track %zu extradata not ready, skipping", kLogTag, slot);
			continue;
		}
		ready[slot] = true;
		ready_count++;
	}
	if (!ready_count)
		return kNotReady;

	// FLV in older FFmpeg carries a single audio stream; keep the first ready track.
	if (!is_srt && ready_count > 1 && !flv_supports_multiple_audio()) {
		std::string left_out;
		bool kept = false;
		for (size_t slot = 0; slot < kMuxAudioSlots; slot++) {
			if (!ready[slot])
				continue;
			if (!kept) {
				kept = true;
				continue;
			}
			ready[slot] = false;
			left_out += (left_out.empty() ? "" : ",") + std::to_string(slot);
		}
		ready_count = 1;
		static std::once_flag warned;
		std::call_once(warned, [&] {
			blog(LOG_WARNING,
			     "[%s] This FFmpeg writes one audio track into FLV; left out audio track(s) %s of the RTMP "
			     "stream",
			     kLogTag, left_out.c_str());
		});
	}

	video_t *video = obs_output_video(mux.output);
	if (!video)
		return fatal(mux, "No video output attached");
	const uint32_t width = video_output_get_width(video);
	const uint32_t height = video_output_get_height(video);
	if (!width || !height)
		return fatal(mux, "Invalid video dimensions");

	obs_audio_info audio_info = {};
	const int sample_rate = obs_get_audio_info(&audio_info) ? int(audio_info.samples_per_sec) : 48000;
	const AVRational fps = {int(mux.fps_num ? mux.fps_num : 30), int(mux.fps_den ? mux.fps_den : 1)};
	const AVRational time_base = is_srt ? AVRational{1, 90000} : AVRational{1, 1000};

	Opening opening;
	if (avformat_alloc_output_context2(&opening.format, nullptr, format_name, mux.url.c_str()) < 0 ||
	    !opening.format)
		return fatal(mux, "avformat_alloc_output_context2 failed");
	AVFormatContext *format = opening.format;
	format->flags |= AVFMT_FLAG_FLUSH_PACKETS;
	format->max_interleave_delta = 0;
	format->max_delay = 0;
	format->interrupt_callback = {interrupt_io, &mux};

	AVStream *video_stream = avformat_new_stream(format, nullptr);
	if (!video_stream)
		return fatal(mux, "avformat_new_stream(video) failed");
	video_stream->time_base = time_base;
	video_stream->avg_frame_rate = fps;
	video_stream->r_frame_rate = fps;
	AVCodecParameters *vpar = video_stream->codecpar;
	vpar->codec_type = AVMEDIA_TYPE_VIDEO;
	vpar->codec_id = AV_CODEC_ID_H264;
	vpar->width = int(width);
	vpar->height = int(height);
	vpar->format = AV_PIX_FMT_YUV420P;
	if (!copy_extradata(vpar, video_extra))
		return fatal(mux, "av_mallocz(video extradata) failed");

	std::array<AVStream *, kMuxAudioSlots> audio_streams{};
	AVStream *first_audio = nullptr;
	for (size_t slot = 0; slot < kMuxAudioSlots; slot++) {
		if (!ready[slot])
			continue;
		AVStream *stream = avformat_new_stream(format, nullptr);
		if (!stream)
			return fatal(mux, "avformat_new_stream(audio) failed");
		stream->time_base = time_base;
		AVCodecParameters *apar = stream->codecpar;
		apar->codec_type = AVMEDIA_TYPE_AUDIO;
		apar->codec_id = AV_CODEC_ID_AAC;
		apar->sample_rate = sample_rate;
		apar->bit_rate = 160000;
		apar->frame_size = 1024;
		av_channel_layout_default(&apar->ch_layout, 2);
		if (!copy_extradata(apar, audio_extra[slot]))
			return fatal(mux, "av_mallocz(audio extradata) failed");
		audio_streams[slot] = stream;
		if (!first_audio)
			first_audio = stream;
	}

	if (is_srt) {
		const AVBitStreamFilter *filter = av_bsf_get_by_name("h264_mp4toannexb");
		if (!filter)
			return fatal(mux, "h264_mp4toannexb filter not available");
		if (av_bsf_alloc(filter, &opening.filter) < 0 || !opening.filter)
			return fatal(mux, "av_bsf_alloc(h264_mp4toannexb) failed");
		if (avcodec_parameters_copy(opening.filter->par_in, vpar) < 0)
			return fatal(mux, "avcodec_parameters_copy(bsf) failed");
		opening.filter->time_base_in = video_stream->time_base;
		if (av_bsf_init(opening.filter) < 0)
			return fatal(mux, "av_bsf_init(h264_mp4toannexb) failed");
	}

	AVDictionary **options = &opening.options;
	if (is_srt) {
		av_dict_set(options, "flush_packets", "1", 0);
		av_dict_set(options, "mpegts_flags", "+resend_headers", 0);
	} else {
		av_dict_set(options, "rtmp_live", "live", 0);
		av_dict_set(options, "flvflags", "no_duration_filesize", 0);
		av_dict_set(options, "rtmp_flashver", "FMLE/3.0 (compatible; FMSc/1.0)", 0);
		av_dict_set(options, "rtmp_tcurl", mux.tc_url.c_str(), 0);
		av_dict_set(options, "rtmp_swfurl", mux.tc_url.c_str(), 0);
		av_dict_set(options, "rtmp_pageurl", "", 0);
	}

	if (!(format->oformat->flags & AVFMT_NOFILE)) {
		// The interrupt callback lets a stop cut short a connect that would wait
		// for an unreachable server.
		const int rc =
			avio_open2(&format->pb, mux.url.c_str(), AVIO_FLAG_WRITE, &format->interrupt_callback, options);
		if (rc < 0) {
			blog(LOG_ERROR, "[%s] avio_open2 failed: %s (code %d)", kLogTag, error_text(rc).c_str(), rc);
			return fatal(mux, "Stream rejected — check server URL and stream key");
		}
	}

	const int header = avformat_write_header(format, options);

	// The writer starts before the header's result is looked at; when the header
	// failed it has nothing to write and is stopped again at once.
	mux.format = format;
	start_writer(mux);
	av_dict_free(options);

	if (header < 0) {
		blog(LOG_ERROR, "[%s] avformat_write_header failed: %s (code %d)", kLogTag, error_text(header).c_str(),
		     header);
		{
			std::lock_guard queue_lock(mux.queue_mutex);
			mux.running = false;
		}
		mux.queue_cv.notify_all();
		if (mux.writer.joinable())
			mux.writer.join();
		mux.format = nullptr;
		return fatal(mux, "Stream rejected — write header failed");
	}

	opening.format = nullptr;
	mux.annexb_filter = opening.filter;
	opening.filter = nullptr;
	// Timestamps and start gates begin anew with every opening.
	reset_stream_state(mux);
	mux.video_stream = video_stream;
	mux.audio_streams = audio_streams;
	mux.first_audio_stream = first_audio;
	mux.audio_stream_count = ready_count;
	mux.srt_clean_start_pending = is_srt;
	mux.clean_start_armed = !is_srt;

	blog(LOG_INFO, "[%s] mux opened: url=%s format=%s video_tb=%d/%d audio_streams=%zu fps=%u/%u sample_rate=%d",
	     kLogTag, mask_url_for_log(mux.url, mux.key).c_str(), format_name, video_stream->time_base.num,
	     video_stream->time_base.den, ready_count, uint32_t(fps.num), uint32_t(fps.den), sample_rate);
	return kOpened;
}

void start_writer(MuxOutput &mux)
{
	// A writer that ended on a lost connection is finished; join it before its
	// handle is reused.
	if (mux.writer.joinable())
		mux.writer.join();
	{
		std::lock_guard queue_lock(mux.queue_mutex);
		mux.running = true;
	}
	mux.writer_finished = false;
	mux.writer = std::thread(write_thread_loop, &mux, ++mux.generation);
}

void close_muxer(MuxOutput &mux, std::unique_lock<std::mutex> &lock)
{
	{
		std::lock_guard queue_lock(mux.queue_mutex);
		mux.running = false;
		for (AVPacket *packet : mux.queue)
			av_packet_free(&packet);
		mux.queue.clear();
	}
	mux.queue_cv.notify_all();

	if (mux.writer.joinable()) {
		std::thread writer = std::move(mux.writer);
		// The writer may be waiting for the lock (a connection it just lost) or
		// for a stalled server: let it finish without the lock, and interrupt the
		// network if it takes too long.
		lock.unlock();
		const auto deadline = std::chrono::steady_clock::now() + kWriterGrace;
		while (!mux.writer_finished && std::chrono::steady_clock::now() < deadline)
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
		if (!mux.writer_finished)
			mux.abort_io = true;
		writer.join();
		lock.lock();
	}

	free_muxer(mux);
}

void free_muxer(MuxOutput &mux)
{
	if (mux.format) {
		av_write_trailer(mux.format);
		if (!(mux.format->oformat->flags & AVFMT_NOFILE))
			avio_closep(&mux.format->pb);
		avformat_free_context(mux.format);
		mux.format = nullptr;
	}
	av_bsf_free(&mux.annexb_filter);

	mux.video_stream = nullptr;
	mux.audio_streams.fill(nullptr);
	mux.first_audio_stream = nullptr;
	mux.audio_stream_count = 0;
	mux.last_audio_dts.fill(AV_NOPTS_VALUE);
	mux.last_video_pts = AV_NOPTS_VALUE;
	mux.srt_clean_start_pending = false;
	mux.abort_io = false;
}

} // namespace cv
