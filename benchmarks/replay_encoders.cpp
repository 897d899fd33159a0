#include "replay_encoders.h"

#include <obs-module.h>

#include <mutex>

namespace cvbench {

namespace {

struct Recording {
	std::vector<cvtest::RecordedPacket> video;
	std::vector<cvtest::RecordedPacket> audio; // track 0
	std::vector<uint8_t> video_header;
	std::vector<uint8_t> audio_header;
};

std::mutex recording_mutex;
Recording recording;

struct Replay {
	bool video = false;
	size_t next = 0;
	std::vector<cvtest::RecordedPacket> packets;
	std::vector<uint8_t> header;
};

void *create(bool video)
{
	std::lock_guard lock(recording_mutex);
	auto *replay = new Replay;
	replay->video = video;
	replay->packets = video ? recording.video : recording.audio;
	replay->header = video ? recording.video_header : recording.audio_header;
	return replay;
}

// The frame's own timestamp keeps the pace and the order; the payload is the next one
// recorded.
bool encode(void *data, encoder_frame *frame, encoder_packet *packet, bool *received)
{
	auto *replay = static_cast<Replay *>(data);
	*received = false;
	if (replay->packets.empty())
		return true;
	const cvtest::RecordedPacket &recorded = replay->packets[replay->next++ % replay->packets.size()];
	packet->data = const_cast<uint8_t *>(recorded.data.data());
	packet->size = recorded.data.size();
	packet->pts = frame->pts;
	packet->dts = frame->pts;
	packet->keyframe = recorded.keyframe;
	packet->type = replay->video ? OBS_ENCODER_VIDEO : OBS_ENCODER_AUDIO;
	*received = true;
	return true;
}

bool extra_data(void *data, uint8_t **header, size_t *size)
{
	auto *replay = static_cast<Replay *>(data);
	*header = replay->header.data();
	*size = replay->header.size();
	return !replay->header.empty();
}

struct NullOutput {
	obs_output_t *output;
};

} // namespace

void register_replay_types()
{
	obs_encoder_info video = {};
	video.id = kReplayVideoId;
	video.type = OBS_ENCODER_VIDEO;
	video.codec = "h264";
	video.get_name = [](void *) {
		return "replayed H.264";
	};
	video.create = [](obs_data_t *, obs_encoder_t *) {
		return create(true);
	};
	video.destroy = [](void *data) {
		delete static_cast<Replay *>(data);
	};
	video.encode = encode;
	video.get_extra_data = extra_data;
	obs_register_encoder(&video);

	obs_encoder_info audio = video;
	audio.id = kReplayAudioId;
	audio.type = OBS_ENCODER_AUDIO;
	audio.codec = "aac";
	audio.get_name = [](void *) {
		return "replayed AAC";
	};
	audio.create = [](obs_data_t *, obs_encoder_t *) {
		return create(false);
	};
	audio.get_frame_size = [](void *) -> size_t {
		return 1024;
	};
	obs_register_encoder(&audio);

	obs_output_info null = {};
	null.id = kNullOutputId;
	null.flags = OBS_OUTPUT_VIDEO | OBS_OUTPUT_AUDIO | OBS_OUTPUT_ENCODED | OBS_OUTPUT_MULTI_TRACK;
	null.get_name = [](void *) {
		return "packets to nowhere";
	};
	null.create = [](obs_data_t *, obs_output_t *output) -> void * {
		return new NullOutput{output};
	};
	null.destroy = [](void *data) {
		delete static_cast<NullOutput *>(data);
	};
	null.start = [](void *data) {
		obs_output_t *output = static_cast<NullOutput *>(data)->output;
		if (!obs_output_can_begin_data_capture(output, 0) || !obs_output_initialize_encoders(output, 0))
			return false;
		return obs_output_begin_data_capture(output, 0);
	};
	null.stop = [](void *data, uint64_t) {
		obs_output_end_data_capture(static_cast<NullOutput *>(data)->output);
	};
	null.encoded_packet = [](void *, encoder_packet *) {
	};
	obs_register_output(&null);
}

void set_replay(const std::vector<cvtest::RecordedPacket> &packets, const std::vector<uint8_t> &video_header,
		const std::vector<uint8_t> &audio_header)
{
	std::lock_guard lock(recording_mutex);
	recording = {};
	for (const cvtest::RecordedPacket &packet : packets) {
		if (packet.video)
			recording.video.push_back(packet);
		else if (packet.track == 0)
			recording.audio.push_back(packet);
	}
	recording.video_header = video_header;
	recording.audio_header = audio_header;
}

} // namespace cvbench
