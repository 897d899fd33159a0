#include "settings.h"

#include "canvas_format.h"
#include "encoder_order.h"

#include <algorithm>
#include <iterator>
#include <type_traits>
#include <mutex>
#include <random>

namespace cv {

std::string default_destination_name(size_t index)
{
	return "Destination " + std::to_string(index + 1);
}

std::string new_destination_id()
{
	static std::mutex mutex;
	static std::mt19937_64 generator{std::random_device{}()};
	std::lock_guard lock(mutex);
	static const char *digits = "0123456789abcdef";
	std::string id;
	uint64_t bits = generator();
	for (int i = 0; i < 16; i++, bits >>= 4)
		id += digits[bits & 0xF];
	return id;
}

DestinationSettings new_destination(size_t index)
{
	DestinationSettings destination;
	destination.id = new_destination_id();
	destination.name = default_destination_name(index);
	return destination;
}

PluginConfig sanitized(const PluginConfig &config, std::vector<SettingWarning> *warnings)
{
	const PluginConfig defaults;
	PluginConfig c = config;
	auto replace = [&](const char *key, auto &value, const auto &fallback) {
		if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::string>)
			warnings->push_back({key, value});
		else
			warnings->push_back({key, std::to_string(value)});
		value = fallback;
	};
	if (c.canvaswidth == 0 || c.canvaswidth > kMaxCanvasSide)
		replace("canvaswidth", c.canvaswidth, defaults.canvaswidth);
	if (c.canvasheight == 0 || c.canvasheight > kMaxCanvasSide)
		replace("canvasheight", c.canvasheight, defaults.canvasheight);
	if (!canvas_format_problem(c.canvaswidth, c.canvasheight, c.fpsnum, c.fpsden).empty()) {
		replace("fpsnum", c.fpsnum, defaults.fpsnum);
		replace("fpsden", c.fpsden, defaults.fpsden);
	}
	if (c.audiotrack < 1 || c.audiotrack > kAudioTracks)
		replace("audiotrack", c.audiotrack, defaults.audiotrack);
	if (c.videobitrate < kMinVideoKbps || c.videobitrate > kMaxVideoKbps)
		replace("videobitrate", c.videobitrate, std::clamp(c.videobitrate, kMinVideoKbps, kMaxVideoKbps));
	if (c.keyintsec < 1 || c.keyintsec > kMaxKeyintSec)
		replace("keyintsec", c.keyintsec, defaults.keyintsec);
	if (c.replayseconds < kMinReplaySeconds || c.replayseconds > kMaxReplaySeconds)
		replace("replayseconds", c.replayseconds,
			std::clamp(c.replayseconds, kMinReplaySeconds, kMaxReplaySeconds));
	if (c.encoder.empty())
		replace("encoder", c.encoder, defaults.encoder);
	// Other encoders' presets are theirs to know; x264's are these.
	const bool x264 = c.encoder == kAutomaticEncoder || c.encoder == kX264Encoder;
	if (x264 && std::find_if(std::begin(kEncoderPresets), std::end(kEncoderPresets), [&](const char *preset) {
			    return c.encoderpreset == preset;
		    }) == std::end(kEncoderPresets))
		replace("encoderpreset", c.encoderpreset, defaults.encoderpreset);
	if (c.destinations.empty())
		c.destinations.push_back(new_destination(0));
	if (c.destinations.size() > kMaxDestinations)
		c.destinations.resize(kMaxDestinations);
	for (size_t i = 0; i < c.destinations.size(); i++) {
		DestinationSettings &destination = c.destinations[i];
		if (destination.name.empty())
			destination.name = default_destination_name(i);
		if (destination.id.empty())
			destination.id = new_destination_id();
	}
	return c;
}

CanvasConfig canvas_config(const PluginConfig &config)
{
	return {config.canvaswidth, config.canvasheight,        config.fpsnum,
		config.fpsden,      config.useactivesceneaudio, config.audiotrack - 1};
}

OutputConfig output_config(const PluginConfig &config)
{
	OutputConfig output;
	output.destinations = config.destinations;
	output.bitrate_kbps = config.videobitrate;
	output.encoder_preset = config.encoderpreset;
	output.preferred_encoder = config.encoder;
	output.keyint_sec = config.keyintsec;
	output.low_latency = config.lowlatency;
	return output;
}

} // namespace cv
