#include "media.h"

#include "process.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstring>
#include <cstdio>

namespace cvtest {

namespace {

constexpr int kFfmpegTimeoutMs = 120000;

} // namespace

const MediaStream *MediaPackets::first(const std::string &type) const
{
	for (const MediaStream &stream : streams)
		if (stream.type == type)
			return &stream;
	return nullptr;
}

MediaPackets read_packets(const std::string &path)
{
	MediaPackets result;
	AVFormatContext *format = nullptr;
	if (const int error = avformat_open_input(&format, path.c_str(), nullptr, nullptr); error < 0) {
		char text[AV_ERROR_MAX_STRING_SIZE] = {};
		result.error = path + ": " + av_make_error_string(text, sizeof(text), error);
		return result;
	}
	AVPacket *packet = av_packet_alloc();
	while (av_read_frame(format, packet) >= 0) {
		// FLV makes its streams as their first packets come.
		for (size_t i = result.streams.size(); i < format->nb_streams; i++) {
			const char *type = av_get_media_type_string(format->streams[i]->codecpar->codec_type);
			result.streams.push_back({type ? type : "", {}});
		}
		MediaStream &stream = result.streams[size_t(packet->stream_index)];
		const AVRational time_base = format->streams[packet->stream_index]->time_base;
		auto seconds = [&](int64_t ts) {
			return ts == AV_NOPTS_VALUE ? 0.0 : double(ts) * av_q2d(time_base);
		};
		if (stream.type == "video" && result.first_video_bytes.empty())
			result.first_video_bytes.assign(packet->data, packet->data + packet->size);
		stream.packets.push_back(
			{seconds(packet->pts), seconds(packet->dts), (packet->flags & AV_PKT_FLAG_KEY) != 0});
		av_packet_unref(packet);
	}
	av_packet_free(&packet);
	avformat_close_input(&format);
	return result;
}

std::vector<uint8_t> decode_frame_rgb(const std::string &path, double at_seconds)
{
	const std::string frame = path + ".rgb";
	std::string output;
	if (run_program({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", path, "-ss", std::to_string(at_seconds),
			 "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", frame},
			kFfmpegTimeoutMs, &output) != 0)
		return {};
	const std::string bytes = read_file(frame);
	std::remove(frame.c_str());
	return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

std::vector<float> decode_audio(const std::string &path, int rate)
{
	const std::string raw = path + ".f32";
	std::string output;
	run_program({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", path, "-map", "0:a:0", "-ac", "1", "-ar",
		     std::to_string(rate), "-f", "f32le", raw},
		    kFfmpegTimeoutMs, &output);
	const std::string bytes = read_file(raw);
	std::remove(raw.c_str());
	std::vector<float> samples(bytes.size() / sizeof(float));
	memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
	return samples;
}

StreamCheck check_stream(const std::string &path)
{
	StreamCheck check;
	const MediaPackets packets = read_packets(path);
	check.error = packets.error;
	// What ffmpeg says while it decodes every stream to nothing.
	if (check.error.empty() &&
	    run_program({"ffmpeg", "-nostdin", "-v", "error", "-i", path, "-map", "0", "-f", "null", "-"},
			kFfmpegTimeoutMs, &check.error) != 0 &&
	    check.error.empty())
		check.error = "ffmpeg failed";
	double first_audio = 1e18;
	double first_video = 1e18;
	for (const MediaStream &stream : packets.streams) {
		const bool video = stream.type == "video";
		check.audio_streams += stream.type == "audio";
		std::vector<double> pts;
		for (size_t i = 0; i < stream.packets.size(); i++) {
			const MediaPacket &packet = stream.packets[i];
			check.dts_increasing &= !i || packet.dts > stream.packets[i - 1].dts;
			if (i)
				check.longest_gap = std::max(check.longest_gap, packet.dts - stream.packets[i - 1].dts);
			check.pts_not_before_dts &= packet.pts >= packet.dts;
			pts.push_back(packet.pts);
			if (video)
				first_video = std::min(first_video, packet.dts);
			else
				first_audio = std::min(first_audio, packet.pts);
		}
		std::sort(pts.begin(), pts.end());
		if (&stream != packets.first("video"))
			continue;
		check.video_packets = stream.packets.size();
		check.starts_with_keyframe = !stream.packets.empty() && stream.packets.front().key;
		check.unique_video_pts = std::adjacent_find(pts.begin(), pts.end()) == pts.end();
		if (!pts.empty())
			check.video_seconds = pts.back() - pts.front();
	}
	// Audio may begin with the first frame's decode time, not before it.
	check.audio_before_video = first_audio < first_video - 0.001;
	return check;
}

} // namespace cvtest
