#pragma once

#include "shared_encoders.h"

#include <obs.hpp>

#include <functional>
#include <mutex>
#include <string>

namespace cv {

// The vertical canvas recorded to a file with the host's own file muxer output, sharing
// the vertical stream's encode. A folder that cannot be written or a disk that fills up
// stops the recording alone, with an error for the user; the stream never notices. The
// host's UI thread calls it; the host's stop signal comes from any thread.
class VerticalRecording {
public:
	using ErrorHandler = std::function<void(const std::string &message)>;

	VerticalRecording(SharedEncoders &encoders, ErrorHandler on_error = {});
	~VerticalRecording();
	VerticalRecording(const VerticalRecording &) = delete;
	VerticalRecording &operator=(const VerticalRecording &) = delete;

	// Records into `folder` (the host's recording folder), in the container that the
	// host's recording format `format` names (Matroska when the file muxer cannot
	// write it). False, with error(), when it cannot start.
	bool start(const std::string &folder, const std::string &format);
	void stop();
	bool is_active() const;
	// The newest recording's file; empty before the first.
	std::string path() const;
	// Why the newest recording could not start or stopped; empty when it did not fail.
	std::string error() const;

private:
	void fail(const std::string &message);
	static void on_output_stop(void *data, calldata_t *calldata);

	SharedEncoders &encoders_;
	ErrorHandler on_error_;
	OBSOutputAutoRelease output_;
	OBSSignal stop_signal_;
	std::string path_;
	mutable std::mutex error_mutex_; // the UI thread and the host's stop signal
	std::string error_;
};

} // namespace cv
