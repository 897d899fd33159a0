#pragma once

#include <cstdint>
#include <string>

namespace cv {

// Section of both config files that holds this plug-in's keys.
inline constexpr const char *kConfigSection = "VerticalCanvas";

// Per-profile settings. The member initialisers are both the defaults registered
// with the config file and the fallbacks returned while no profile file is open.
struct PluginConfig {
	std::string rtmpurl;
	std::string streamkey;
	uint32_t videobitrate = 4000;
	uint32_t canvaswidth = 1080;
	uint32_t canvasheight = 1920;
	uint32_t fpsnum = 30;
	uint32_t fpsden = 1;
	bool autostartwithmain = true;
	std::string encoderpreset = "veryfast";
	bool useactivesceneaudio = true;
};

// Placement of the dock, kept in the global file.
struct DockState {
	bool dockvisible = true;
	bool dockfloating = true;
	int64_t dockarea = 2;
	std::string dockgeometry;
};

} // namespace cv
