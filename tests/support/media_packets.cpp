#include "media_packets.h"

#include "child_process.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace cvtest {

namespace {

constexpr int kProbeTimeoutMs = 120000;

std::vector<std::string> split(const std::string &line, char separator)
{
	std::vector<std::string> fields;
	std::stringstream in(line);
	std::string field;
	while (std::getline(in, field, separator))
		fields.push_back(field);
	return fields;
}

double seconds(const std::string &text)
{
	return text.empty() || text == "N/A" ? 0.0 : std::strtod(text.c_str(), nullptr);
}

} // namespace

const MediaStream *MediaPackets::first(const std::string &type) const
{
	for (const MediaStream &stream : streams)
		if (stream.type == type)
			return &stream;
	return nullptr;
}

size_t MediaPackets::count(const std::string &type) const
{
	return size_t(std::count_if(streams.begin(), streams.end(),
				    [&](const MediaStream &stream) { return stream.type == type; }));
}

MediaPackets read_packets(const std::string &path)
{
	MediaPackets result;
	std::string text;
	if (run_program({"ffprobe", "-v", "error", "-show_entries", "stream=index,codec_type", "-of", "csv=p=0", path},
			kProbeTimeoutMs, &text) != 0) {
		result.error = "ffprobe: " + text;
		return result;
	}
	// MPEG-TS lists its streams once more inside their program.
	std::stringstream stream_lines(text);
	for (std::string line; std::getline(stream_lines, line);) {
		const std::vector<std::string> fields = split(line, ',');
		if (fields.size() >= 2 && std::strtoul(fields[0].c_str(), nullptr, 10) == result.streams.size())
			result.streams.push_back({fields[1], {}});
	}

	if (run_program({"ffprobe", "-v", "error", "-show_entries", "packet=stream_index,pts_time,dts_time,size,flags",
			 "-of", "csv=p=0", path},
			kProbeTimeoutMs, &text) != 0) {
		result.error = "ffprobe: " + text;
		return result;
	}
	std::stringstream packet_lines(text);
	for (std::string line; std::getline(packet_lines, line);) {
		const std::vector<std::string> fields = split(line, ',');
		if (fields.size() < 5)
			continue;
		const size_t index = size_t(std::strtoul(fields[0].c_str(), nullptr, 10));
		if (index >= result.streams.size())
			continue;
		MediaPacket packet;
		packet.pts = seconds(fields[1]);
		packet.dts = seconds(fields[2]);
		packet.size = std::strtoll(fields[3].c_str(), nullptr, 10);
		packet.key = fields[4].find('K') != std::string::npos;
		result.streams[index].packets.push_back(packet);
	}
	return result;
}

std::string decode_errors(const std::string &path)
{
	std::string text;
	const int code = run_program({"ffmpeg", "-nostdin", "-v", "error", "-i", path, "-map", "0", "-f", "null", "-"},
				     kProbeTimeoutMs, &text);
	if (code != 0 && text.empty())
		text = "ffmpeg exited with " + std::to_string(code);
	return text;
}

double longest_gap(const MediaStream &stream)
{
	std::vector<double> times;
	for (const MediaPacket &packet : stream.packets)
		times.push_back(packet.pts);
	std::sort(times.begin(), times.end());
	double gap = 0;
	for (size_t i = 1; i < times.size(); i++)
		gap = std::max(gap, times[i] - times[i - 1]);
	return gap;
}

std::vector<uint8_t> first_video_packet(const std::string &path)
{
	std::string text;
	std::vector<uint8_t> bytes;
	if (run_program({"ffprobe", "-v", "error", "-select_streams", "v:0", "-read_intervals", "%+#1", "-show_data",
			 "-show_entries", "packet=data", "-of", "default", path},
			kProbeTimeoutMs, &text) != 0)
		return bytes;
	// A hex dump: "00000000: 0000 0001 0910 ...  ascii", sixteen bytes a line.
	std::stringstream lines(text);
	for (std::string line; std::getline(lines, line);) {
		const size_t colon = line.find(": ");
		if (colon != 8)
			continue;
		std::stringstream words(line.substr(colon + 2, 40));
		for (std::string word; words >> word && word.size() % 2 == 0;)
			for (size_t i = 0; i < word.size(); i += 2)
				bytes.push_back(uint8_t(std::strtoul(word.substr(i, 2).c_str(), nullptr, 16)));
	}
	return bytes;
}

StreamCheck check_stream(const std::string &path)
{
	StreamCheck check;
	const MediaPackets packets = read_packets(path);
	check.error = packets.error.empty() ? decode_errors(path) : packets.error;
	check.audio_streams = packets.count("audio");
	double first_audio = 1e18;
	double first_video = 1e18;
	for (const MediaStream &stream : packets.streams) {
		const bool video = stream.type == "video";
		std::vector<double> pts;
		for (size_t i = 0; i < stream.packets.size(); i++) {
			const MediaPacket &packet = stream.packets[i];
			if (i && packet.dts <= stream.packets[i - 1].dts)
				check.dts_increasing = false;
			if (packet.pts < packet.dts)
				check.pts_not_before_dts = false;
			pts.push_back(packet.pts);
			if (video)
				first_video = std::min(first_video, packet.dts);
			else
				first_audio = std::min(first_audio, packet.pts);
		}
		if (!video || &stream != packets.first("video"))
			continue;
		check.video_packets = stream.packets.size();
		check.starts_with_keyframe = !stream.packets.empty() && stream.packets.front().key;
		std::sort(pts.begin(), pts.end());
		check.unique_video_pts = std::adjacent_find(pts.begin(), pts.end()) == pts.end();
		if (!pts.empty())
			check.video_seconds = pts.back() - pts.front();
	}
	// Audio may begin with the first frame's decode time, not before it.
	check.audio_before_video = first_audio < first_video - 0.001;
	return check;
}

} // namespace cvtest
