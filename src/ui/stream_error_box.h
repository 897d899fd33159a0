#pragma once

#include <string>

namespace cv {

// Title of the box that reports a vertical stream that stopped with an error.
extern const char *const kStreamErrorTitle;

// Shows the message in a critical box on the UI thread, later, from any thread; the
// caller never waits for it. Without a Qt application the message is only logged.
void post_stream_error_box(const std::string &message);

} // namespace cv
