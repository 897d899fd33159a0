#pragma once

#include "job_thread.h"
#include "shared_encoders.h"

#include "base/errors.h"
#include "base/settings.h"
#include "stream/stream_session.h"

#include <obs.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cv {

class VerticalCanvas;

// Told, on whichever thread the host reports it from, that a destination (by its name) or
// the recording stopped with an error, or could not start.
using FailureHandler = std::function<void(const std::string &name, const Error &error)>;

enum class StreamState { Stopped, Connecting, Live, Reconnecting, Failed };
// "stopped", "connecting", "live", "reconnecting", "failed".
const char *state_name(StreamState state);

// One destination as it stands now. No key, no secret of its address.
struct DestinationStatus {
	std::string id;
	std::string name;
	bool enabled = true;
	StreamState state = StreamState::Stopped;
	Error error; // why it failed
	SessionStats stats;
	// What it sent over about the last second, in kbit/s. Measured at most once a second,
	// so everyone who asks within that second is told the same figure.
	uint32_t kbps = 0;
};

// The vertical stream: one instance of the plug-in's output type per destination, each
// with its own connection, queue and reconnect, all fed by one shared encode. Each
// destination starts, stops and fails alone, known by its id whatever its settings
// become. Encoders are made, started and let go on a job thread of the output's own, so
// the host's UI thread, which alone calls it, never waits for them; the host's stop
// signals come from any thread. The vertical recording shares the encode and the job
// thread.
class VerticalOutput {
public:
	VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config, FailureHandler on_failure = {});
	// Stops everything and waits until the encoders are gone.
	~VerticalOutput();

	VerticalOutput(const VerticalOutput &) = delete;
	VerticalOutput &operator=(const VerticalOutput &) = delete;

	bool init();
	// Starts every switched-on destination that is not live (or only the one with `id`,
	// switched on or not), leaving live ones alone. An address that cannot be used fails
	// its destination here, before any encoder is tried. Says why when none starts.
	Error start(const std::string &id = {});
	// Stops every destination, or only the one with `id`.
	void stop(const std::string &id = {});
	// Whether any destination starts, sends or is still stopping.
	bool is_active() const;
	// Nothing starts, runs or stops (the recording included) and no encoder is held:
	// the canvas may change.
	bool idle() const;
	// Waits until idle(); stops nothing itself. False on timeout.
	bool wait_idle(std::chrono::milliseconds timeout) const;
	// Told on the job thread whenever the output became idle.
	void set_on_idle(std::function<void()> on_idle) { on_idle_ = std::move(on_idle); }
	// When idle, lets the canvas's video go, so that the host no longer renders it. Only on
	// the thread that resets the host's video: a reset frees every mix, and a mix let go
	// of from another thread meanwhile crashes the host.
	void drop_unused_video();
	// A running destination keeps its address until its next start; one that is no
	// longer in the list is stopped.
	void update_config(const OutputConfig &config);
	const OutputConfig &config() const { return config_; }

	std::vector<DestinationStatus> destinations() const;

	// For the vertical recording, which shares the encode: what encoders are made on (UI
	// thread), the encode and the thread that uses it, and the bookkeeping of one more
	// output that starts (on the UI thread), whose start call has returned and that has
	// started or finished (on its job).
	CanvasFeed feed();
	SharedEncoders &encoders() { return encoders_; }
	JobThread &jobs() { return jobs_; }
	void output_starting();
	void output_start_returned();
	void output_started() { holding_ = true; }
	void output_finished();
	FailureHandler failure_handler() const { return on_failure_; }

	struct Target;

private:
	void run_start(const std::shared_ptr<Target> &target, const DestinationSettings &settings,
		       const CanvasFeed &feed);
	static uint32_t measure(const Target &target, uint64_t bytes_sent);
	static void on_output_stop(void *data, calldata_t *calldata);

	VerticalCanvas *canvas_;
	OutputConfig config_;
	FailureHandler on_failure_;
	std::function<void()> on_idle_;
	std::vector<std::shared_ptr<Target>> targets_; // in the settings' order; the UI thread's
	SharedEncoders encoders_;                      // the job thread's
	// Outputs asked to start whose job has not finished them yet, and whether encoders
	// are held: what idle() reads on the UI thread.
	std::atomic<int> busy_{0};
	std::atomic<bool> holding_{false};
	bool initialised_ = false;
	// Starts whose job has not yet got its encoders running; while there are any, the host
	// may not reset its video.
	std::mutex host_video_mutex_;
	int host_video_holds_ = 0;
	// Last: it goes first, running every job given before while the rest still exists.
	JobThread jobs_{"cv-encode"};
};

} // namespace cv
