#pragma once

#include "shared_encoders.h"

#include "base/errors.h"

#include <obs.hpp>

#include <functional>
#include <mutex>
#include <string>

namespace cv {

class VerticalOutput;

// The vertical canvas recorded to a file with the host's own file muxer output, sharing
// the vertical stream's encode and its job thread (where it starts and lets go of its
// output, so the host's UI thread never waits). A folder that cannot be written or a disk
// that fills up stops the recording alone; the stream never notices. It pauses with the
// host's recording when it has the encode to itself. The host's UI thread calls it; the
// host's stop signal comes from any thread.
class VerticalRecording {
public:
	// Told on any thread when the recording could not start or stopped with an error.
	using FailureHandler = std::function<void(const Error &error)>;

	VerticalRecording(VerticalOutput &encode, FailureHandler on_failure = {});
	~VerticalRecording();
	VerticalRecording(const VerticalRecording &) = delete;
	VerticalRecording &operator=(const VerticalRecording &) = delete;

	// Records into `folder` (the host's recording folder), in the container that the
	// host's recording format `format` names (Matroska when the file muxer cannot
	// write it). Says why when it cannot start; the encoders start afterwards, and what
	// goes wrong there comes as a failure.
	Error start(const std::string &folder, const std::string &format);
	void stop();
	// Starting, recording or still stopping.
	bool is_active() const;
	// Pauses or resumes. Only when it has the encode to itself: pausing a shared encode
	// would pause the stream too, so it then goes on and says so.
	void set_paused(bool paused);
	bool is_paused() const;
	// The newest recording's file; empty before the first.
	std::string path() const;
	// Why the newest recording could not start or stopped; none when it did not fail.
	Error error() const;

private:
	void run_start(const std::string &path, const std::string &muxer_settings, const CanvasFeed &feed);
	void fail(const Error &error);
	static void on_output_stop(void *data, calldata_t *calldata);

	VerticalOutput &encode_;
	FailureHandler on_failure_;
	mutable std::mutex mutex_; // the UI thread, the job thread and the host's stop signal
	OBSOutputAutoRelease output_;
	bool starting_ = false;
	bool stop_asked_ = false;
	std::string path_;
	Error error_;
	OBSSignal stop_signal_; // the job thread's
};

} // namespace cv
