#include "settings.h"

#include "log.h"

#include <algorithm>

namespace cv {

std::string default_destination_name(size_t index)
{
	return "Destination " + std::to_string(index + 1);
}

CanvasConfig canvas_config(const PluginConfig &config)
{
	uint32_t track = config.audiotrack;
	if (track < 1 || track > kAudioTracks) {
		log_warning("Audio track %u does not exist — using track 1", track);
		track = 1;
	}
	return {config.canvaswidth, config.canvasheight,        config.fpsnum,
		config.fpsden,      config.useactivesceneaudio, track - 1};
}

OutputConfig output_config(const PluginConfig &config)
{
	OutputConfig output;
	output.destinations = config.destinations;
	for (size_t i = 0; i < output.destinations.size(); i++)
		if (output.destinations[i].name.empty())
			output.destinations[i].name = default_destination_name(i);
	output.bitrate_kbps = std::clamp(config.videobitrate, kMinVideoKbps, kMaxVideoKbps);
	if (output.bitrate_kbps != config.videobitrate)
		log_warning("Video bitrate %u kbps is out of range — using %u kbps", config.videobitrate,
			    output.bitrate_kbps);
	output.encoder_preset = config.encoderpreset;
	return output;
}

} // namespace cv
