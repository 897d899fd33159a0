// Entry points the host calls to load, identify and unload the plug-in.

#include "dock_registry.h"
#include "frontend_events.h"
#include "plugin_log.h"
#include "runtime.h"
#include "settings_store.h"

#include "mux/mux_output.h"
#include "mux/stream_url.h"
#include "ui/settings_dialog.h"

#include <obs-frontend-api.h>
#include <obs-module.h>

#include <mutex>
#include <string>

OBS_DECLARE_MODULE()
OBS_MODULE_USE_DEFAULT_LOCALE("corvane-vertical-canvas", "en-US")

namespace {

constexpr const char *kVersion = "1.0.0";
const std::string kRule(60, '=');
constexpr const char *kSettingsMenuItem = "Corvane Vertical Streaming Settings";
bool event_callback_registered = false;

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
	using namespace cv;

	blog(LOG_INFO, "[%s] %s", kLogTag, kRule.c_str());
	blog(LOG_INFO, "[%s] Loading version %s", kLogTag, kVersion);
	blog(LOG_INFO, "[%s] %s", kLogTag, kRule.c_str());

	register_mux_output();
	blog(LOG_INFO, "[%s] Registered output type: %s", kLogTag, kMuxOutputId);

	load_global_config();
	load_profile_config();

	std::lock_guard lock(runtime_mutex());
	if (!create_runtime_from_current_profile()) {
		blog(LOG_ERROR, "[%s] Runtime init failed — plugin will not load", kLogTag);
		return false;
	}

	obs_frontend_add_event_callback(on_frontend_event, nullptr);
	event_callback_registered = true;
	obs_frontend_add_tools_menu_item(
		kSettingsMenuItem, [](void *) { open_settings_dialog(); }, nullptr);
	blog(LOG_INFO, "[%s] Loaded successfully", kLogTag);
	blog(LOG_INFO, "[%s] Canvas : %ux%u @ %u/%u fps", kLogTag, canvaswidth(), canvasheight(), fpsnum(), fpsden());
	blog(LOG_INFO, "[%s] RTMP : %s", kLogTag, mask_url_for_log(rtmpurl(), streamkey()).c_str());
	blog(LOG_INFO, "[%s] Bitrate: %u kbps", kLogTag, videobitrate());
	blog(LOG_INFO, "[%s] Auto-start with main: %s", kLogTag, autostartwithmain() ? "yes" : "no");
	blog(LOG_INFO, "[%s] %s", kLogTag, kRule.c_str());
	return true;
}

void obs_module_unload(void)
{
	using namespace cv;

	blog(LOG_INFO, "[%s] Unloading", kLogTag);
	if (event_callback_registered) {
		obs_frontend_remove_event_callback(on_frontend_event, nullptr);
		event_callback_registered = false;
	}

	std::lock_guard lock(runtime_mutex());
	destroy_runtime(true);
	forget_dock();
	save_and_close_configs();
	// A stream stopped just now may still be saying goodbye to its server.
	if (!wait_for_mux_streams(kStopBudget + std::chrono::seconds(1)))
		blog(LOG_WARNING, "[%s] A vertical stream was still closing its connection at unload", kLogTag);
	blog(LOG_INFO, "[%s] Unloaded", kLogTag);
}
