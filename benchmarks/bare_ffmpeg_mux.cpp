#include "bare_ffmpeg_mux.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

#include <cstring>

namespace cvbench {

using cvtest::thread_cpu_ns;

namespace {

bool set_extradata(AVCodecParameters *par, const std::vector<uint8_t> &bytes)
{
	par->extradata = static_cast<uint8_t *>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
	if (!par->extradata)
		return false;
	memcpy(par->extradata, bytes.data(), bytes.size());
	par->extradata_size = int(bytes.size());
	return true;
}

struct FormatCloser {
	AVFormatContext *format = nullptr;
	~FormatCloser()
	{
		if (!format)
			return;
		if (format->pb)
			avio_closep(&format->pb);
		avformat_free_context(format);
	}
};

} // namespace

bool mux_with_bare_ffmpeg(const std::vector<RecordedPacket> &packets, const BareStreams &streams,
			  const std::string &url, BareResult *result, std::string *error)
{
	FormatCloser closer;
	if (avformat_alloc_output_context2(&closer.format, nullptr, "flv", url.c_str()) < 0 || !closer.format) {
		*error = "avformat_alloc_output_context2 failed";
		return false;
	}
	AVFormatContext *format = closer.format;

	AVStream *video = avformat_new_stream(format, nullptr);
	AVStream *audio = avformat_new_stream(format, nullptr);
	if (!video || !audio) {
		*error = "avformat_new_stream failed";
		return false;
	}
	video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
	video->codecpar->codec_id = AV_CODEC_ID_H264;
	video->codecpar->width = streams.width;
	video->codecpar->height = streams.height;
	video->time_base = {1, 1000};
	audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
	audio->codecpar->codec_id = AV_CODEC_ID_AAC;
	audio->codecpar->sample_rate = streams.sample_rate;
	av_channel_layout_default(&audio->codecpar->ch_layout, streams.channels);
	audio->time_base = {1, 1000};
	if (!set_extradata(video->codecpar, streams.video_extradata) ||
	    !set_extradata(audio->codecpar, streams.audio_extradata)) {
		*error = "av_mallocz failed";
		return false;
	}

	if (avio_open2(&format->pb, url.c_str(), AVIO_FLAG_WRITE, nullptr, nullptr) < 0) {
		*error = "avio_open2 failed for " + url;
		return false;
	}
	AVDictionary *options = nullptr;
	av_dict_set(&options, "flvflags", "no_duration_filesize", 0);
	const int header = avformat_write_header(format, &options);
	av_dict_free(&options);
	if (header < 0) {
		*error = "avformat_write_header failed";
		return false;
	}

	bool started = false;
	size_t written = 0;
	const uint64_t begin = thread_cpu_ns();
	for (const RecordedPacket &recorded : packets) {
		if (!recorded.video && recorded.track != 0)
			continue;
		started = started || (recorded.video && recorded.keyframe);
		if (!started)
			continue;
		AVPacket *packet = av_packet_alloc();
		if (!packet || av_new_packet(packet, int(recorded.data.size())) < 0) {
			av_packet_free(&packet);
			*error = "av_new_packet failed";
			return false;
		}
		memcpy(packet->data, recorded.data.data(), recorded.data.size());
		AVStream *stream = recorded.video ? video : audio;
		const AVRational from = {recorded.timebase_num, recorded.timebase_den};
		packet->pts = av_rescale_q(recorded.pts, from, stream->time_base);
		packet->dts = av_rescale_q(recorded.dts, from, stream->time_base);
		packet->stream_index = stream->index;
		if (recorded.keyframe)
			packet->flags |= AV_PKT_FLAG_KEY;
		av_interleaved_write_frame(format, packet);
		av_packet_free(&packet);
		written++;
	}
	av_interleaved_write_frame(format, nullptr);
	result->packet_cpu_ns = thread_cpu_ns() - begin;
	result->packets = written;
	av_write_trailer(format);
	return true;
}

} // namespace cvbench
