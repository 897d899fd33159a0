#pragma once

// The plug-in's log. Every line goes to the host's log behind the one tag
// "[corvane-obs-vertical] ". Info is what a streamer reading the log needs: what started,
// stopped, failed, and why; debug is detail for developers (the host writes it in its
// own debug builds only); warnings and errors say what went wrong.

#include <util/base.h>

namespace cv {

inline constexpr const char *kLogTag = "corvane-obs-vertical";

#define CV_LOG_FORMAT __attribute__((__format__(__printf__, 1, 2)))
void log_debug(const char *format, ...) CV_LOG_FORMAT;
void log_info(const char *format, ...) CV_LOG_FORMAT;
void log_warning(const char *format, ...) CV_LOG_FORMAT;
void log_error(const char *format, ...) CV_LOG_FORMAT;
#undef CV_LOG_FORMAT

} // namespace cv
