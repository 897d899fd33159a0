#pragma once

// The plug-in's settings as plain records: what the settings files hold, and what the
// canvas and the output are built from.

#include "scene_layout.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cv {

// One place the vertical stream goes to. The key stays out of every log line.
struct DestinationSettings {
	std::string name;
	// The server's address; for one of the host's services, the server chosen from its
	// list (empty: the service's first).
	std::string url;
	std::string key;
	bool enabled = true;
	// Stable for the destination's life, whatever else of it changes.
	std::string id = {};
	// One of the services the host's own stream settings list, by name; empty for an
	// address typed in ("Custom").
	std::string service = {};
};

// How many destinations a profile can hold.
inline constexpr size_t kMaxDestinations = 8;
// The host's audio tracks, counted from 1 as its settings show them.
inline constexpr uint32_t kAudioTracks = 6;

// The name a destination has until the user gives it one: "Destination <position>".
std::string default_destination_name(size_t index);
// A new destination's id: 16 random hexadecimal digits.
std::string new_destination_id();
// A destination with its default name and a new id.
DestinationSettings new_destination(size_t index);

// Per-profile settings. The member initialisers are the defaults.
struct PluginConfig {
	// The first is always there; it is the one older versions knew.
	std::vector<DestinationSettings> destinations{new_destination(0)};
	uint32_t videobitrate = 4000;
	uint32_t canvaswidth = 1080;
	uint32_t canvasheight = 1920;
	uint32_t fpsnum = 30;
	uint32_t fpsden = 1;
	bool autostartwithmain = true;
	bool autorecordwithmain = true;
	// "auto", or the id of one of the host's H.264 encoders.
	std::string encoder = "auto";
	// The chosen encoder's preset (x264's with "auto"); empty for the encoder's own.
	std::string encoderpreset = "veryfast";
	uint32_t keyintsec = 2;
	// x264's "zerolatency": no lookahead, no B-frames; a softer picture at the same bitrate.
	bool lowlatency = false;
	bool useactivesceneaudio = true;
	uint32_t audiotrack = 1;
	// How many of the last seconds the vertical replay buffer holds.
	uint32_t replayseconds = 30;
	// The vertical replay buffer starts, stops and saves with the host's.
	bool replaywithmain = true;
};


// The vertical scenes, kept for all profiles: names (UTF-8, compared byte for byte),
// each with the name of the host scene it shows (empty for none) and how it frames it,
// the active one, the transition between them and whether they follow the host's scene.
struct SceneEntry {
	std::string name;
	std::string source;
	SceneLayout layout = {};
};

struct SceneList {
	std::vector<SceneEntry> scenes;
	std::string active;
	TransitionSettings transition = {};
	bool follow_main = false;
};

// What the vertical canvas is built from.
struct CanvasConfig {
	uint32_t width = 1080;
	uint32_t height = 1920;
	uint32_t fps_num = 30;
	uint32_t fps_den = 1;
	bool use_active_scene_audio = true;
	uint32_t audio_track = 0; // the host's track, from 0

	bool operator==(const CanvasConfig &other) const
	{
		return width == other.width && height == other.height && fps_num == other.fps_num &&
		       fps_den == other.fps_den && use_active_scene_audio == other.use_active_scene_audio &&
		       audio_track == other.audio_track;
	}
};

// The video bitrates offered, in kbit/s.
inline constexpr uint32_t kMinVideoKbps = 500;
inline constexpr uint32_t kMaxVideoKbps = 51000;

// The keyframe intervals offered, in seconds; platforms want 2.
inline constexpr uint32_t kMaxKeyintSec = 10;
inline constexpr uint32_t kMinReplaySeconds = 5;
inline constexpr uint32_t kMaxReplaySeconds = 600;

// What the vertical output is built from.
struct OutputConfig {
	std::vector<DestinationSettings> destinations;
	uint32_t bitrate_kbps = 4000;
	std::string encoder_preset = "veryfast";
	std::string preferred_encoder = "auto";
	uint32_t keyint_sec = 2;
	bool low_latency = false;
};

// x264's presets, fastest first.
inline constexpr const char *kEncoderPresets[] = {"ultrafast", "superfast", "veryfast", "faster",  "fast",
						  "medium",    "slow",      "slower",   "veryslow"};

// A value of a (hand-edited) profile file that cannot be used: its key and the value as
// read. Its default is used instead.
struct SettingWarning {
	std::string key;
	std::string value;
	bool operator==(const SettingWarning &other) const { return key == other.key && value == other.value; }
};

// The settings with every value that cannot be used replaced by its default, and which
// were: a canvas size or frame rate the host's renderer cannot take, an audio track
// outside 1 to 6, a bitrate outside the offered range (some of the host's encoders
// refuse to start without one), a keyframe interval outside 1 to 10 s, an x264 preset x264
// does not know. Destinations without a name or id get their default name and a new id.
PluginConfig sanitized(const PluginConfig &config, std::vector<SettingWarning> *warnings);

// Built from sanitized settings.
CanvasConfig canvas_config(const PluginConfig &config);
OutputConfig output_config(const PluginConfig &config);

} // namespace cv
