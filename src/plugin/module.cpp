// Entry points the host calls to load, identify and unload the plug-in.

#include "plugin.h"

#include <obs-module.h>

#include <memory>

OBS_DECLARE_MODULE()
OBS_MODULE_USE_DEFAULT_LOCALE("corvane-vertical-canvas", "en-US")

namespace {

std::unique_ptr<cv::Plugin> plugin;

} // namespace

MODULE_EXPORT const char *obs_module_name(void)
{
	return "Corvane Vertical Canvas";
}

MODULE_EXPORT const char *obs_module_description(void)
{
	return "Vertical canvas streams a second 9:16 RTMP output simultaneously";
}

bool obs_module_load(void)
{
	plugin = std::make_unique<cv::Plugin>();
	if (!plugin->load()) {
		plugin.reset();
		return false;
	}
	return true;
}

void obs_module_post_load(void)
{
	if (plugin)
		plugin->post_load();
}

void obs_module_unload(void)
{
	if (!plugin)
		return;
	plugin->unload();
	plugin.reset();
}
