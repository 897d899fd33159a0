#include "plugin.h"

#include "dock_placement.h"
#include "host_video.h"
#include "hotkeys.h"
#include "remote_control.h"
#include "scene_collection.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "output/vertical_recording.h"
#include "stream/mux_output.h"
#include "stream/stream_url.h"
#include "ui/notices.h"
#include "ui/settings_dialog.h"
#include "ui/vertical_dock.h"

#include <QCoreApplication>
#include <QMainWindow>
#include <QMetaObject>
#include <QTimer>

#include <string>

namespace cv {

namespace {

constexpr const char *kVersion = "1.0.0";
const std::string kRule(60, '=');
// How long a profile switch or the unload waits for the vertical outputs to let go of the
// canvas: a stop hands its encoders back within milliseconds; a hung one is given up on.
constexpr auto kTeardownWait = std::chrono::seconds(5);
// How often the host's video settings are compared while a vertical output runs.
constexpr int kHostVideoCheckMs = 1000;

// The Tools menu item cannot be taken back from the host; it reaches the plug-in that
// is loaded, if any.
Plugin *loaded = nullptr;

void on_frontend_event(enum obs_frontend_event event, void *data)
{
	static_cast<Plugin *>(data)->handle_event(event);
}

void on_collection(obs_data_t *data, bool saving, void *plugin)
{
	static_cast<Plugin *>(plugin)->handle_collection(data, saving);
}

// Runs `work` on the UI thread later, for as long as `context` lives; from any thread.
template<typename Work> void later(QObject *context, Work work)
{
	QMetaObject::invokeMethod(context, std::move(work), Qt::QueuedConnection);
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
	context_ = std::make_unique<QObject>();

	files_.open_global();
	files_.open_profile();
	settings_ = sanitized(files_.profile(), &warnings_);
	for (const SettingWarning &warning : warnings_)
		log_warning("The profile's %s=%s cannot be used — its default is used instead", warning.key.c_str(),
			    warning.value.c_str());
	// The scenes of earlier versions, until the scene collection brings its own.
	scenes_ = files_.scenes();
	if (!build_runtime())
		log_error("The vertical canvas could not be made; the dock stays empty until a profile switch");

	loaded = this;
	obs_frontend_add_event_callback(on_frontend_event, this);
	obs_frontend_add_save_callback(on_collection, this);
	joined_front_end_ = true;
	host_scenes_ = std::make_unique<HostSceneWatch>(context_.get(), [this](const HostSceneEvent &event) {
		on_host_scene_event(event);
	});
	hotkeys_ = std::make_unique<Hotkeys>([this](HotkeyAction action) { on_hotkey(action); });
	hotkeys_->load_bindings();
	obs_frontend_add_tools_menu_item(
		obs_module_text("Menu.Settings"),
		[](void *) {
			if (loaded)
				loaded->open_settings_dialog();
		},
		nullptr);
	if (QCoreApplication::instance()) {
		auto *watch = new QTimer(context_.get());
		watch->setInterval(kHostVideoCheckMs);
		QObject::connect(watch, &QTimer::timeout, [this] { check_host_video(); });
		watch->start();
	}

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
	// Before the host restores its dock layout, which then places the dock too.
	show_runtime();
	auto remote = std::make_unique<RemoteControl>(*this);
	if (remote->join_websocket())
		remote_ = std::move(remote);
}

void Plugin::unload()
{
	log_info("Unloading");
	remote_.reset();
	hotkeys_.reset();
	host_scenes_.reset();
	if (joined_front_end_) {
		obs_frontend_remove_event_callback(on_frontend_event, this);
		obs_frontend_remove_save_callback(on_collection, this);
		joined_front_end_ = false;
	}
	loaded = nullptr;
	if (settings_dialog_)
		delete settings_dialog_.data();
	take_down_runtime();
	// The dock is the host's; it only loses its runtime and its tie to this object.
	QObject::disconnect(record_clicked_);
	if (dock_)
		dock_->setCommands(nullptr);
	dock_ = nullptr;
	context_.reset();
	files_.save();
	// A stream stopped just now may still be saying goodbye to its server.
	if (!wait_for_mux_streams(kStopBudget + std::chrono::seconds(1)))
		log_warning("A vertical stream was still closing its connection at unload");
	log_info("Unloaded");
}

void Plugin::handle_event(enum obs_frontend_event event)
{
	if (handling_event_) {
		log_warning("Front-end event %d came while another was handled; it is dropped", int(event));
		return;
	}
	handling_event_ = true;
	switch (event) {
	case OBS_FRONTEND_EVENT_STREAMING_STARTING:
		if (settings_.autostartwithmain && output_ && !output_->is_active()) {
			log_info("Main stream starting — auto-starting vertical output");
			if (const Error error = start_streaming())
				log_warning("The vertical stream did not start: %s", english(error).c_str());
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
			if (const Error error = start_recording())
				log_warning("The vertical recording did not start: %s", english(error).c_str());
		}
		break;
	case OBS_FRONTEND_EVENT_RECORDING_PAUSED:
	case OBS_FRONTEND_EVENT_RECORDING_UNPAUSED:
		if (settings_.autorecordwithmain && recording_ && recording_->is_active())
			recording_->set_paused(event == OBS_FRONTEND_EVENT_RECORDING_PAUSED);
		break;
	case OBS_FRONTEND_EVENT_RECORDING_STOPPING:
	case OBS_FRONTEND_EVENT_RECORDING_STOPPED:
		if (settings_.autorecordwithmain && recording_ && recording_->is_active()) {
			log_info("Main recording stopping — stopping the vertical recording");
			recording_->stop();
		}
		break;
	case OBS_FRONTEND_EVENT_REPLAY_BUFFER_STARTED:
		if (settings_.replaywithmain && replay_ && !replay_->is_active()) {
			log_info("Main replay buffer started — starting the vertical replay buffer");
			if (const Error error = start_replay_buffer())
				log_warning("The vertical replay buffer did not start: %s", english(error).c_str());
		}
		break;
	case OBS_FRONTEND_EVENT_REPLAY_BUFFER_STOPPING:
	case OBS_FRONTEND_EVENT_REPLAY_BUFFER_STOPPED:
		if (settings_.replaywithmain && replay_ && replay_->is_active()) {
			log_info("Main replay buffer stopping — stopping the vertical replay buffer");
			replay_->stop();
		}
		break;
	case OBS_FRONTEND_EVENT_REPLAY_BUFFER_SAVED:
		if (settings_.replaywithmain && replay_ && replay_->is_active()) {
			log_info("Main replay saved — saving the vertical replay");
			save_replay();
		}
		break;
	case OBS_FRONTEND_EVENT_SCENE_CHANGED:
		follow_main_scene();
		break;
	case OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGING:
	case OBS_FRONTEND_EVENT_SCENE_COLLECTION_CLEANUP:
		release_collection();
		break;
	case OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED:
		settle_collection();
		break;
	case OBS_FRONTEND_EVENT_PROFILE_CHANGING:
		on_profile_changing();
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
		if (output_ && output_->is_active()) {
			log_info("OBS exiting — stopping vertical output");
			output_->stop();
		}
		if (recording_)
			recording_->stop();
		if (replay_)
			replay_->stop();
		break;
	case OBS_FRONTEND_EVENT_FINISHED_LOADING:
		settle_collection();
		if (!dock_)
			show_runtime();
		settle_dock();
		break;
	default:
		break;
	}
	if (remote_)
		remote_->report_changes();
	handling_event_ = false;
}

// The host saves its scene collection often (every edit); loads it at start-up and at
// every switch, after its own sources and before SCENE_COLLECTION_CHANGED.
void Plugin::handle_collection(obs_data_t *data, bool saving)
{
	if (saving) {
		write_scene_list(data, canvas_ && collection_read_ ? canvas_->scene_list() : scenes_);
		return;
	}
	if (std::optional<SceneList> list = read_scene_list(data)) {
		scenes_ = std::move(*list);
	} else {
		log_info("The scene collection has no vertical scenes yet — starting from the saved list");
		scenes_ = files_.scenes();
	}
	collection_read_ = true;
	if (canvas_)
		canvas_->replace_scenes(scenes_);
	if (dock_)
		dock_->refreshSceneList();
}

// Everything that holds on to the old collection's sources lets go before the host
// clears them; the list stays for the host's last save of that collection.
void Plugin::release_collection()
{
	if (canvas_ && collection_read_)
		scenes_ = canvas_->scene_list();
	if (canvas_)
		canvas_->clear_scenes();
	collection_read_ = false;
	if (dock_)
		dock_->refreshSceneList();
}

// A collection loaded without the host's load of its data (a new, empty one) starts from
// the list earlier versions kept for all collections.
void Plugin::settle_collection()
{
	if (!collection_read_) {
		scenes_ = files_.scenes();
		collection_read_ = true;
		if (canvas_)
			canvas_->replace_scenes(scenes_);
	}
	if (canvas_) {
		canvas_->resolve_pending();
		// The host cleared its output channels while it loaded the scene collection.
		canvas_->rejoin_audio();
	}
	if (dock_)
		dock_->refreshSceneList();
}

VerticalDock *Plugin::dock() const
{
	return dock_.data();
}

SettingsDialog *Plugin::settings_dialog() const
{
	return settings_dialog_.data();
}

void Plugin::save_settings(const PluginConfig &config)
{
	settings_ = sanitized(config, &warnings_);
	files_.set_profile(settings_);
	if (!output_)
		return;
	output_->update_config(output_config(settings_));
	if (canvas_ && !(canvas_->config() == canvas_config(settings_))) {
		canvas_pending_ = true;
		if (output_->idle())
			apply_pending();
		else
			log_info("Canvas and audio settings saved — they apply when the vertical stream and recording "
				 "have stopped");
	}
}

void Plugin::open_settings_dialog()
{
	// The profile being left is no longer the one to edit.
	if (profile_pending_) {
		settings_requested_ = true;
		return;
	}
	if (settings_dialog_) {
		settings_dialog_->raise();
		settings_dialog_->activateWindow();
		return;
	}
	auto *dialog = new SettingsDialog(
		settings_, warnings_, output_ && !output_->idle(),
		[this](const PluginConfig &config) { save_settings(config); }, host_main_window());
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	settings_dialog_ = dialog;
	// Not modal: the host stays usable while it is open.
	dialog->show();
}

// The canvas stays across profile switches, taking the new profile's size and audio:
// making one anew would wait for the host's renderer.
bool Plugin::build_runtime()
{
	const CanvasConfig canvas_settings = canvas_config(settings_);
	std::unique_ptr<VerticalCanvas> canvas = std::move(canvas_);
	if (canvas && !canvas->reconfigure(canvas_settings))
		canvas.reset();
	const bool kept = canvas != nullptr;
	if (!canvas) {
		canvas = std::make_unique<VerticalCanvas>(canvas_settings);
		if (!canvas->init()) {
			log_error("Canvas init failed");
			return false;
		}
	}
	auto output = std::make_unique<VerticalOutput>(canvas.get(), output_config(settings_),
						       [](const std::string &name, const Error &error) {
							       post_notice(NoticeKind::Stream, name, error);
						       });
	if (!output->init()) {
		log_error("Output init failed");
		return false;
	}
	QObject *context = context_.get();
	output->set_on_idle([this, context] { later(context, [this] { on_output_idle(); }); });
	canvas_ = std::move(canvas);
	output_ = std::move(output);
	recording_ = std::make_unique<VerticalRecording>(*output_, RecordingKind::File, [](const Error &error) {
		post_notice(NoticeKind::Recording, {}, error);
	});
	replay_ = std::make_unique<VerticalRecording>(
		*output_, RecordingKind::ReplayBuffer,
		[](const Error &error) { post_notice(NoticeKind::Replay, {}, error); },
		[this, context](const std::string &path) { later(context, [this, path] { replay_saved(path); }); });
	if (collection_read_ && !kept)
		canvas_->replace_scenes(scenes_);
	log_debug("Runtime created: %ux%u @ %u/%u fps", canvas_settings.width, canvas_settings.height,
		  canvas_settings.fps_num, canvas_settings.fps_den);
	return true;
}

void Plugin::take_down_runtime(bool keep_canvas)
{
	if (dock_)
		dock_->setRuntime(keep_canvas ? canvas_.get() : nullptr, nullptr, nullptr, nullptr);
	if (canvas_ && collection_read_ && !keep_canvas)
		scenes_ = canvas_->scene_list();
	if (recording_)
		recording_->stop();
	if (replay_)
		replay_->stop();
	if (output_) {
		output_->stop();
		// The canvas goes next: nothing may still be encoding it.
		if (!output_->wait_idle(kTeardownWait))
			log_warning("The vertical output was still stopping after %lld s",
				    (long long)kTeardownWait.count());
	}
	recording_.reset();
	replay_.reset();
	output_.reset();
	if (!keep_canvas)
		canvas_.reset();
	canvas_pending_ = false;
}

// The dock, made the first time, shows the runtime.
void Plugin::show_runtime()
{
	if (!dock_ && host_main_window()) {
		dock_ = new VerticalDock(this, canvas_.get(), output_.get(), recording_.get(), replay_.get(),
					 host_main_window());
		add_dock_to_host(dock_);
		log_info("Vertical Canvas dock registered");
	}
	if (dock_)
		dock_->setRuntime(canvas_.get(), output_.get(), recording_.get(), replay_.get());
}

// The host resets its video for the new profile right after this, and cannot while
// anything vertical runs. Idle, the runtime goes at once; running, its outputs are asked to
// stop and the new profile follows once they have: waiting here would hold up the host's
// window, and the host's video settings are applied then.
void Plugin::on_profile_changing()
{
	// One profile's destinations and keys never land in another's file.
	if (settings_dialog_)
		delete settings_dialog_.data();
	if (!output_ || output_->idle()) {
		log_info("Profile changing");
		take_down_runtime(true);
		return;
	}
	log_info("Profile changing — stopping the vertical outputs; the new profile applies once they have stopped");
	profile_pending_ = true;
	if (recording_)
		recording_->stop();
	if (replay_)
		replay_->stop();
	output_->stop();
}

void Plugin::on_profile_changed()
{
	if (profile_pending_ && output_ && !output_->idle())
		return;
	take_up_profile();
}

void Plugin::take_up_profile()
{
	log_info("Profile change — rebuilding vertical runtime");
	const bool host_video_behind = profile_pending_;
	profile_pending_ = false;
	if (output_)
		take_down_runtime(true);
	if (settings_dialog_)
		delete settings_dialog_.data();
	files_.open_profile();
	warnings_.clear();
	settings_ = sanitized(files_.profile(), &warnings_);
	for (const SettingWarning &warning : warnings_)
		log_warning("The profile's %s=%s cannot be used — its default is used instead", warning.key.c_str(),
			    warning.value.c_str());
	// The host's reset came while the old outputs still ran.
	host_video_pending_ = host_video_behind;
	if (!build_runtime())
		log_error("Failed to rebuild vertical runtime after profile change");
	show_runtime();
	if (settings_requested_) {
		settings_requested_ = false;
		open_settings_dialog();
	}
	apply_pending();
}

void Plugin::on_output_idle()
{
	if (!output_ || !output_->idle())
		return;
	output_->drop_unused_video();
	if (profile_pending_)
		take_up_profile();
	else
		apply_pending();
}

void Plugin::apply_pending()
{
	if (canvas_pending_ && canvas_) {
		canvas_pending_ = false;
		if (canvas_->reconfigure(canvas_config(settings_)) && dock_)
			dock_->setRuntime(canvas_.get(), output_.get(), recording_.get(), replay_.get());
	}
	if (host_video_pending_) {
		host_video_pending_ = false;
		if (host_video_unapplied()) {
			log_info("Applying the host's video settings now that the vertical output has stopped");
			obs_frontend_reset_video();
		}
	}
}

// The host refuses to reset its video while a vertical output runs; then the user is told,
// and the settings are applied once it has stopped.
void Plugin::check_host_video()
{
	// The host's scenes are as large as its canvas, which its video settings change.
	if (canvas_ && canvas_->follow_host_sizes())
		log_info("OBS's canvas changed size: the vertical scenes are framed anew");
	if (canvas_)
		canvas_->settle_audio();
	if (host_video_pending_ || !output_ || output_->idle() || !host_video_unapplied())
		return;
	host_video_pending_ = true;
	log_warning("The host could not apply its new video settings while the vertical output runs; they apply "
		    "when it stops");
	post_notice(NoticeKind::Info, {}, ErrorCode::HostVideoUnapplied);
}

void Plugin::on_host_scene_event(const HostSceneEvent &event)
{
	if (!canvas_ || !collection_read_)
		return;
	const bool changed = event.kind == HostSceneEvent::Kind::Renamed
				     ? canvas_->host_source_renamed(event.source, event.new_name)
				     : canvas_->host_source_removed(event.source);
	if (changed)
		scenes_edited();
}

} // namespace cv
