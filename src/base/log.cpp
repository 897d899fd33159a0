#include "log.h"

#include <cstdarg>
#include <string>

namespace cv {

namespace {

void log_at(int level, const char *format, va_list args)
{
	const std::string tagged = std::string("[") + kLogTag + "] " + format;
	blogva(level, tagged.c_str(), args);
}

} // namespace

#define CV_LOG_FUNCTION(name, level)         \
	void name(const char *format, ...)   \
	{                                    \
		va_list args;                \
		va_start(args, format);      \
		log_at(level, format, args); \
		va_end(args);                \
	}

CV_LOG_FUNCTION(log_debug, LOG_DEBUG)
CV_LOG_FUNCTION(log_info, LOG_INFO)
CV_LOG_FUNCTION(log_warning, LOG_WARNING)
CV_LOG_FUNCTION(log_error, LOG_ERROR)

} // namespace cv
