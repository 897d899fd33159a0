#include "vertical_recording.h"

#include "vertical_output.h"

#include "base/log.h"

#include <util/platform.h>
#include <util/util.hpp>

#include <cstring>
#include <filesystem>
#include <string_view>
#include <thread>

namespace cv {

namespace {

constexpr const char *kFileMuxerId = "ffmpeg_muxer";
constexpr const char *kReplayBufferId = "replay_buffer";
constexpr const char *kReplayName = "%CCYY-%MM-%DD %hh-%mm-%ss vertical replay";
// What a replay buffer may hold in memory whatever its seconds: at the highest bitrates
// the settings allow, ten minutes would not fit in memory a streamer can spare.
constexpr long long kReplayMaxMegabytes = 2048;

struct Container {
	const char *extension;
	const char *muxer_settings;
};

// The host's recording formats that its file muxer writes; anything else (HLS, a format
// of a newer host) is recorded as Matroska.
Container container_for(std::string_view format)
{
	if (format == "mp4" || format == "hybrid_mp4")
		return {"mp4", ""};
	if (format == "fragmented_mp4")
		return {"mp4", "movflags=frag_keyframe+empty_moov+delay_moov"};
	if (format == "mov" || format == "hybrid_mov")
		return {"mov", ""};
	if (format == "fragmented_mov")
		return {"mov", "movflags=frag_keyframe+empty_moov+delay_moov"};
	if (format == "flv")
		return {"flv", ""};
	if (format == "ts")
		return {"ts", ""};
	return {"mkv", ""};
}

// "<date> <time> vertical.<extension>" in the folder, never a file that exists.
std::string new_file_path(const std::string &folder, const char *extension)
{
	BPtr<char> name = os_generate_formatted_filename(extension, true, "%CCYY-%MM-%DD %hh-%mm-%ss vertical");
	const std::string path = folder + "/" + (name ? name.Get() : std::string("recording vertical.") + extension);
	const std::string base = path.substr(0, path.size() - strlen(extension) - 1);
	std::string free = path;
	for (int n = 2; std::filesystem::exists(free); n++)
		free = base + " (" + std::to_string(n) + ")." + extension;
	return free;
}

} // namespace

VerticalRecording::VerticalRecording(VerticalOutput &encode, RecordingKind kind, FailureHandler on_failure,
				     SavedHandler on_saved)
	: encode_(encode),
	  kind_(kind),
	  on_failure_(std::move(on_failure)),
	  on_saved_(std::move(on_saved))
{
}

VerticalRecording::~VerticalRecording()
{
	stop();
	// Its stop and its jobs use this object: they come before it goes.
	const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (is_active() && std::chrono::steady_clock::now() < give_up)
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	encode_.jobs().wait_idle(std::chrono::seconds(10));
	stop_signal_.Disconnect();
	saved_signal_.Disconnect();
}

const char *VerticalRecording::noun() const
{
	return kind_ == RecordingKind::File ? "recording" : "replay buffer";
}

Error VerticalRecording::start(const std::string &folder, const std::string &format, uint32_t replay_seconds)
{
	if (is_active())
		return {};
	std::error_code error;
	if (folder.empty() || !std::filesystem::is_directory(folder, error)) {
		const Error failure(ErrorCode::NoRecordingFolder, folder);
		fail(failure);
		return failure;
	}
	const Container container = container_for(format);
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "muxer_settings", container.muxer_settings);
	std::string path;
	if (kind_ == RecordingKind::File) {
		path = new_file_path(folder, container.extension);
		obs_data_set_string(settings, "path", path.c_str());
	} else {
		obs_data_set_string(settings, "directory", folder.c_str());
		obs_data_set_string(settings, "format", kReplayName);
		obs_data_set_string(settings, "extension", container.extension);
		obs_data_set_bool(settings, "allow_spaces", true);
		obs_data_set_int(settings, "max_time_sec", replay_seconds);
		obs_data_set_int(settings, "max_size_mb", kReplayMaxMegabytes);
	}
	{
		std::lock_guard lock(mutex_);
		error_ = {};
		path_ = path;
		replay_seconds_ = replay_seconds;
		starting_ = true;
		stop_asked_ = false;
	}
	CanvasFeed feed = encode_.feed();
	encode_.output_starting();
	encode_.jobs().post(
		[this, settings = OBSData(settings.Get()), feed = std::move(feed)] { run_start(settings, feed); });
	return {};
}

// The job thread.
void VerticalRecording::run_start(OBSData settings, const CanvasFeed &feed)
{
	{
		std::lock_guard lock(mutex_);
		if (stop_asked_) {
			starting_ = false;
			encode_.output_start_returned();
			encode_.output_finished();
			return;
		}
	}
	const bool file = kind_ == RecordingKind::File;
	OBSOutputAutoRelease output = obs_output_create(file ? kFileMuxerId : kReplayBufferId,
							file ? "cv_vertical_recording" : "cv_vertical_replay_buffer",
							settings, nullptr);
	const std::string where = file ? obs_data_get_string(settings, "path")
				       : obs_data_get_string(settings, "directory");
	Error failure = output ? Error() : Error(ErrorCode::NoFileMuxer);
	if (output) {
		stop_signal_.Disconnect();
		stop_signal_.Connect(obs_output_get_signal_handler(output), "stop", on_output_stop, this);
		saved_signal_.Disconnect();
		if (!file)
			saved_signal_.Connect(obs_output_get_signal_handler(output), "saved", on_replay_saved, this);
		if (Error started = encode_.encoders().start(output, feed)) {
			const char *why = obs_output_get_last_error(output);
			failure = {file ? ErrorCode::RecordingNotStarted : ErrorCode::ReplayNotStarted,
				   why && *why ? why : where};
		}
	}
	encode_.output_start_returned();
	bool stop_now = false;
	{
		std::lock_guard lock(mutex_);
		starting_ = false;
		if (!failure) {
			output_ = std::move(output);
			stop_now = stop_asked_;
		}
	}
	if (failure) {
		stop_signal_.Disconnect();
		saved_signal_.Disconnect();
		fail(failure);
		output = nullptr;
		encode_.output_finished();
		return;
	}
	encode_.output_started();
	log_info("Vertical %s started: %s", noun(), where.c_str());
	if (stop_now)
		stop();
}

void VerticalRecording::stop()
{
	OBSOutput output;
	{
		std::lock_guard lock(mutex_);
		if (starting_)
			stop_asked_ = true;
		if (output_ && obs_output_active(output_))
			output = output_.Get();
	}
	if (output) {
		obs_output_stop(output);
		log_info("Vertical %s stop requested", noun());
	}
}

Error VerticalRecording::save()
{
	OBSOutput output;
	{
		std::lock_guard lock(mutex_);
		if (kind_ == RecordingKind::ReplayBuffer && output_ && obs_output_active(output_))
			output = output_.Get();
	}
	if (!output)
		return ErrorCode::ReplayNotRunning;
	calldata_t call = {};
	proc_handler_call(obs_output_get_proc_handler(output), "save", &call);
	calldata_free(&call);
	log_info("Vertical replay save requested");
	return {};
}

bool VerticalRecording::is_active() const
{
	std::lock_guard lock(mutex_);
	return starting_ || (output_ && obs_output_active(output_));
}

void VerticalRecording::set_paused(bool paused)
{
	encode_.jobs().post([this, paused] {
		OBSOutput output;
		{
			std::lock_guard lock(mutex_);
			output = output_.Get();
		}
		if (!output || !obs_output_active(output) || obs_output_paused(output) == paused)
			return;
		if (paused && !encode_.encoders().alone(output)) {
			log_warning("The vertical recording goes on: it shares its encoder with the vertical stream");
			if (on_failure_)
				on_failure_(ErrorCode::RecordingCannotPause);
			return;
		}
		if (obs_output_pause(output, paused))
			log_info("Vertical recording %s", paused ? "paused" : "resumed");
	});
}

bool VerticalRecording::is_paused() const
{
	std::lock_guard lock(mutex_);
	return output_ && obs_output_paused(output_);
}

std::string VerticalRecording::path() const
{
	std::lock_guard lock(mutex_);
	return path_;
}

uint32_t VerticalRecording::replay_seconds() const
{
	std::lock_guard lock(mutex_);
	return replay_seconds_;
}

Error VerticalRecording::error() const
{
	std::lock_guard lock(mutex_);
	return error_;
}

void VerticalRecording::fail(const Error &error)
{
	{
		std::lock_guard lock(mutex_);
		error_ = error;
	}
	log_error("Vertical %s: %s", noun(), english(error).c_str());
	if (on_failure_)
		on_failure_(error);
}

// Runs on whichever thread libobs emits "stop" from; this object outlives the connection.
void VerticalRecording::on_output_stop(void *data, calldata_t *calldata)
{
	auto *self = static_cast<VerticalRecording *>(data);
	long long code = 0;
	calldata_get_int(calldata, "code", &code);
	auto *output = static_cast<obs_output_t *>(calldata_ptr(calldata, "output"));
	const bool file = self->kind_ == RecordingKind::File;
	if (code != OBS_OUTPUT_SUCCESS) {
		const char *why = obs_output_get_last_error(output);
		self->fail({file ? ErrorCode::RecordingStopped : ErrorCode::ReplayStopped, why && *why ? why : ""});
	} else if (file) {
		log_info("Vertical recording saved: %s", self->path().c_str());
	} else {
		log_info("Vertical replay buffer stopped");
	}
	OBSOutput held = output;
	self->encode_.jobs().post([self, held]() mutable {
		wait_stopped(held, std::chrono::seconds(5));
		{
			std::lock_guard lock(self->mutex_);
			if (self->output_.Get() == held.Get())
				self->output_ = nullptr;
		}
		held = nullptr;
		self->encode_.output_finished();
	});
}

// The host's muxing thread, once the replay's file is complete.
void VerticalRecording::on_replay_saved(void *data, calldata_t *)
{
	auto *self = static_cast<VerticalRecording *>(data);
	// The signal names no output: it is the one this object holds until it has stopped.
	OBSOutput output;
	{
		std::lock_guard lock(self->mutex_);
		output = self->output_.Get();
	}
	calldata_t call = {};
	const char *path = nullptr;
	if (output && proc_handler_call(obs_output_get_proc_handler(output), "get_last_replay", &call))
		path = calldata_string(&call, "path");
	const std::string saved = path ? path : "";
	calldata_free(&call);
	{
		std::lock_guard lock(self->mutex_);
		self->path_ = saved;
	}
	if (saved.empty()) {
		log_warning("A vertical replay was written, but the replay buffer had already gone");
		return;
	}
	log_info("Vertical replay saved: %s", saved.c_str());
	if (self->on_saved_)
		self->on_saved_(saved);
}

} // namespace cv
