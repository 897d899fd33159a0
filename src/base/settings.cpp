#include "settings.h"

#include "log.h"

#include <algorithm>

namespace cv {

CanvasConfig canvas_config(const PluginConfig &config)
{
	return {config.canvaswidth, config.canvasheight, config.fpsnum, config.fpsden, config.useactivesceneaudio};
}

OutputConfig output_config(const PluginConfig &config)
{
	OutputConfig output;
	output.url = config.rtmpurl;
	output.key = config.streamkey;
	output.bitrate_kbps = std::clamp(config.videobitrate, kMinVideoKbps, kMaxVideoKbps);
	if (output.bitrate_kbps != config.videobitrate)
		log_warning("Video bitrate %u kbps is out of range — using %u kbps", config.videobitrate,
			    output.bitrate_kbps);
	output.encoder_preset = config.encoderpreset;
	return output;
}

} // namespace cv
