#pragma once

#include <QString>

#include <string>

namespace cv {

// Titles of the boxes that report a vertical stream or recording that stopped with an error.
extern const char *const kStreamErrorTitle;
extern const char *const kRecordingErrorTitle;

// Shows the message in a critical box on the UI thread, later, from any thread; the
// caller never waits for it. Without a Qt application the message is only logged.
// Title and message are shown in the user's language when they are known English texts
// (see engine_text).
void post_error_box(const char *title, const std::string &message);
void post_stream_error_box(const std::string &message);
void post_recording_error_box(const std::string &message);

// A message of the stream engine or the recording, which are English, in the user's
// language: a known text is looked up in the locale files, also after the
// "<destination>: " that names one of several destinations; anything else (the host's or
// an encoder's own words) is shown as it is.
QString engine_text(const std::string &message);

} // namespace cv
