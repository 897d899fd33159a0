#include "late_header_encoder.h"

#include <obs-module.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <atomic>
#include <cstring>
#include <vector>

namespace cvtest {

namespace {

int header_after = 0;

struct LateAac {
	AVCodecContext *context = nullptr;
	AVFrame *frame = nullptr;
	AVPacket *packet = nullptr;
	std::vector<uint8_t> out;
	std::atomic<int> packets{0};
	int sample_rate = 48000;
};

void late_destroy(void *data)
{
	auto *enc = static_cast<LateAac *>(data);
	avcodec_free_context(&enc->context);
	av_frame_free(&enc->frame);
	av_packet_free(&enc->packet);
	delete enc;
}

void *late_create(obs_data_t *, obs_encoder_t *encoder)
{
	auto *enc = new LateAac;
	enc->sample_rate = int(audio_output_get_sample_rate(obs_encoder_audio(encoder)));
	const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
	enc->context = codec ? avcodec_alloc_context3(codec) : nullptr;
	enc->frame = av_frame_alloc();
	enc->packet = av_packet_alloc();
	if (!enc->context || !enc->frame || !enc->packet) {
		late_destroy(enc);
		return nullptr;
	}
	enc->context->sample_rate = enc->sample_rate;
	enc->context->sample_fmt = AV_SAMPLE_FMT_FLTP;
	enc->context->bit_rate = 128000;
	enc->context->time_base = {1, enc->sample_rate};
	enc->context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
	av_channel_layout_default(&enc->context->ch_layout, 2);
	if (avcodec_open2(enc->context, codec, nullptr) < 0) {
		late_destroy(enc);
		return nullptr;
	}
	enc->frame->format = AV_SAMPLE_FMT_FLTP;
	enc->frame->nb_samples = enc->context->frame_size;
	enc->frame->sample_rate = enc->sample_rate;
	av_channel_layout_copy(&enc->frame->ch_layout, &enc->context->ch_layout);
	if (av_frame_get_buffer(enc->frame, 0) < 0) {
		late_destroy(enc);
		return nullptr;
	}
	return enc;
}

bool late_encode(void *data, encoder_frame *frame, encoder_packet *packet, bool *received)
{
	auto *enc = static_cast<LateAac *>(data);
	*received = false;
	if (av_frame_make_writable(enc->frame) < 0)
		return false;
	const size_t bytes = size_t(frame->frames) * sizeof(float);
	for (int ch = 0; ch < 2; ch++)
		memcpy(enc->frame->data[ch], frame->data[ch], bytes);
	enc->frame->pts = frame->pts;
	if (avcodec_send_frame(enc->context, enc->frame) < 0)
		return false;
	const int rc = avcodec_receive_packet(enc->context, enc->packet);
	if (rc == AVERROR(EAGAIN))
		return true;
	if (rc < 0)
		return false;
	enc->out.assign(enc->packet->data, enc->packet->data + enc->packet->size);
	packet->data = enc->out.data();
	packet->size = enc->out.size();
	packet->pts = enc->packet->pts;
	packet->dts = enc->packet->dts;
	packet->timebase_num = 1;
	packet->timebase_den = enc->sample_rate;
	packet->type = OBS_ENCODER_AUDIO;
	packet->keyframe = true;
	av_packet_unref(enc->packet);
	enc->packets++;
	*received = true;
	return true;
}

size_t late_frame_size(void *data)
{
	return size_t(static_cast<LateAac *>(data)->context->frame_size);
}

bool late_extra_data(void *data, uint8_t **extra, size_t *size)
{
	auto *enc = static_cast<LateAac *>(data);
	if (enc->packets < header_after)
		return false;
	*extra = enc->context->extradata;
	*size = size_t(enc->context->extradata_size);
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
