#include "late_header_encoder.h"

#include <obs-module.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/samplefmt.h>
}

#include <memory>
#include <vector>

namespace cvtest {

namespace {

int header_after = 0;
constexpr int kFrameSize = 1024;

// Silence, encoded once by FFmpeg's AAC encoder; every frame gets the same packet.
struct LateAac {
	std::vector<uint8_t> header;
	std::vector<uint8_t> silence;
	int packets = 0;
	int sample_rate = 48000;
};

void *late_create(obs_data_t *, obs_encoder_t *encoder)
{
	auto enc = std::make_unique<LateAac>();
	enc->sample_rate = int(audio_output_get_sample_rate(obs_encoder_audio(encoder)));
	const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
	AVCodecContext *context = avcodec_alloc_context3(codec);
	AVFrame *frame = av_frame_alloc();
	AVPacket *packet = av_packet_alloc();
	if (context && frame && packet) {
		context->sample_rate = enc->sample_rate;
		context->sample_fmt = AV_SAMPLE_FMT_FLTP;
		context->time_base = {1, enc->sample_rate};
		context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
		av_channel_layout_default(&context->ch_layout, 2);
		frame->format = AV_SAMPLE_FMT_FLTP;
		frame->nb_samples = kFrameSize;
		av_channel_layout_default(&frame->ch_layout, 2);
	}
	if (context && frame && packet && avcodec_open2(context, codec, nullptr) == 0 &&
	    av_frame_get_buffer(frame, 0) == 0) {
		av_samples_set_silence(frame->data, 0, kFrameSize, 2, AV_SAMPLE_FMT_FLTP);
		for (int i = 0; i < 8 && enc->silence.empty(); i++) {
			frame->pts = i * kFrameSize;
			if (avcodec_send_frame(context, frame) == 0 && avcodec_receive_packet(context, packet) == 0)
				enc->silence.assign(packet->data, packet->data + packet->size);
		}
		enc->header.assign(context->extradata, context->extradata + context->extradata_size);
	}
	av_packet_free(&packet);
	av_frame_free(&frame);
	avcodec_free_context(&context);
	return enc->silence.empty() || enc->header.empty() ? nullptr : enc.release();
}

void late_destroy(void *data)
{
	delete static_cast<LateAac *>(data);
}

bool late_encode(void *data, encoder_frame *frame, encoder_packet *packet, bool *received)
{
	auto *enc = static_cast<LateAac *>(data);
	packet->data = enc->silence.data();
	packet->size = enc->silence.size();
	packet->pts = packet->dts = frame->pts;
	packet->timebase_num = 1;
	packet->timebase_den = enc->sample_rate;
	packet->type = OBS_ENCODER_AUDIO;
	packet->keyframe = true;
	enc->packets++;
	*received = true;
	return true;
}

size_t late_frame_size(void *)
{
	return kFrameSize;
}

bool late_extra_data(void *data, uint8_t **extra, size_t *size)
{
	auto *enc = static_cast<LateAac *>(data);
	if (enc->packets < header_after)
		return false;
	*extra = enc->header.data();
	*size = enc->header.size();
	return true;
}

void late_audio_info(void *, audio_convert_info *info)
{
	info->format = AUDIO_FORMAT_FLOAT_PLANAR;
	info->speakers = SPEAKERS_STEREO;
}

const char *late_name(void *)
{
	return "Late header AAC (test)";
}

} // namespace

void register_late_header_aac(int packets_before_header)
{
	header_after = packets_before_header;
	obs_encoder_info info = {};
	info.id = kLateHeaderAacId;
	info.type = OBS_ENCODER_AUDIO;
	info.codec = "aac";
	info.get_name = late_name;
	info.create = late_create;
	info.destroy = late_destroy;
	info.encode = late_encode;
	info.get_frame_size = late_frame_size;
	info.get_extra_data = late_extra_data;
	info.get_audio_info = late_audio_info;
	obs_register_encoder(&info);
}

} // namespace cvtest
