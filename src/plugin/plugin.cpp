#include "plugin.h"

#include "dock_placement.h"
#include "hotkeys.h"
#include "remote_control.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "output/vertical_recording.h"
#include "stream/mux_output.h"
#include "stream/stream_url.h"
#include "ui/settings_dialog.h"
#include "ui/stream_error_box.h"
#include "ui/vertical_dock.h"

#include <QCoreApplication>
#include <QMainWindow>
#include <QMessageBox>
#include <QMetaObject>

#include <string>

namespace cv {

namespace {

constexpr const char *kVersion = "1.0.0";
const std::string kRule(60, '=');

// The Tools menu item cannot be taken back from the host; it reaches the plug-in that
// is loaded, if any.
Plugin *loaded = nullptr;

void on_frontend_event(enum obs_frontend_event event, void *data)
{
	static_cast<Plugin *>(data)->handle_event(event);
}

// Shown once the event has been handled.
void post_rebuild_failure_box()
{
	QCoreApplication *app = QCoreApplication::instance();
	if (!app)
		return;
	QMetaObject::invokeMethod(
		app,
		[] {
			QMessageBox::information(nullptr, QString::fromUtf8(obs_module_text("RebuildFailed.Title")),
						 QString::fromUtf8(obs_module_text("RebuildFailed.Text")),
						 QMessageBox::Ok);
		},
		Qt::QueuedConnection);
}

} // namespace

Plugin::Plugin() = default;

// Unloads when the host did not: nothing of it may outlive it.
Plugin::~Plugin()
{
	if (joined_front_end_ || canvas_ || output_)
		unload();
}

bool Plugin::load()
{
	log_info("%s", kRule.c_str());
	log_info("Loading version %s", kVersion);
	log_info("%s", kRule.c_str());
	register_mux_output();
	log_debug("Registered output type: %s", kMuxOutputId);

	files_.open_global();
	files_.open_profile();
	settings_ = files_.profile();
	if (!build_runtime()) {
		log_error("Runtime init failed — plugin will not load");
		return false;
	}

	loaded = this;
	obs_frontend_add_event_callback(on_frontend_event, this);
	joined_front_end_ = true;
	hotkeys_ = std::make_unique<Hotkeys>([this](HotkeyAction action) { on_hotkey(action); });
	hotkeys_->load_bindings();
	obs_frontend_add_tools_menu_item(
		obs_module_text("Menu.Settings"),
		[](void *) {
			if (loaded)
				loaded->open_settings_dialog();
		},
		nullptr);
	log_info("Loaded successfully");
	log_info("Canvas : %ux%u @ %u/%u fps", settings_.canvaswidth, settings_.canvasheight, settings_.fpsnum,
		 settings_.fpsden);
	for (const DestinationSettings &destination : settings_.destinations)
		log_info("Destination '%s'%s: %s", destination.name.c_str(), destination.enabled ? "" : " (off)",
			 mask_url_for_log(destination.url, destination.key).c_str());
	log_info("Bitrate: %u kbps", settings_.videobitrate);
	log_info("Auto-start with main: %s", settings_.autostartwithmain ? "yes" : "no");
	log_info("%s", kRule.c_str());
	return true;
}

void Plugin::post_load()
{
	auto remote = std::make_unique<RemoteControl>(*this);
	if (remote->join_websocket())
		remote_ = std::move(remote);
}

void Plugin::unload()
{
	log_info("Unloading");
	remote_.reset();
	hotkeys_.reset();
	if (joined_front_end_) {
		obs_frontend_remove_event_callback(on_frontend_event, this);
		joined_front_end_ = false;
	}
	loaded = nullptr;
	save_scenes();
	take_down_runtime();
	// The dock is the host's; it only loses its runtime and its tie to this object.
	QObject::disconnect(scenes_changed_);
	QObject::disconnect(record_clicked_);
	dock_ = nullptr;
	files_.save();
	// A stream stopped just now may still be saying goodbye to its server.
	if (!wait_for_mux_streams(kStopBudget + std::chrono::seconds(1)))
		log_warning("A vertical stream was still closing its connection at unload");
	log_info("Unloaded");
}

void Plugin::handle_event(enum obs_frontend_event event)
{
	if (handling_event_)
		return;
	handling_event_ = true;
	switch (event) {
	case OBS_FRONTEND_EVENT_STREAMING_STARTING:
		if (settings_.autostartwithmain && output_ && !output_->is_active()) {
			log_info("Main stream starting — auto-starting vertical output");
			output_->start();
		}
		break;
	case OBS_FRONTEND_EVENT_STREAMING_STOPPED:
		if (output_ && output_->is_active()) {
			log_info("Main stream stopped — stopping vertical output");
			output_->stop();
		}
		break;
	case OBS_FRONTEND_EVENT_RECORDING_STARTED:
		if (settings_.autorecordwithmain && recording_ && !recording_->is_active()) {
			log_info("Main recording started — starting the vertical recording");
			if (const std::string error = start_recording(); !error.empty())
				log_warning("The vertical recording did not start: %s", error.c_str());
		}
		break;
	case OBS_FRONTEND_EVENT_RECORDING_STOPPING:
	case OBS_FRONTEND_EVENT_RECORDING_STOPPED:
		if (settings_.autorecordwithmain && recording_ && recording_->is_active()) {
			log_info("Main recording stopping — stopping the vertical recording");
			recording_->stop();
		}
		break;
	case OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED:
		if (canvas_)
			canvas_->rejoin_audio();
		break;
	case OBS_FRONTEND_EVENT_PROFILE_CHANGED:
		on_profile_changed();
		// The host keeps hotkey bindings per profile.
		if (hotkeys_)
			hotkeys_->load_bindings();
		break;
	case OBS_FRONTEND_EVENT_EXIT:
		// The websocket server stops with the host.
		if (remote_)
			remote_->leave_websocket();
		if (const std::optional<DockState> placement = dock_placement()) {
			files_.set_dock(*placement);
			log_info("Dock state saved (floating=%s, visible=%s)", *placement->floating ? "yes" : "no",
				 *placement->visible ? "yes" : "no");
		}
		if (output_ && output_->is_active()) {
			log_info("OBS exiting — stopping vertical output");
			output_->stop();
		}
		if (recording_)
			recording_->stop();
		break;
	case OBS_FRONTEND_EVENT_FINISHED_LOADING:
		show_runtime();
		break;
	default:
		break;
	}
	if (remote_)
		remote_->report_changes();
	handling_event_ = false;
}

VerticalDock *Plugin::dock() const
{
	return dock_.data();
}

void Plugin::save_settings(const PluginConfig &config)
{
	settings_ = config;
	files_.set_profile(config);
	if (output_)
		output_->update_config(output_config(config));
}

void Plugin::open_settings_dialog()
{
	auto *dialog = new SettingsDialog(
		settings_, [this](const PluginConfig &config) { save_settings(config); }, host_main_window());
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	dialog->exec();
}

bool Plugin::build_runtime()
{
	const CanvasConfig canvas_settings = canvas_config(settings_);
	auto canvas = std::make_unique<VerticalCanvas>(canvas_settings);
	if (!canvas->init()) {
		log_error("Canvas init failed");
		return false;
	}
	auto output = std::make_unique<VerticalOutput>(canvas.get(), output_config(settings_), post_stream_error_box);
	if (!output->init()) {
		log_error("Output init failed");
		canvas->shutdown();
		return false;
	}
	canvas_ = std::move(canvas);
	output_ = std::move(output);
	recording_ = std::make_unique<VerticalRecording>(output_->encoders(), post_recording_error_box);
	log_debug("Runtime created: %ux%u @ %u/%u fps", canvas_settings.width, canvas_settings.height,
		  canvas_settings.fps_num, canvas_settings.fps_den);
	return true;
}

void Plugin::take_down_runtime()
{
	if (dock_)
		dock_->setRuntime(nullptr, nullptr, nullptr);
	recording_.reset();
	if (output_ && output_->is_active())
		output_->stop();
	output_.reset();
	if (canvas_)
		canvas_->shutdown();
	canvas_.reset();
}

void Plugin::save_scenes()
{
	if (canvas_)
		files_.set_scenes(canvas_->scene_list());
}

// The saved scenes go on the canvas, every source assigned once more now that the host's
// scenes exist, and the dock (made the first time) shows them.
void Plugin::show_runtime()
{
	if (canvas_) {
		canvas_->restore(files_.scenes());
		canvas_->reassign_sources();
		// The host cleared its output channels while it loaded the scene collection.
		canvas_->rejoin_audio();
	}
	if (!dock_ && host_main_window()) {
		dock_ = new VerticalDock(canvas_.get(), output_.get(), recording_.get(), host_main_window());
		scenes_changed_ = QObject::connect(dock_, &VerticalDock::scenesChanged, [this] { save_scenes(); });
		record_clicked_ = QObject::connect(dock_, &VerticalDock::startRecordingRequested, [this] {
			if (const std::string error = start_recording(); !error.empty())
				log_warning("The vertical recording did not start: %s", error.c_str());
		});
		add_dock_to_host(dock_, files_.dock());
		log_info("Vertical Canvas dock registered");
	}
	if (dock_)
		dock_->setRuntime(canvas_.get(), output_.get(), recording_.get());
}

void Plugin::on_profile_changed()
{
	log_info("Profile change — rebuilding vertical runtime");
	save_scenes();
	take_down_runtime();
	files_.open_profile();
	settings_ = files_.profile();
	if (!build_runtime()) {
		log_error("Failed to rebuild vertical runtime after profile change");
		post_rebuild_failure_box();
		return;
	}
	show_runtime();
}

} // namespace cv
