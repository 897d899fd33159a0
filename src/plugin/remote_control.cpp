#include "remote_control.h"

#include "dock_placement.h"
#include "plugin.h"
#include "scene_collection.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "output/vertical_recording.h"

#include <QMetaObject>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

namespace cv {

namespace {

// How long a request waits for the UI thread, which may be busy with a profile switch.
constexpr std::chrono::seconds kUiTimeout(5);
// How often states are compared for events.
constexpr std::chrono::milliseconds kWatchPeriod(100);

// The control requests are handed to, while there is one. The websocket server keeps
// the request callbacks for as long as it runs, so they look here every time.
std::mutex current_mutex;
RemoteControl *current = nullptr;

OBSData new_data()
{
	OBSDataAutoRelease data = obs_data_create();
	return OBSData(data.Get());
}

OBSData reply(const Error &error)
{
	OBSData data = new_data();
	obs_data_set_bool(data, "ok", !error);
	if (error) {
		obs_data_set_string(data, "error", english(error).c_str());
		obs_data_set_string(data, "errorCode", error_name(error.code));
	}
	return data;
}

// Whether the request has the field; an error when it has it with another type.
Error typed_field(obs_data_t *request, const char *name, obs_data_type type, bool *present)
{
	obs_data_item_t *item = request ? obs_data_item_byname(request, name) : nullptr;
	*present = item != nullptr;
	const bool typed = *present && obs_data_item_gettype(item) == type;
	obs_data_item_release(&item);
	if (!*present || typed)
		return {};
	switch (type) {
	case OBS_DATA_NUMBER:
		return {ErrorCode::FieldNotNumber, name};
	case OBS_DATA_BOOLEAN:
		return {ErrorCode::FieldNotBool, name};
	case OBS_DATA_OBJECT:
		return {ErrorCode::FieldNotObject, name};
	default:
		return {ErrorCode::FieldNotString, name};
	}
}

// A string field of the request; an error when it is missing or not a string. An
// optional one that is missing is left as it is.
Error read_string(obs_data_t *request, const char *name, std::string *value, bool optional = false)
{
	bool present = false;
	if (Error error = typed_field(request, name, OBS_DATA_STRING, &present))
		return error;
	if (present)
		*value = obs_data_get_string(request, name);
	return present || optional ? Error() : Error(ErrorCode::MissingField, name);
}

// An optional number field; left as it is when missing.
Error read_number(obs_data_t *request, const char *name, double *value)
{
	bool present = false;
	if (Error error = typed_field(request, name, OBS_DATA_NUMBER, &present))
		return error;
	if (present)
		*value = obs_data_get_double(request, name);
	return {};
}

// An optional region field: an object with all four of x, y, width and height.
Error read_region(obs_data_t *request, const char *name, Region *region)
{
	bool present = false;
	if (Error error = typed_field(request, name, OBS_DATA_OBJECT, &present); error || !present)
		return error;
	OBSDataAutoRelease object = obs_data_get_obj(request, name);
	Region read;
	const std::pair<const char *, double *> fields[] = {{"x", &read.x},
							    {"y", &read.y},
							    {"width", &read.width},
							    {"height", &read.height}};
	for (const auto &[field, value] : fields) {
		const std::string full = std::string(name) + "." + field;
		if (Error error = typed_field(object, field, OBS_DATA_NUMBER, &present))
			return {error.code, full};
		if (!present)
			return {ErrorCode::MissingField, full};
		*value = obs_data_get_double(object, field);
	}
	*region = read;
	return {};
}

// The destination a request names by "destination" (all when it names none).
Error destination_field(Plugin &plugin, obs_data_t *request, std::string *id)
{
	std::string name;
	if (Error error = read_string(request, "destination", &name, true))
		return error;
	if (name.empty())
		return {};
	*id = plugin.destination_id(name);
	return id->empty() ? Error(ErrorCode::NoSuchDestination, name) : Error();
}

// The scene's layout with the fields the request has; the plug-in checks the result.
Error set_scene_layout(Plugin &plugin, obs_data_t *request)
{
	std::string scene;
	if (Error error = read_string(request, "sceneName", &scene))
		return error;
	const VerticalCanvas *canvas = plugin.canvas();
	if (!canvas)
		return ErrorCode::NoCanvas;
	std::optional<SceneLayout> layout = canvas->scene_layout(scene);
	if (!layout)
		return {ErrorCode::NoSuchScene, scene};
	std::string kind = layout_name(layout->kind);
	if (Error error = read_string(request, "layout", &kind, true))
		return error;
	if (!layout_kind(kind))
		return {ErrorCode::NoSuchLayout, kind};
	layout->kind = *layout_kind(kind);
	Error error;
	const std::pair<const char *, double *> numbers[] = {{"focusX", &layout->focus_x},
							     {"focusY", &layout->focus_y},
							     {"zoom", &layout->zoom},
							     {"split", &layout->split}};
	for (const auto &[name, value] : numbers)
		if (!error)
			error = read_number(request, name, value);
	if (!error)
		error = read_string(request, "background", &layout->background, true);
	if (!error)
		error = read_region(request, "top", &layout->top);
	if (!error)
		error = read_region(request, "bottom", &layout->bottom);
	return error ? error : plugin.set_scene_layout(scene, *layout);
}

Error set_transition(Plugin &plugin, obs_data_t *request)
{
	const VerticalCanvas *canvas = plugin.canvas();
	if (!canvas)
		return ErrorCode::NoCanvas;
	TransitionSettings transition = canvas->transition();
	double duration = transition.duration_ms;
	Error error = read_string(request, "transitionKind", &transition.kind, true);
	if (!error)
		error = read_number(request, "transitionDuration", &duration);
	if (error)
		return error;
	// Whole milliseconds only; checked here, before it is made one.
	if (duration != std::floor(duration) || duration < kMinTransitionMs || duration > kMaxTransitionMs)
		return {ErrorCode::OutOfRange, "transitionDuration [50, 20000]"};
	transition.duration_ms = uint32_t(duration);
	return plugin.set_transition(transition);
}

using Handler = Error (*)(Plugin &plugin, obs_data_t *request);

// One handler per request; GetStatus is answered by the control itself.
const struct {
	const char *type;
	Handler handle;
} kRequests[] = {
	{"GetStatus", nullptr},
	{"StartStreaming",
	 [](Plugin &plugin, obs_data_t *request) {
		 std::string id;
		 const Error error = destination_field(plugin, request, &id);
		 return error ? error : plugin.start_streaming(id);
	 }},
	{"StopStreaming",
	 [](Plugin &plugin, obs_data_t *request) {
		 std::string id;
		 const Error error = destination_field(plugin, request, &id);
		 return error ? error : plugin.stop_streaming(id);
	 }},
	{"StartRecording",
	 [](Plugin &plugin, obs_data_t *) {
		 return plugin.start_recording();
	 }},
	{"StopRecording",
	 [](Plugin &plugin, obs_data_t *) {
		 return plugin.stop_recording();
	 }},
	{"StartReplayBuffer",
	 [](Plugin &plugin, obs_data_t *) {
		 return plugin.start_replay_buffer();
	 }},
	{"StopReplayBuffer",
	 [](Plugin &plugin, obs_data_t *) {
		 return plugin.stop_replay_buffer();
	 }},
	{"SaveReplay",
	 [](Plugin &plugin, obs_data_t *) {
		 return plugin.save_replay();
	 }},
	{"SetActiveScene",
	 [](Plugin &plugin, obs_data_t *request) {
		 std::string scene;
		 const Error error = read_string(request, "sceneName", &scene);
		 return error ? error : plugin.set_active_scene(scene);
	 }},
	{"CreateScene",
	 [](Plugin &plugin, obs_data_t *request) {
		 std::string scene;
		 const Error error = read_string(request, "sceneName", &scene);
		 return error ? error : plugin.create_scene(scene);
	 }},
	{"RemoveScene",
	 [](Plugin &plugin, obs_data_t *request) {
		 std::string scene;
		 const Error error = read_string(request, "sceneName", &scene);
		 return error ? error : plugin.remove_scene(scene);
	 }},
	{"RenameScene",
	 [](Plugin &plugin, obs_data_t *request) {
		 std::string scene, new_name;
		 Error error = read_string(request, "sceneName", &scene);
		 if (!error)
			 error = read_string(request, "newSceneName", &new_name);
		 return error ? error : plugin.rename_scene(scene, new_name);
	 }},
	{"AssignHostScene",
	 [](Plugin &plugin, obs_data_t *request) {
		 std::string scene, host_scene;
		 Error error = read_string(request, "sceneName", &scene);
		 if (!error)
			 error = read_string(request, "hostSceneName", &host_scene);
		 return error ? error : plugin.assign_host_scene(scene, host_scene);
	 }},
	{"SetSceneLayout", set_scene_layout},
	{"SetTransition", set_transition},
	{"SetFollowMainScene",
	 [](Plugin &plugin, obs_data_t *request) {
		 bool present = false;
		 Error error = typed_field(request, "enabled", OBS_DATA_BOOLEAN, &present);
		 if (!error && !present)
			 error = {ErrorCode::MissingField, "enabled"};
		 return error ? error : plugin.set_follow_main_scene(obs_data_get_bool(request, "enabled"));
	 }},
};

// The reply to a request, made on the UI thread and waited for on the server's.
struct PendingReply {
	std::mutex mutex;
	std::condition_variable ready;
	OBSData data;

	void finish(OBSData reply)
	{
		std::lock_guard lock(mutex);
		data = std::move(reply);
		ready.notify_all();
	}
	OBSData wait()
	{
		std::unique_lock lock(mutex);
		ready.wait_for(lock, kUiTimeout, [this] { return data != nullptr; });
		return data;
	}
};

void on_request(obs_data_t *request, obs_data_t *response, void *type_data)
{
	const std::string type = static_cast<const char *>(type_data);
	auto pending = std::make_shared<PendingReply>();
	RemoteControl *control = nullptr;
	bool on_ui_thread = false;
	{
		std::lock_guard lock(current_mutex);
		control = current;
		on_ui_thread = control && QThread::currentThread() == control->thread();
		if (control && !on_ui_thread) {
			// Held by the posted work, which outlives this call when it times out.
			OBSData held = request;
			QMetaObject::invokeMethod(
				control,
				[control, type, held, pending] { pending->finish(control->handle(type, held)); },
				Qt::QueuedConnection);
		}
	}
	OBSData answer;
	if (!control)
		answer = reply(ErrorCode::NotLoaded);
	else if (on_ui_thread) // another module calling it there: the control cannot go meanwhile
		answer = control->handle(type, request);
	else if (!(answer = pending->wait()))
		answer = reply(ErrorCode::RequestTimeout);
	obs_data_apply(response, answer);
}

} // namespace

RemoteControl::RemoteControl(Plugin &plugin) : plugin_(plugin), watch_(new QTimer(this))
{
	watch_->setInterval(int(kWatchPeriod.count()));
	connect(watch_, &QTimer::timeout, this, &RemoteControl::report_changes);
}

RemoteControl::~RemoteControl()
{
	std::lock_guard lock(current_mutex);
	if (current == this)
		current = nullptr;
}

bool RemoteControl::join_websocket()
{
	vendor_ = websocket::register_vendor(kVendorName);
	if (!vendor_)
		return false;
	for (const auto &request : kRequests)
		if (!websocket::register_request(vendor_, request.type, on_request, const_cast<char *>(request.type)))
			log_warning("Websocket request %s could not be registered", request.type);
	{
		std::lock_guard lock(current_mutex);
		current = this;
	}
	report_changes();
	watch_->start();
	log_info("Websocket requests offered by vendor \"%s\"", kVendorName);
	return true;
}

void RemoteControl::leave_websocket()
{
	watch_->stop();
	vendor_ = nullptr;
}

OBSData RemoteControl::handle(const std::string &type, obs_data_t *request)
{
	const auto found = std::find_if(std::begin(kRequests), std::end(kRequests),
					[&](const auto &known) { return type == known.type; });
	if (found == std::end(kRequests) || !found->handle)
		return status();
	const Error error = found->handle(plugin_, request);
	if (error)
		log_info("Websocket request %s refused: %s", type.c_str(), english(error).c_str());
	// What the request changed is told before its reply.
	report_changes();
	return reply(error);
}

OBSData RemoteControl::status()
{
	OBSData data = reply(Error());
	VerticalOutput *output = plugin_.output();
	VerticalRecording *recording = plugin_.recording();
	VerticalCanvas *canvas = plugin_.canvas();
	obs_data_set_bool(data, "streaming", output && output->is_active());
	obs_data_set_bool(data, "recording", recording && recording->is_active());
	obs_data_set_bool(data, "recordingPaused", recording && recording->is_paused());
	obs_data_set_bool(data, "replayBuffer", plugin_.replay_buffer() && plugin_.replay_buffer()->is_active());
	obs_data_set_string(data, "activeScene", canvas ? canvas->active_scene_name().c_str() : "");

	// The host's data arrays hold objects only: each scene is {sceneName, hostSceneName,
	// layout}, the layout's default regions those of its host scene's size.
	OBSDataArrayAutoRelease scenes = obs_data_array_create();
	if (canvas) {
		for (const std::string &name : canvas->scene_names()) {
			OBSDataAutoRelease scene = obs_data_create();
			obs_data_set_string(scene, "sceneName", name.c_str());
			obs_data_set_string(scene, "hostSceneName", canvas->scene_source_name(name).c_str());
			OBSDataAutoRelease layout = obs_data_create();
			const SourceSize size = canvas->scene_source_size(name);
			write_layout(layout, canvas->scene_layout(name).value_or(SceneLayout()), size.width,
				     size.height);
			obs_data_set_obj(scene, "layout", layout);
			obs_data_array_push_back(scenes, scene);
		}
	}
	obs_data_set_array(data, "scenes", scenes);
	OBSDataAutoRelease transition = obs_data_create();
	write_transition(transition, canvas ? canvas->transition() : TransitionSettings());
	obs_data_set_obj(data, "transition", transition);
	obs_data_set_bool(data, "followMainScene", canvas && canvas->follow_main());
	if (const std::optional<DockPlacement> placement = dock_placement()) {
		OBSDataAutoRelease dock = obs_data_create();
		obs_data_set_bool(dock, "visible", placement->visible);
		obs_data_set_bool(dock, "floating", placement->floating);
		obs_data_set_string(dock, "area", placement->area.c_str());
		OBSDataArrayAutoRelease covers = obs_data_array_create();
		for (const std::string &name : placement->covers) {
			OBSDataAutoRelease entry = obs_data_create();
			obs_data_set_string(entry, "dockName", name.c_str());
			obs_data_array_push_back(covers, entry);
		}
		obs_data_set_array(dock, "covers", covers);
		obs_data_set_obj(data, "dock", dock);
	}

	// Without a canvas (a profile whose canvas cannot be built), the one it asks for.
	const PluginConfig &settings = plugin_.settings();
	OBSDataAutoRelease format = obs_data_create();
	obs_data_set_int(format, "width", canvas ? canvas->width() : settings.canvaswidth);
	obs_data_set_int(format, "height", canvas ? canvas->height() : settings.canvasheight);
	obs_data_set_int(format, "fpsNum", canvas ? canvas->fps_num() : settings.fpsnum);
	obs_data_set_int(format, "fpsDen", canvas ? canvas->fps_den() : settings.fpsden);
	obs_data_set_obj(data, "canvas", format);

	OBSDataArrayAutoRelease destinations = obs_data_array_create();
	for (const DestinationStatus &status : output ? output->destinations() : std::vector<DestinationStatus>()) {
		OBSDataAutoRelease destination = obs_data_create();
		obs_data_set_string(destination, "id", status.id.c_str());
		obs_data_set_string(destination, "name", status.name.c_str());
		obs_data_set_bool(destination, "enabled", status.enabled);
		obs_data_set_string(destination, "state", state_name(status.state));
		obs_data_set_int(destination, "kbps", status.kbps);
		obs_data_set_int(destination, "droppedFrames", (long long)status.stats.dropped.video_frames);
		obs_data_set_int(destination, "reconnects", status.stats.reconnects);
		obs_data_set_int(destination, "uptimeSeconds",
				 std::chrono::duration_cast<std::chrono::seconds>(status.stats.live_for).count());
		if (status.error) {
			obs_data_set_string(destination, "error", english(status.error).c_str());
			obs_data_set_string(destination, "errorCode", error_name(status.error.code));
		}
		obs_data_array_push_back(destinations, destination);
	}
	obs_data_set_array(data, "destinations", destinations);
	return data;
}

void RemoteControl::report_changes()
{
	Seen now;
	if (VerticalOutput *output = plugin_.output())
		for (const DestinationStatus &status : output->destinations())
			now.destinations.push_back({status.id, status.name, status.state});
	now.recording = plugin_.recording() && plugin_.recording()->is_active();
	now.replay_buffer = plugin_.replay_buffer() && plugin_.replay_buffer()->is_active();
	now.scene = plugin_.canvas() ? plugin_.canvas()->active_scene_name() : std::string();
	if (seen_once_) {
		auto find = [](const Seen &seen, const std::string &id) {
			return std::find_if(seen.destinations.begin(), seen.destinations.end(),
					    [&](const Seen::Destination &entry) { return entry.id == id; });
		};
		auto tell = [this](const Seen::Destination &destination, StreamState state) {
			OBSDataAutoRelease event = obs_data_create();
			obs_data_set_string(event, "destination", destination.name.c_str());
			obs_data_set_string(event, "id", destination.id.c_str());
			obs_data_set_string(event, "state", state_name(state));
			emit_event("StreamingStateChanged", event);
		};
		for (const Seen::Destination &destination : now.destinations) {
			const auto before = find(seen_, destination.id);
			const StreamState was = before == seen_.destinations.end() ? StreamState::Stopped
										   : before->state;
			if (destination.state != was)
				tell(destination, destination.state);
		}
		// Gone with a profile switch (or taken out of the settings) while it streamed: it stopped.
		for (const Seen::Destination &destination : seen_.destinations)
			if (destination.state != StreamState::Stopped &&
			    find(now, destination.id) == now.destinations.end())
				tell(destination, StreamState::Stopped);
		if (now.recording != seen_.recording) {
			OBSDataAutoRelease event = obs_data_create();
			obs_data_set_bool(event, "recording", now.recording);
			emit_event("RecordingStateChanged", event);
		}
		if (now.replay_buffer != seen_.replay_buffer) {
			OBSDataAutoRelease event = obs_data_create();
			obs_data_set_bool(event, "replayBuffer", now.replay_buffer);
			emit_event("ReplayBufferStateChanged", event);
		}
		if (now.scene != seen_.scene) {
			OBSDataAutoRelease event = obs_data_create();
			obs_data_set_string(event, "sceneName", now.scene.c_str());
			emit_event("ActiveSceneChanged", event);
		}
	}
	seen_ = std::move(now);
	seen_once_ = true;
}

void RemoteControl::report_replay_saved(const std::string &path)
{
	OBSDataAutoRelease event = obs_data_create();
	obs_data_set_string(event, "path", path.c_str());
	emit_event("ReplaySaved", event);
}

void RemoteControl::emit_event(const char *type, obs_data_t *data)
{
	if (vendor_)
		websocket::emit_event(vendor_, type, data);
}

} // namespace cv
