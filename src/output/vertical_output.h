#pragma once

#include "shared_encoders.h"

#include "base/settings.h"
#include "stream/stream_session.h"

#include <obs.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cv {

class VerticalCanvas;

// What a stream that stopped with an error has to say, in words for the user; called on
// whichever thread the host reports the stop from.
using StreamErrorHandler = std::function<void(const std::string &message)>;

enum class StreamState { Stopped, Connecting, Live, Reconnecting, Failed };
// "stopped", "connecting", "live", "reconnecting", "failed".
const char *state_name(StreamState state);

// One destination as it stands now. No key, no SRT secret.
struct DestinationStatus {
	std::string name;
	bool enabled = true;
	StreamState state = StreamState::Stopped;
	std::string error; // why it failed, for the user
	SessionStats stats;
	// What it sent over about the last second, in kbit/s. Measured at most once a second,
	// so everyone who asks within that second is told the same figure.
	uint32_t kbps = 0;
};

// The vertical stream: one instance of the plug-in's output type per enabled destination,
// each with its own connection, queue and reconnect, all fed by one shared encode. A
// destination that fails stops alone; the error handler hears of it only when no other
// destination still streams. The host's UI thread calls it; the host's stop signals come
// from any thread.
class VerticalOutput {
public:
	VerticalOutput(VerticalCanvas *canvas, const OutputConfig &config, StreamErrorHandler on_error = {});
	~VerticalOutput();

	VerticalOutput(const VerticalOutput &) = delete;
	VerticalOutput &operator=(const VerticalOutput &) = delete;

	bool init();
	// Starts every enabled destination that is not running; true when one runs.
	bool start();
	void stop();
	// True while any destination runs.
	bool is_active();
	// Takes effect at the next start; running streams are left as they are.
	void update_config(const OutputConfig &config);

	std::vector<DestinationStatus> destinations() const;
	// The encode the vertical recording shares.
	SharedEncoders &encoders() { return encoders_; }

private:
	struct Target;
	bool start_target(Target &target);
	static uint32_t measure(const Target &target, uint64_t bytes_sent);
	void release_all();
	static void on_output_stop(void *data, calldata_t *calldata);

	VerticalCanvas *canvas_;
	OutputConfig config_;
	SharedEncoders encoders_;
	StreamErrorHandler on_error_;
	std::vector<std::unique_ptr<Target>> targets_;
	// Outputs running now; the stop signal that takes it to zero may show an error box.
	std::atomic<int> running_{0};
	bool initialised_ = false;
};

} // namespace cv
