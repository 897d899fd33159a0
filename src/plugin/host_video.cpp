#include "host_video.h"

#include <obs-frontend-api.h>
#include <obs.h>
#include <util/config-file.h>

#include <cstdint>

namespace cv {

namespace {

uint32_t read(config_t *profile, const char *key)
{
	return uint32_t(config_get_uint(profile, "Video", key));
}

} // namespace

bool host_video_unapplied()
{
	config_t *profile = obs_frontend_get_profile_config();
	obs_video_info running = {};
	if (!profile || !obs_get_video_info(&running))
		return false;
	// As the host reads them: sizes below 8 fall back, output sizes are aligned.
	uint32_t base_width = read(profile, "BaseCX");
	uint32_t base_height = read(profile, "BaseCY");
	if (base_width < 8 || base_height < 8) {
		base_width = 1920;
		base_height = 1080;
	}
	uint32_t output_width = read(profile, "OutputCX");
	uint32_t output_height = read(profile, "OutputCY");
	if (output_width < 8 || output_height < 8) {
		output_width = base_width;
		output_height = base_height;
	}
	if (base_width != running.base_width || base_height != running.base_height ||
	    (output_width & 0xFFFFFFFC) != running.output_width ||
	    (output_height & 0xFFFFFFFE) != running.output_height)
		return true;
	// The common rates are named, not numbered; integer and fractional ones are compared.
	switch (read(profile, "FPSType")) {
	case 1:
		return read(profile, "FPSInt") &&
		       uint64_t(read(profile, "FPSInt")) * running.fps_den != running.fps_num;
	case 2:
		return read(profile, "FPSNum") && read(profile, "FPSDen") &&
		       uint64_t(read(profile, "FPSNum")) * running.fps_den !=
			       uint64_t(read(profile, "FPSDen")) * running.fps_num;
	default:
		return false;
	}
}

} // namespace cv
