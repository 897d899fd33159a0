#pragma once

// The plug-in's two settings files, read and written as whole records: the global file
// in the module's config folder ("settings-global.ini": the dock's placement, and the
// vertical scene list of earlier versions) and the current profile's file
// ("corvane-vertical-canvas.ini": destinations, stream and canvas). Both stay open while the plug-in is
// loaded; the profile's is opened again at every profile switch. A file that cannot be
// opened leaves the defaults.

#include "base/settings.h"

#include <util/util.hpp>

namespace cv {

inline constexpr const char *kGlobalConfigFile = "settings-global.ini";
inline constexpr const char *kProfileConfigFile = "corvane-vertical-canvas.ini";

class SettingsFiles {
public:
	void open_global();
	void open_profile();

	PluginConfig profile() const;
	// Written into the profile's file, which is saved.
	void set_profile(const PluginConfig &config);

	// The vertical scenes earlier versions kept for all scene collections: where a
	// collection without vertical scenes of its own starts from.
	SceneList scenes() const;

	// Saves both files (logging what fails).
	void save();

private:
	ConfigFile global_;
	ConfigFile profile_;
};

} // namespace cv
