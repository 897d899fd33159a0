#include "recording_probe.h"

#include <cinttypes>
#include <cstdio>
#include <map>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace cvtest {

namespace {

std::string av_error(int code)
{
	char text[AV_ERROR_MAX_STRING_SIZE] = {};
	av_strerror(code, text, sizeof(text));
	return text;
}

struct Input {
	AVFormatContext *fmt = nullptr;
	~Input() { avformat_close_input(&fmt); }

	bool open(const std::string &path, std::string *error)
	{
		int r = avformat_open_input(&fmt, path.c_str(), nullptr, nullptr);
		if (r < 0) {
			*error = "cannot open " + path + ": " + av_error(r);
			return false;
		}
		r = avformat_find_stream_info(fmt, nullptr);
		if (r < 0) {
			*error = "no stream information in " + path + ": " + av_error(r);
			return false;
		}
		return true;
	}
};

struct Decoder {
	AVCodecContext *ctx = nullptr;
	int64_t packets = 0;
	int64_t frames = 0;
	int errors = 0;
	std::string first_error;

	Decoder() = default;
	Decoder(const Decoder &) = delete;
	Decoder &operator=(const Decoder &) = delete;
	~Decoder() { avcodec_free_context(&ctx); }

	// strict: report every damaged picture as an error instead of concealing it.
	// in_band_headers: the decoder has to find the parameter sets in the stream itself,
	// not in what the demuxer gathered from further on while probing.
	bool open(const AVStream *stream, bool strict, bool in_band_headers, std::string *error)
	{
		const AVCodec *codec = avcodec_find_decoder(stream->codecpar->codec_id);
		if (!codec) {
			*error = std::string("no decoder for ") + avcodec_get_name(stream->codecpar->codec_id);
			return false;
		}
		ctx = avcodec_alloc_context3(codec);
		if (!ctx || avcodec_parameters_to_context(ctx, stream->codecpar) < 0) {
			*error = "cannot set up the decoder";
			return false;
		}
		if (in_band_headers && ctx->extradata) {
			av_freep(&ctx->extradata);
			ctx->extradata_size = 0;
		}
		ctx->pkt_timebase = stream->time_base;
		ctx->thread_count = 1; // errors in packet order
		if (strict)
			ctx->err_recognition |= AV_EF_EXPLODE;
		const int r = avcodec_open2(ctx, codec, nullptr);
		if (r < 0) {
			*error = "cannot open the decoder: " + av_error(r);
			return false;
		}
		return true;
	}

	void fail(const std::string &what, int count = 1)
	{
		if (errors == 0)
			first_error = what;
		errors += count;
	}

	// Feeds one packet (nullptr: flush) and hands every frame that comes out to on_frame,
	// which returns false to stop early.
	template<typename OnFrame> bool decode(const AVPacket *packet, AVFrame *frame, OnFrame &&on_frame)
	{
		const int sent = avcodec_send_packet(ctx, packet);
		if (sent < 0 && sent != AVERROR_EOF)
			fail("packet " + std::to_string(packets) + ": " + av_error(sent));
		if (packet && sent >= 0)
			packets++;
		for (;;) {
			const int r = avcodec_receive_frame(ctx, frame);
			if (r == AVERROR(EAGAIN) || r == AVERROR_EOF)
				return true;
			if (r < 0) {
				fail("frame " + std::to_string(frames) + ": " + av_error(r));
				return true;
			}
			frames++;
			if (frame->decode_error_flags || (frame->flags & AV_FRAME_FLAG_CORRUPT))
				fail("frame " + std::to_string(frames - 1) + " is damaged");
			const bool more = on_frame(frame);
			av_frame_unref(frame);
			if (!more)
				return false;
		}
	}
};

struct Packet {
	AVPacket *pkt = av_packet_alloc();
	~Packet() { av_packet_free(&pkt); }
};

struct Frame {
	AVFrame *frame = av_frame_alloc();
	~Frame() { av_frame_free(&frame); }
};

int64_t presentation_ts(const AVPacket *pkt)
{
	return pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
}

struct StreamTrack {
	int64_t last_dts = AV_NOPTS_VALUE;
	bool monotonic = true;

	void add(int64_t dts)
	{
		if (dts == AV_NOPTS_VALUE)
			return;
		if (last_dts != AV_NOPTS_VALUE && dts <= last_dts)
			monotonic = false;
		last_dts = dts;
	}
};

bool to_rgb(const AVFrame *frame, std::vector<uint8_t> *rgb, std::string *error)
{
	const int w = frame->width, h = frame->height;
	SwsContext *sws = sws_getContext(w, h, (AVPixelFormat)frame->format, w, h, AV_PIX_FMT_RGB24,
					 SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr,
					 nullptr);
	if (!sws) {
		*error = std::string("cannot convert ") + av_get_pix_fmt_name((AVPixelFormat)frame->format) + " to RGB";
		return false;
	}
	// The matrix and range the encoder signalled (BT.601 when it signalled none).
	const int matrix = frame->colorspace == AVCOL_SPC_UNSPECIFIED ? SWS_CS_DEFAULT : (int)frame->colorspace;
	const int full_range = frame->color_range == AVCOL_RANGE_JPEG ? 1 : 0;
	sws_setColorspaceDetails(sws, sws_getCoefficients(matrix), full_range, sws_getCoefficients(SWS_CS_DEFAULT), 1,
				 0, 1 << 16, 1 << 16);
	rgb->assign((size_t)w * h * 3, 0);
	uint8_t *dst[4] = {rgb->data(), nullptr, nullptr, nullptr};
	const int dst_stride[4] = {w * 3, 0, 0, 0};
	const int rows = sws_scale(sws, frame->data, frame->linesize, 0, h, dst, dst_stride);
	sws_freeContext(sws);
	if (rows != h) {
		*error = "RGB conversion failed";
		return false;
	}
	return true;
}

} // namespace

RecordingInfo probe_recording(const std::string &path)
{
	RecordingInfo info;
	Input input;
	if (!input.open(path, &info.error))
		return info;
	info.opened = true;
	AVFormatContext *fmt = input.fmt;
	info.format_name = fmt->iformat->name;

	int video_index = -1;
	std::map<int, Decoder> audio;
	std::map<int, StreamTrack> audio_tracks;
	for (unsigned i = 0; i < fmt->nb_streams; i++) {
		const AVStream *stream = fmt->streams[i];
		if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
			if (info.video_streams++ == 0)
				video_index = (int)i;
		} else if (stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
			info.audio_streams++;
			info.audio_sample_rates.push_back(stream->codecpar->sample_rate);
			std::string error;
			if (!audio[(int)i].open(stream, true, false, &error))
				audio[(int)i].fail(error);
			audio_tracks[(int)i];
		}
	}

	Decoder video;
	AVRational video_tb{1, 1};
	double frame_seconds = 0.0;
	if (video_index >= 0) {
		const AVStream *stream = fmt->streams[video_index];
		video_tb = stream->time_base;
		info.video_codec = avcodec_get_name(stream->codecpar->codec_id);
		info.width = stream->codecpar->width;
		info.height = stream->codecpar->height;
		const AVRational rate = stream->avg_frame_rate.num > 0 && stream->avg_frame_rate.den > 0
						? stream->avg_frame_rate
						: stream->r_frame_rate;
		if (rate.num > 0 && rate.den > 0) {
			info.fps = av_q2d(rate);
			frame_seconds = 1.0 / info.fps;
		}
		// MPEG-TS has no global headers: a receiver joins with what the stream carries.
		std::string error;
		if (!video.open(stream, true, info.format_name == "mpegts", &error))
			video.fail(error);
	}

	Packet packet;
	Frame frame;
	const auto keep_going = [](const AVFrame *) {
		return true;
	};
	StreamTrack video_track;
	int64_t min_video_pts = AV_NOPTS_VALUE, max_video_pts = AV_NOPTS_VALUE;
	double min_audio_seconds = 0.0;
	for (;;) {
		const int r = av_read_frame(fmt, packet.pkt);
		if (r < 0) {
			if (r != AVERROR_EOF)
				info.error = "read error after " + std::to_string(info.video_packets) +
					     " video packets: " + av_error(r);
			break;
		}
		AVPacket *pkt = packet.pkt;
		const AVStream *stream = fmt->streams[pkt->stream_index];
		const int64_t pts = presentation_ts(pkt);
		if (pkt->stream_index == video_index) {
			if (info.video_packets++ == 0) {
				info.first_video_packet.assign(pkt->data, pkt->data + pkt->size);
				info.first_video_packet_key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
				info.first_video_pts_seconds = pts != AV_NOPTS_VALUE ? pts * av_q2d(video_tb) : 0.0;
			}
			video_track.add(pkt->dts);
			if (pts != AV_NOPTS_VALUE) {
				if (min_video_pts == AV_NOPTS_VALUE || pts < min_video_pts)
					min_video_pts = pts;
				if (max_video_pts == AV_NOPTS_VALUE || pts > max_video_pts)
					max_video_pts = pts;
			}
			if (frame_seconds <= 0.0 && pkt->duration > 0)
				frame_seconds = pkt->duration * av_q2d(video_tb);
			if (video.ctx)
				video.decode(pkt, frame.frame, keep_going);
		} else if (audio.count(pkt->stream_index)) {
			if (pts != AV_NOPTS_VALUE) {
				const double seconds = pts * av_q2d(stream->time_base);
				if (info.audio_packets == 0 || seconds < min_audio_seconds)
					min_audio_seconds = seconds;
			}
			info.audio_packets++;
			audio_tracks[pkt->stream_index].add(pkt->dts);
			Decoder &decoder = audio[pkt->stream_index];
			if (decoder.ctx)
				decoder.decode(pkt, frame.frame, keep_going);
		}
		av_packet_unref(pkt);
	}

	if (video.ctx) {
		video.decode(nullptr, frame.frame, keep_going);
		// A decoder drops pictures it cannot reconstruct (say, up to the first key frame)
		// without returning an error; every video packet holds one picture.
		if (video.frames < video.packets)
			video.fail(std::to_string(video.packets - video.frames) + " of " +
					   std::to_string(video.packets) + " packets gave no picture",
				   (int)(video.packets - video.frames));
	}
	info.video_frames_decoded = video.frames;
	info.decode_errors = video.errors;
	info.first_decode_error = video.first_error;
	info.video_dts_monotonic = video_track.monotonic;
	if (min_video_pts != AV_NOPTS_VALUE)
		info.duration_seconds = (max_video_pts - min_video_pts) * av_q2d(video_tb) + frame_seconds;

	for (auto &entry : audio) {
		Decoder &decoder = entry.second;
		if (decoder.ctx)
			decoder.decode(nullptr, frame.frame, keep_going);
		info.audio_frames_decoded += decoder.frames;
		info.audio_decode_errors += decoder.errors;
		if (info.first_decode_error.empty())
			info.first_decode_error = decoder.first_error;
	}
	for (const auto &entry : audio_tracks)
		info.audio_dts_monotonic = info.audio_dts_monotonic && entry.second.monotonic;

	info.first_audio_pts_seconds = min_audio_seconds;
	if (info.audio_packets > 0)
		info.audio_before_video = info.video_packets == 0 ||
					  min_audio_seconds < info.first_video_pts_seconds - 1e-6;
	return info;
}

std::string describe(const RecordingInfo &info)
{
	if (!info.opened)
		return "not opened: " + info.error;
	std::string rates;
	for (int rate : info.audio_sample_rates)
		rates += (rates.empty() ? "" : "/") + std::to_string(rate);
	char text[1024];
	snprintf(
		text, sizeof(text),
		"%s: video %d stream(s) %s %dx%d %.2f fps, %" PRId64 " packets, %" PRId64
		" frames decoded, %d errors, first packet %s at %.3f s, dts %s, %.3f s long; audio %d stream(s) %s Hz, "
		"%" PRId64 " packets, %" PRId64 " frames decoded, %d errors, first at %.3f s%s, dts %s",
		info.format_name.c_str(), info.video_streams, info.video_codec.c_str(), info.width, info.height,
		info.fps, info.video_packets, info.video_frames_decoded, info.decode_errors,
		info.first_video_packet_key ? "key" : "not key", info.first_video_pts_seconds,
		info.video_dts_monotonic ? "increasing" : "NOT increasing", info.duration_seconds, info.audio_streams,
		rates.c_str(), info.audio_packets, info.audio_frames_decoded, info.audio_decode_errors,
		info.first_audio_pts_seconds, info.audio_before_video ? " (before video)" : "",
		info.audio_dts_monotonic ? "increasing" : "NOT increasing");
	std::string out = text;
	if (!info.first_decode_error.empty())
		out += "; first decode error: " + info.first_decode_error;
	if (!info.error.empty())
		out += "; " + info.error;
	return out;
}

bool decode_frame_rgb(const std::string &path, double at_seconds, std::vector<uint8_t> *rgb, int *width, int *height,
		      std::string *error)
{
	Input input;
	if (!input.open(path, error))
		return false;
	const int index = av_find_best_stream(input.fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
	if (index < 0) {
		*error = "no video stream in " + path;
		return false;
	}
	const AVStream *stream = input.fmt->streams[index];
	Decoder decoder;
	if (!decoder.open(stream, false, false, error))
		return false;

	const double tb = av_q2d(stream->time_base);
	int64_t first_ts = AV_NOPTS_VALUE;
	double last_seen = -1.0;
	bool found = false, converted = false;
	const auto take = [&](const AVFrame *frame) {
		int64_t ts = frame->best_effort_timestamp;
		if (ts == AV_NOPTS_VALUE)
			ts = frame->pts;
		if (ts == AV_NOPTS_VALUE)
			return true;
		if (first_ts == AV_NOPTS_VALUE)
			first_ts = ts;
		last_seen = (ts - first_ts) * tb;
		// Millisecond timestamps (FLV) put a frame up to 1 ms early.
		if (last_seen < at_seconds - 0.002)
			return true;
		found = true;
		converted = to_rgb(frame, rgb, error);
		*width = frame->width;
		*height = frame->height;
		return false;
	};

	Packet packet;
	Frame frame;
	while (!found) {
		const int r = av_read_frame(input.fmt, packet.pkt);
		if (r < 0)
			break;
		if (packet.pkt->stream_index == index)
			decoder.decode(packet.pkt, frame.frame, take);
		av_packet_unref(packet.pkt);
	}
	if (!found)
		decoder.decode(nullptr, frame.frame, take);
	if (!found) {
		char text[160];
		snprintf(text, sizeof(text), "no frame at or after %.3f s (the last one is at %.3f s)", at_seconds,
			 last_seen);
		*error = text;
		return false;
	}
	return converted;
}

} // namespace cvtest
