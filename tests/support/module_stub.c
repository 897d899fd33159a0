/* A module that only lends its name: host tests open it to get a real module handle
 * (and so a real config folder) for the plug-in code linked into the test. */
#include <obs-module.h>

OBS_DECLARE_MODULE()

bool obs_module_load(void)
{
	return true;
}
