#include "vertical_output.h"

#include "host_services.h"

#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "stream/mux_output.h"
#include "stream/stream_url.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace cv {

namespace {

constexpr std::chrono::seconds kMeterPeriod(1);

using Clock = std::chrono::steady_clock;

// The host's own mix's taker while a start is on its way (see output_starting).
void ignore_frame(void *, video_data *) {}

// A destination of one of the host's services, with the address of its server.
Error resolve_service(DestinationSettings &settings)
{
	if (settings.service.empty())
		return {};
	settings.url = service_url(settings.service, settings.url);
	return settings.url.empty() ? Error(ErrorCode::NoSuchService, settings.service) : Error();
}

// What is wrong with a destination's address, found before any encoder is tried.
Error address_problem(const DestinationSettings &settings)
{
	if (trim_blanks(settings.url).empty())
		return ErrorCode::UrlEmpty;
	const StreamUrl built = build_stream_url(settings.url, settings.key);
	if (built.url.empty())
		return ErrorCode::KeyEmpty;
	for (const std::string &problem :
	     {stream_url_problem(built.url), stream_key_problem(settings.url, settings.key)})
		if (!problem.empty())
			return {ErrorCode::UrlUnusable, problem};
	return {};
}

// How long a stopping output may take to let go of its encoders.
constexpr std::chrono::seconds kStopWait(5);

} // namespace

// One destination: its newest settings, the output of its newest start and what its last
// stop had to say.
struct VerticalOutput::Target : std::enable_shared_from_this<Target> {
	VerticalOutput *owner = nullptr;
	std::string id;

	mutable std::mutex mutex; // the UI thread, the job thread and the host's stop signal
	DestinationSettings settings;
	bool starting = false;   // its start job has not run yet
	bool stop_asked = false; // stopped before its start job ran
	bool stopping = false;   // told to stop or stopped; until its job lets go of it
	OBSOutputAutoRelease output;
	Error error;

	OBSSignal stop_signal; // the job thread's
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

VerticalOutput::VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config, FailureHandler on_failure)
	: canvas_(canvas),
	  on_failure_(std::move(on_failure)),
	  encoders_(canvas, config)
{
	update_config(config);
}

VerticalOutput::~VerticalOutput()
{
	stop();
	// The stops just asked for let go of the encoders on the job thread.
	if (wait_idle(kStopBudget + std::chrono::seconds(3)))
		drop_unused_video();
	else
		log_warning("The vertical encode was still stopping when its output went");
	jobs_.post([this] { encoders_.release_unused(); });
}

void VerticalOutput::drop_unused_video()
{
	if (idle() && canvas_)
		canvas_->drop_video();
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

CanvasFeed VerticalOutput::feed()
{
	CanvasFeed feed;
	feed.fps_num = canvas_->fps_num();
	feed.fps_den = canvas_->fps_den();
	VerticalCanvas::AudioFeed audio = canvas_->listen_audio();
	feed.audio = audio.audio;
	feed.audio_mix = audio.mix;
	feed.keep_audio_open = std::move(audio.hold);
	return feed;
}

Error VerticalOutput::start(const std::string &id)
{
	if (!initialised_)
		return ErrorCode::NoCanvas;
	if (!canvas_->initialised())
		return ErrorCode::NoCanvas;
	const CanvasFeed canvas_feed = feed();
	size_t asked = 0;
	bool any = false;
	Error first;
	for (const std::shared_ptr<Target> &target : targets_) {
		std::unique_lock lock(target->mutex);
		if (id.empty() ? !target->settings.enabled : target->id != id)
			continue;
		asked++;
		if (target->starting || (target->output && !target->stopping)) {
			any = true;
			continue;
		}
		DestinationSettings settings = target->settings;
		Error problem = resolve_service(settings);
		if (!problem)
			problem = address_problem(settings);
		if (problem) {
			target->error = problem;
			log_error("Destination '%s' cannot start: %s", target->settings.name.c_str(),
				  english(problem).c_str());
			if (!first)
				first = problem;
			continue;
		}
		target->starting = true;
		target->stop_asked = false;
		target->error = {};
		output_starting();
		any = true;
		lock.unlock();
		jobs_.post([this, target, canvas_feed, settings] { run_start(target, settings, canvas_feed); });
	}
	if (!id.empty() && asked == 0)
		return {ErrorCode::NoSuchDestination, id};
	if (asked == 0)
		return ErrorCode::NoDestinationOn;
	return any ? Error() : first;
}

// The host resets its video on the UI thread, and a reset frees every mix, stops the
// render thread until all of them have stopped and must not meet the job thread making
// the encoders' mix. From a start's call until its job has its encoders running (from
// then on the host refuses a reset by itself while they take video) the host's own mix
// has a taker that does nothing, so that the host refuses a reset meanwhile too.
void VerticalOutput::output_starting()
{
	busy_++;
	std::lock_guard lock(host_video_mutex_);
	if (host_video_holds_++ == 0)
		obs_add_raw_video_callback(nullptr, ignore_frame, this);
}

void VerticalOutput::output_start_returned()
{
	std::lock_guard lock(host_video_mutex_);
	if (--host_video_holds_ == 0)
		obs_remove_raw_video_callback(ignore_frame, this);
}

// The job thread.
void VerticalOutput::run_start(const std::shared_ptr<Target> &target, const DestinationSettings &settings,
			       const CanvasFeed &feed)
{
	bool stopped_before = false;
	{
		std::lock_guard lock(target->mutex);
		stopped_before = target->stop_asked;
		if (stopped_before)
			target->starting = false;
	}
	if (stopped_before) {
		output_start_returned();
		output_finished();
		return;
	}
	OBSDataAutoRelease data = obs_data_create();
	obs_data_set_string(data, "server", settings.url.c_str());
	obs_data_set_string(data, "key", settings.key.c_str());
	obs_data_set_int(data, "fps_num", feed.fps_num);
	obs_data_set_int(data, "fps_den", feed.fps_den);
	OBSOutputAutoRelease output =
		obs_output_create(kMuxOutputId, make_unique_name("cv_mux_output").c_str(), data, nullptr);
	Error failure = output ? Error() : Error(ErrorCode::NoOutput);
	if (output) {
		target->stop_signal.Disconnect();
		target->stop_signal.Connect(obs_output_get_signal_handler(output), "stop", on_output_stop,
					    target.get());
		// The address as the log may show it: no key, no secret.
		log_info("Destination '%s' starting: %s", settings.name.c_str(),
			 mask_url_for_log(settings.url, settings.key).c_str());
		failure = encoders_.start(output, feed);
	}
	output_start_returned();
	bool stop_now = false;
	{
		std::lock_guard lock(target->mutex);
		target->starting = false;
		if (failure) {
			target->error = failure;
		} else {
			target->output = std::move(output);
			target->stopping = false;
			stop_now = target->stop_asked;
		}
	}
	if (failure) {
		target->stop_signal.Disconnect();
		log_error("Destination '%s' cannot start: %s", settings.name.c_str(), english(failure).c_str());
		if (on_failure_)
			on_failure_(settings.name, failure);
		output = nullptr;
		output_finished();
		return;
	}
	output_started();
	if (stop_now)
		stop(target->id);
}

void VerticalOutput::stop(const std::string &id)
{
	for (const std::shared_ptr<Target> &target : targets_) {
		OBSOutput output;
		{
			std::lock_guard lock(target->mutex);
			if (!id.empty() && target->id != id)
				continue;
			if (target->starting)
				target->stop_asked = true;
			if (target->output && !target->stopping) {
				target->stopping = true;
				output = target->output.Get();
			}
		}
		// Outside the lock: the host tells the stop from inside this call.
		if (output) {
			obs_output_stop(output);
			log_info("Destination '%s' stop requested", target->settings.name.c_str());
		}
	}
}

bool VerticalOutput::is_active() const
{
	for (const std::shared_ptr<Target> &target : targets_) {
		std::lock_guard lock(target->mutex);
		if (target->starting || (target->output && obs_output_active(target->output)))
			return true;
	}
	return false;
}

bool VerticalOutput::idle() const
{
	return busy_ == 0 && !holding_;
}

bool VerticalOutput::wait_idle(std::chrono::milliseconds timeout) const
{
	const auto give_up = Clock::now() + timeout;
	while (!idle()) {
		if (Clock::now() >= give_up)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
	return true;
}

void VerticalOutput::update_config(const OutputConfig &config)
{
	config_ = config;
	jobs_.post([this, config] { encoders_.update_config(config); });
	std::vector<std::shared_ptr<Target>> kept;
	for (size_t i = 0; i < config_.destinations.size(); i++) {
		DestinationSettings &settings = config_.destinations[i];
		// Destinations made without one are known by their place.
		if (settings.id.empty())
			settings.id = "#" + std::to_string(i + 1);
		auto found = std::find_if(targets_.begin(), targets_.end(), [&](const std::shared_ptr<Target> &target) {
			return target->id == settings.id;
		});
		std::shared_ptr<Target> target = found != targets_.end() ? *found : std::make_shared<Target>();
		target->owner = this;
		target->id = settings.id;
		{
			std::lock_guard lock(target->mutex);
			target->settings = settings;
		}
		kept.push_back(std::move(target));
	}
	// Destinations taken out of the list stop.
	for (const std::shared_ptr<Target> &target : targets_)
		if (std::find(kept.begin(), kept.end(), target) == kept.end())
			stop(target->id);
	targets_ = std::move(kept);
}

std::vector<DestinationStatus> VerticalOutput::destinations() const
{
	std::vector<DestinationStatus> list;
	for (const std::shared_ptr<Target> &target : targets_) {
		std::lock_guard lock(target->mutex);
		DestinationStatus status;
		status.id = target->id;
		status.name = target->settings.name;
		status.enabled = target->settings.enabled;
		status.error = target->error;
		if (target->starting) {
			status.state = StreamState::Connecting;
		} else if (target->output && obs_output_active(target->output)) {
			status.stats = mux_output_stats(target->output);
			status.kbps = measure(*target, status.stats.bytes_sent);
			status.state = status.stats.connected      ? StreamState::Live
				       : status.stats.reconnecting ? StreamState::Reconnecting
								   : StreamState::Connecting;
		} else if (status.error) {
			status.state = StreamState::Failed;
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

// The job thread, once an output told its stop and nothing here holds it any more (an
// output keeps its encoders): its encoders may go.
void VerticalOutput::output_finished()
{
	encoders_.release_unused();
	holding_ = encoders_.holding();
	busy_--;
	if (busy_ == 0 && !holding_ && on_idle_)
		on_idle_();
}

// Runs on whichever thread libobs emits "stop" from, possibly inside obs_output_stop.
void VerticalOutput::on_output_stop(void *data, calldata_t *calldata)
{
	std::shared_ptr<Target> target = static_cast<Target *>(data)->weak_from_this().lock();
	if (!target)
		return;
	VerticalOutput *self = target->owner;
	long long code = 0;
	calldata_get_int(calldata, "code", &code);
	auto *output = static_cast<obs_output_t *>(calldata_ptr(calldata, "output"));
	Error failure;
	if (code == OBS_OUTPUT_ERROR || code == OBS_OUTPUT_ENCODE_ERROR) {
		failure = mux_output_failure(output);
		if (!failure)
			failure = code == OBS_OUTPUT_ENCODE_ERROR ? ErrorCode::EncoderStopped
								  : ErrorCode::ConnectFailed;
	}
	std::string name;
	{
		std::lock_guard lock(target->mutex);
		name = target->settings.name;
		if (target->output.Get() == output)
			target->stopping = true;
		if (failure)
			target->error = failure;
	}
	if (failure) {
		log_warning("Destination '%s' stopped: %s", name.c_str(), english(failure).c_str());
		if (self->on_failure_)
			self->on_failure_(name, failure);
	}
	OBSOutput held = output;
	self->jobs_.post([self, target, held]() mutable {
		if (!wait_stopped(held, kStopWait))
			log_warning("Destination '%s' took over %lld s to stop", target->settings.name.c_str(),
				    (long long)kStopWait.count());
		bool newest = false;
		{
			std::lock_guard lock(target->mutex);
			newest = target->output.Get() == held.Get();
			if (newest) {
				target->output = nullptr;
				target->stopping = false;
			}
		}
		// Off the host's signal, unless a newer start has connected it to its own output.
		if (newest)
			target->stop_signal.Disconnect();
		held = nullptr;
		self->output_finished();
	});
}

} // namespace cv
