#include "vertical_output.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "stream/mux_output.h"
#include "stream/stream_url.h"

#include <algorithm>
#include <chrono>

namespace cv {

namespace {

constexpr const char *kDefaultStopMessage = "Vertical output failed to connect.\nCheck your RTMP URL and stream key.";
constexpr std::chrono::seconds kMeterPeriod(1);

using Clock = std::chrono::steady_clock;

} // namespace

// One destination: its settings as they were at its start, its output and what its last
// stop had to say.
struct VerticalOutput::Target {
	VerticalOutput *owner = nullptr;
	DestinationSettings settings;
	OBSOutputAutoRelease output;
	OBSSignal stop_signal;
	bool one_of_several = false;    // its errors name it
	mutable std::mutex error_mutex; // the UI thread and the host's stop signal
	std::string error;
	// The bitrate meter's last reading (the UI thread's alone).
	struct {
		Clock::time_point at{};
		uint64_t bytes = 0;
		uint32_t kbps = 0;
	} mutable meter;
};

const char *state_name(StreamState state)
{
	switch (state) {
	case StreamState::Connecting:
		return "connecting";
	case StreamState::Live:
		return "live";
	case StreamState::Reconnecting:
		return "reconnecting";
	case StreamState::Failed:
		return "failed";
	case StreamState::Stopped:
		break;
	}
	return "stopped";
}

VerticalOutput::VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config, StreamErrorHandler on_error)
	: canvas_(canvas),
	  config_(config),
	  encoders_(canvas, config),
	  on_error_(std::move(on_error))
{
}

VerticalOutput::~VerticalOutput()
{
	release_all();
}

bool VerticalOutput::init()
{
	if (!canvas_ || !canvas_->initialised()) {
		log_error("VerticalOutput::init — canvas not ready");
		return false;
	}
	initialised_ = true;
	return true;
}

bool VerticalOutput::start()
{
	if (!initialised_) {
		log_error("VerticalOutput::start — not initialised");
		return false;
	}
	if (is_active()) {
		log_warning("VerticalOutput::start — already active");
		return true;
	}
	release_all();
	for (const DestinationSettings &settings : config_.destinations) {
		auto target = std::make_unique<Target>();
		target->owner = this;
		target->settings = settings;
		targets_.push_back(std::move(target));
	}
	const auto enabled = std::count_if(config_.destinations.begin(), config_.destinations.end(),
					   [](const DestinationSettings &settings) { return settings.enabled; });
	bool any = false;
	for (const std::unique_ptr<Target> &target : targets_) {
		target->one_of_several = enabled > 1;
		if (target->settings.enabled)
			any = start_target(*target) || any;
	}
	if (!any)
		log_error("Vertical output start failed: no enabled destination could start. Configure them in Tools "
			  "→ Corvane Vertical Streaming Settings.");
	return any;
}

bool VerticalOutput::start_target(Target &target)
{
	const DestinationSettings &settings = target.settings;
	auto refuse = [&](const std::string &error) {
		std::lock_guard lock(target.error_mutex);
		target.error = error;
		log_error("Destination '%s' cannot start: %s", settings.name.c_str(), error.c_str());
		return false;
	};
	if (trim_blanks(settings.url).empty())
		return refuse("RTMP URL is empty");

	OBSDataAutoRelease data = obs_data_create();
	obs_data_set_string(data, "server", settings.url.c_str());
	obs_data_set_string(data, "key", settings.key.c_str());
	obs_data_set_int(data, "fps_num", canvas_->fps_num());
	obs_data_set_int(data, "fps_den", canvas_->fps_den());
	target.output = obs_output_create(kMuxOutputId, make_unique_name("cv_mux_output").c_str(), data, nullptr);
	if (!target.output)
		return refuse("the host could not create the output");
	target.stop_signal.Connect(obs_output_get_signal_handler(target.output), "stop", on_output_stop, &target);
	// The address as the log may show it: no key, no SRT secret.
	log_info("Destination '%s' starting: %s", settings.name.c_str(),
		 mask_url_for_log(settings.url, settings.key).c_str());
	running_++;
	if (!encoders_.start(target.output)) {
		running_--;
		const char *error = obs_output_get_last_error(target.output);
		return refuse(error && *error ? error : "no encoder could start");
	}
	return true;
}

void VerticalOutput::stop()
{
	bool any = false;
	for (const std::unique_ptr<Target> &target : targets_) {
		if (target->output && obs_output_active(target->output)) {
			obs_output_stop(target->output);
			any = true;
		}
	}
	if (any)
		log_info("Vertical output stop requested (%s)", encoders_.encoder_id().c_str());
}

bool VerticalOutput::is_active()
{
	for (const std::unique_ptr<Target> &target : targets_)
		if (target->output && obs_output_active(target->output))
			return true;
	return false;
}

void VerticalOutput::update_config(const OutputConfig &config)
{
	config_ = config;
	encoders_.update_config(config);
	log_info("Vertical output settings updated (%zu destination(s))", config.destinations.size());
}

std::vector<DestinationStatus> VerticalOutput::destinations() const
{
	std::vector<DestinationStatus> list;
	// Destinations as configured; those that ran since the last start say how it went.
	for (size_t i = 0; i < config_.destinations.size(); i++) {
		DestinationStatus status;
		status.name = config_.destinations[i].name;
		status.enabled = config_.destinations[i].enabled;
		const Target *target = i < targets_.size() ? targets_[i].get() : nullptr;
		if (target && target->settings.name == status.name) {
			{
				std::lock_guard lock(target->error_mutex);
				status.error = target->error;
			}
			if (target->output && obs_output_active(target->output)) {
				status.stats = mux_output_stats(target->output);
				status.kbps = measure(*target, status.stats.bytes_sent);
				status.state = status.stats.connected      ? StreamState::Live
					       : status.stats.reconnecting ? StreamState::Reconnecting
									   : StreamState::Connecting;
			} else if (!status.error.empty()) {
				status.state = StreamState::Failed;
			}
		}
		list.push_back(std::move(status));
	}
	return list;
}

// The rate since the last reading, once that is a period old; the last rate until then.
uint32_t VerticalOutput::measure(const Target &target, uint64_t bytes_sent)
{
	auto &meter = target.meter;
	const Clock::time_point now = Clock::now();
	if (meter.at == Clock::time_point{} || bytes_sent < meter.bytes) {
		meter = {now, bytes_sent, 0};
	} else if (now - meter.at >= kMeterPeriod) {
		const double seconds = std::chrono::duration<double>(now - meter.at).count();
		meter = {now, bytes_sent, uint32_t(double(bytes_sent - meter.bytes) * 8 / 1000 / seconds + 0.5)};
	}
	return meter.kbps;
}

void VerticalOutput::release_all()
{
	for (const std::unique_ptr<Target> &target : targets_) {
		if (target->output && obs_output_active(target->output))
			obs_output_stop(target->output);
		target->stop_signal.Disconnect();
	}
	targets_.clear();
	running_ = 0;
}

// Runs on whichever thread libobs emits "stop" from. The target outlives its signal.
void VerticalOutput::on_output_stop(void *data, calldata_t *calldata)
{
	auto *target = static_cast<Target *>(data);
	VerticalOutput *self = target->owner;
	long long code = 0;
	calldata_get_int(calldata, "code", &code);
	const int still_running = --self->running_;
	if (code != OBS_OUTPUT_ERROR && code != OBS_OUTPUT_ENCODE_ERROR)
		return;
	const char *error = obs_output_get_last_error(static_cast<obs_output_t *>(calldata_ptr(calldata, "output")));
	const std::string message = error && *error ? error : kDefaultStopMessage;
	{
		std::lock_guard lock(target->error_mutex);
		target->error = message;
	}
	log_warning("Destination '%s' stopped: %s", target->settings.name.c_str(), message.c_str());
	// An error box only when nothing streams any more.
	if (still_running > 0 || !self->on_error_)
		return;
	self->on_error_(target->one_of_several ? target->settings.name + ": " + message : message);
}

} // namespace cv
