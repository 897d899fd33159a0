#include "frontend_events.h"

#include "dock_registry.h"
#include "plugin_log.h"
#include "runtime.h"
#include "scene_list_store.h"
#include "settings_store.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"

#include <QCoreApplication>
#include <QMessageBox>
#include <QMetaObject>

#include <atomic>
#include <mutex>

namespace cv {

namespace {

std::atomic<bool> in_event_callback{false};

void on_streaming_starting()
{
	VerticalOutput *output = runtime_output();
	const bool autostart = profile_config() ? autostartwithmain() : true;
	if (!autostart || !output || output->is_active())
		return;
	blog(LOG_INFO, "[%s] Main stream starting — auto-starting vertical output", kLogTag);
	output->start();
}

void on_streaming_stopped()
{
	VerticalOutput *output = runtime_output();
	if (!output || !output->is_active())
		return;
	blog(LOG_INFO, "[%s] Main stream stopped — stopping vertical output", kLogTag);
	output->stop();
}

void restore_scenes_and_attach()
{
	if (!runtime_canvas())
		return;
	restore_scene_list();
	reapply_scene_sources();
	attach_dock();
}

// Shown once the handler has returned and the lock is free.
void post_rebuild_failure_box()
{
	QCoreApplication *app = QCoreApplication::instance();
	if (!app)
		return;
	QMetaObject::invokeMethod(
		app,
		[] {
			QMessageBox::information(nullptr, "Corvane Vertical Canvas",
						 "Failed to rebuild the vertical canvas after profile switch.\n\n"
						 "Restart OBS before using the vertical output again.",
						 QMessageBox::Ok);
		},
		Qt::QueuedConnection);
}

void on_profile_changed()
{
	blog(LOG_INFO, "[%s] OBS profile changed — rebuilding profile-specific runtime", kLogTag);
	blog(LOG_INFO, "[%s] Profile change — rebuilding vertical runtime", kLogTag);
	destroy_runtime(true);
	load_profile_config();
	if (!create_runtime_from_current_profile()) {
		blog(LOG_ERROR, "[%s] Failed to rebuild vertical runtime after profile change", kLogTag);
		post_rebuild_failure_box();
		return;
	}
	restore_scenes_and_attach();
	register_dock();
}

void on_exit()
{
	record_dock_state();
	VerticalOutput *output = runtime_output();
	if (output && output->is_active()) {
		blog(LOG_INFO, "[%s] OBS exiting — stopping vertical output", kLogTag);
		output->stop();
	}
}

} // namespace

void on_frontend_event(enum obs_frontend_event event, void *)
{
	bool expected = false;
	if (!in_event_callback.compare_exchange_strong(expected, true))
		return;
	{
		std::lock_guard lock(runtime_mutex());
		switch (event) {
		case OBS_FRONTEND_EVENT_STREAMING_STARTING:
			on_streaming_starting();
			break;
		case OBS_FRONTEND_EVENT_STREAMING_STOPPED:
			on_streaming_stopped();
			break;
		case OBS_FRONTEND_EVENT_PROFILE_CHANGED:
			on_profile_changed();
			break;
		case OBS_FRONTEND_EVENT_EXIT:
			on_exit();
			break;
		case OBS_FRONTEND_EVENT_FINISHED_LOADING:
			restore_scenes_and_attach();
			register_dock();
			break;
		default:
			break;
		}
	}
	in_event_callback = false;
}

} // namespace cv
