#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Reads back what a server stored (FLV, MPEG-TS, ...) with libavformat and decodes it with
// libavcodec, so tests can check the stream the plug-in actually sent.
namespace cvtest {

struct RecordingInfo {
	bool opened = false;
	// Why it could not be opened, or the first read error after the start.
	std::string error;
	std::string format_name; // libavformat's short name: "flv", "mpegts"
	int video_streams = 0;
	int audio_streams = 0;

	// The first video stream.
	std::string video_codec; // "h264", "hevc", ...
	int width = 0;
	int height = 0;
	double fps = 0.0; // average frame rate the demuxer reports
	int64_t video_packets = 0;
	int64_t video_frames_decoded = 0;
	// Failed avcodec_send_packet/avcodec_receive_frame calls and frames the decoder marked
	// as damaged, counting from the very first packet (nothing is skipped up to a key frame).
	int decode_errors = 0;
	std::string first_decode_error;
	bool first_video_packet_key = false;
	// Raw bytes of the first video packet av_read_frame returned.
	std::vector<uint8_t> first_video_packet;
	// Strictly increasing decode timestamps, per stream.
	bool video_dts_monotonic = true;
	bool audio_dts_monotonic = true;
	// Last minus first video presentation time plus one frame.
	double duration_seconds = 0.0;
	double first_video_pts_seconds = 0.0;

	// Every audio stream.
	int64_t audio_packets = 0;
	int64_t audio_frames_decoded = 0;
	int audio_decode_errors = 0;
	std::vector<int> audio_sample_rates;
	// Some audio packet is presented before the first video packet.
	bool audio_before_video = false;
	double first_audio_pts_seconds = 0.0; // earliest audio presentation time
};

RecordingInfo probe_recording(const std::string &path);

// One line with the main fields, for failure messages.
std::string describe(const RecordingInfo &info);

// Decodes the first video frame presented at or after `at_seconds` (counted from the first
// frame) and converts it to packed RGB24 (width * 3 bytes a row), honouring the colour
// matrix and range the stream signals.
bool decode_frame_rgb(const std::string &path, double at_seconds, std::vector<uint8_t> *rgb, int *width, int *height,
		      std::string *error);

} // namespace cvtest
