#include "vertical_recording.h"

#include "base/log.h"

#include <util/platform.h>
#include <util/util.hpp>

#include <filesystem>
#include <string_view>

namespace cv {

namespace {

constexpr const char *kFileMuxerId = "ffmpeg_muxer";

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
	BPtr<char> stamp = os_generate_formatted_filename(nullptr, true, "%CCYY-%MM-%DD %hh-%mm-%ss");
	const std::string base = folder + "/" + (stamp ? stamp.Get() : "recording") + " vertical";
	std::string path = base + "." + extension;
	for (int n = 2; std::filesystem::exists(path); n++)
		path = base + " (" + std::to_string(n) + ")." + extension;
	return path;
}

} // namespace

VerticalRecording::VerticalRecording(SharedEncoders &encoders, ErrorHandler on_error)
	: encoders_(encoders),
	  on_error_(std::move(on_error))
{
}

VerticalRecording::~VerticalRecording()
{
	stop_signal_.Disconnect();
	if (output_ && obs_output_active(output_))
		obs_output_stop(output_);
}

bool VerticalRecording::start(const std::string &folder, const std::string &format)
{
	if (is_active())
		return true;
	{
		std::lock_guard lock(error_mutex_);
		error_.clear();
	}
	std::error_code error;
	if (folder.empty() || !std::filesystem::is_directory(folder, error)) {
		fail("The recording folder \"" + folder +
		     "\" does not exist. Choose one in the host's output settings.");
		return false;
	}
	const Container container = container_for(format);
	path_ = new_file_path(folder, container.extension);

	stop_signal_.Disconnect();
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "path", path_.c_str());
	obs_data_set_string(settings, "muxer_settings", container.muxer_settings);
	output_ = obs_output_create(kFileMuxerId, "cv_vertical_recording", settings, nullptr);
	if (!output_) {
		fail("The host's file muxer output is not available.");
		return false;
	}
	stop_signal_.Connect(obs_output_get_signal_handler(output_), "stop", on_output_stop, this);
	if (!encoders_.start(output_)) {
		const char *why = obs_output_get_last_error(output_);
		fail("The vertical recording could not start: " + std::string(why && *why ? why : path_) +
		     "\nCheck that the recording folder can be written.");
		return false;
	}
	log_info("Vertical recording started: %s", path_.c_str());
	return true;
}

void VerticalRecording::stop()
{
	if (output_ && obs_output_active(output_)) {
		obs_output_stop(output_);
		log_info("Vertical recording stop requested");
	}
}

bool VerticalRecording::is_active() const
{
	return output_ && obs_output_active(output_);
}

std::string VerticalRecording::path() const
{
	return path_;
}

std::string VerticalRecording::error() const
{
	std::lock_guard lock(error_mutex_);
	return error_;
}

void VerticalRecording::fail(const std::string &message)
{
	{
		std::lock_guard lock(error_mutex_);
		error_ = message;
	}
	log_error("Vertical recording: %s", message.c_str());
	if (on_error_)
		on_error_(message);
}

// Runs on whichever thread libobs emits "stop" from; the output and this object outlive
// the connection.
void VerticalRecording::on_output_stop(void *data, calldata_t *calldata)
{
	auto *self = static_cast<VerticalRecording *>(data);
	long long code = 0;
	calldata_get_int(calldata, "code", &code);
	if (code == OBS_OUTPUT_SUCCESS) {
		log_info("Vertical recording saved: %s", self->path_.c_str());
		return;
	}
	const char *why = obs_output_get_last_error(static_cast<obs_output_t *>(calldata_ptr(calldata, "output")));
	self->fail(
		"The vertical recording stopped: " + std::string(why && *why ? why : "the file could not be written") +
		"\nIs the disk full? The vertical stream is not affected.");
}

} // namespace cv
