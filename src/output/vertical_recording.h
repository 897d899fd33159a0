#pragma once

#include "shared_encoders.h"

#include "base/errors.h"

#include <obs.hpp>

#include <functional>
#include <cstdint>
#include <mutex>
#include <string>

namespace cv {

class VerticalOutput;

// What a recording keeps: everything in a file as it comes, or the last seconds in memory
// (the host's replay buffer output), written to a file when asked.
enum class RecordingKind { File, ReplayBuffer };

// The vertical canvas recorded with the host's own file muxer or replay buffer output,
// sharing the vertical stream's encode and its job thread (where it starts and lets go of
// its output, so the host's UI thread never waits). A folder that cannot be written or a
// disk that fills up stops the recording alone; the stream never notices. A file
// recording pauses with the host's recording when it has the encode to itself. The
// host's UI thread calls it; the host's signals come from any thread.
class VerticalRecording {
public:
	// Told on any thread when the recording could not start or stopped with an error.
	using FailureHandler = std::function<void(const Error &error)>;
	// Told on the host's muxing thread with the full path of a replay just written.
	using SavedHandler = std::function<void(const std::string &path)>;

	VerticalRecording(VerticalOutput &encode, RecordingKind kind = RecordingKind::File,
			  FailureHandler on_failure = {}, SavedHandler on_saved = {});
	~VerticalRecording();
	VerticalRecording(const VerticalRecording &) = delete;
	VerticalRecording &operator=(const VerticalRecording &) = delete;

	// Records into `folder` (the host's recording folder), in the container that the
	// host's recording format `format` names (Matroska when the file muxer cannot
	// write it); a replay buffer keeps the last `replay_seconds`. Says why when it cannot
	// start; the encoders start afterwards, and what goes wrong there comes as a failure.
	Error start(const std::string &folder, const std::string &format, uint32_t replay_seconds = 0);
	void stop();
	// A replay buffer writes what it holds to "<date> <time> vertical replay.<extension>";
	// the saved handler hears when the file is complete.
	Error save();
	// Starting, recording or still stopping.
	bool is_active() const;
	// Pauses or resumes. Only when it has the encode to itself: pausing a shared encode
	// would pause the stream too, so it then goes on and says so.
	void set_paused(bool paused);
	bool is_paused() const;
	// The newest recording's or replay's file; empty before the first.
	std::string path() const;
	// What a replay buffer holds at most, from its newest start.
	uint32_t replay_seconds() const;
	// Why the newest recording could not start or stopped; none when it did not fail.
	Error error() const;

private:
	void run_start(OBSData settings, const CanvasFeed &feed);
	void fail(const Error &error);
	const char *noun() const;
	static void on_output_stop(void *data, calldata_t *calldata);
	static void on_replay_saved(void *data, calldata_t *calldata);

	VerticalOutput &encode_;
	const RecordingKind kind_;
	FailureHandler on_failure_;
	SavedHandler on_saved_;
	mutable std::mutex mutex_; // the UI thread, the job thread and the host's stop signal
	OBSOutputAutoRelease output_;
	bool starting_ = false;
	bool stop_asked_ = false;
	std::string path_;
	uint32_t replay_seconds_ = 0;
	Error error_;
	OBSSignal stop_signal_;  // the job thread's
	OBSSignal saved_signal_; // the job thread's
};

} // namespace cv
