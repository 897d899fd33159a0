#pragma once

#include <string>

namespace cv {

// Titles of the boxes that report a vertical stream or recording that stopped with an error.
extern const char *const kStreamErrorTitle;
extern const char *const kRecordingErrorTitle;

// Shows the message in a critical box on the UI thread, later, from any thread; the
// caller never waits for it. Without a Qt application the message is only logged.
void post_error_box(const char *title, const std::string &message);
void post_stream_error_box(const std::string &message);
void post_recording_error_box(const std::string &message);

} // namespace cv
