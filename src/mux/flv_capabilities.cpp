#include "flv_capabilities.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstring>
#include <mutex>

namespace cv {

namespace {

int discard(void *, const uint8_t *, int size)
{
	return size;
}

#if LIBAVFORMAT_VERSION_MAJOR >= 61
int discard_write(void *opaque, const uint8_t *buf, int size)
{
	return discard(opaque, buf, size);
}
#else
int discard_write(void *opaque, uint8_t *buf, int size)
{
	return discard(opaque, buf, size);
}
#endif

bool set_extradata(AVCodecParameters *par, const uint8_t *bytes, size_t size)
{
	par->extradata = static_cast<uint8_t *>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
	if (!par->extradata)
		return false;
	memcpy(par->extradata, bytes, size);
	par->extradata_size = int(size);
	return true;
}

bool probe()
{
	// An avcC record without parameter sets and an AAC-LC 48 kHz stereo config are
	// enough for the muxer to write its header.
	static const uint8_t avcc[] = {0x01, 0x64, 0x00, 0x1F, 0xFF, 0xE0, 0x00};
	static const uint8_t aac[] = {0x11, 0x90};

	AVFormatContext *format = nullptr;
	if (avformat_alloc_output_context2(&format, nullptr, "flv", nullptr) < 0 || !format)
		return false;

	bool ok = false;
	const int buffer_size = 4096;
	auto *buffer = static_cast<uint8_t *>(av_malloc(buffer_size));
	AVIOContext *io = buffer ? avio_alloc_context(buffer, buffer_size, 1, nullptr, nullptr, discard_write, nullptr)
				 : nullptr;
	if (io) {
		format->pb = io;
		format->flags |= AVFMT_FLAG_CUSTOM_IO;
		AVStream *video = avformat_new_stream(format, nullptr);
		bool built = video && set_extradata(video->codecpar, avcc, sizeof(avcc));
		if (built) {
			video->time_base = {1, 1000};
			video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
			video->codecpar->codec_id = AV_CODEC_ID_H264;
			video->codecpar->width = 16;
			video->codecpar->height = 16;
		}
		for (int i = 0; built && i < 2; i++) {
			AVStream *audio = avformat_new_stream(format, nullptr);
			built = audio && set_extradata(audio->codecpar, aac, sizeof(aac));
			if (built) {
				audio->time_base = {1, 1000};
				audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
				audio->codecpar->codec_id = AV_CODEC_ID_AAC;
				audio->codecpar->sample_rate = 48000;
				audio->codecpar->frame_size = 1024;
				av_channel_layout_default(&audio->codecpar->ch_layout, 2);
			}
		}
		const int saved_level = av_log_get_level();
		av_log_set_level(AV_LOG_QUIET);
		ok = built && avformat_write_header(format, nullptr) >= 0;
		av_log_set_level(saved_level);
		av_freep(&io->buffer);
		avio_context_free(&io);
	} else {
		av_free(buffer);
	}
	avformat_free_context(format);
	return ok;
}

} // namespace

bool flv_supports_multiple_audio()
{
	static std::once_flag once;
	static bool supported = false;
	std::call_once(once, [] { supported = probe(); });
	return supported;
}

} // namespace cv
