#include "write_errors.h"

#include <cerrno>

extern "C" {
#include <libavutil/error.h>
}

namespace cv {

bool is_connection_lost(int averror, int stream_error)
{
	if (averror < 0 && stream_error < 0)
		return true;
	switch (averror) {
	case AVERROR(EIO):
	case AVERROR(EPIPE):
	case AVERROR(ECONNRESET):
	case AVERROR(ECONNABORTED):
	case AVERROR(ETIMEDOUT):
	case AVERROR(ENOTCONN):
	case AVERROR(ENETDOWN):
	case AVERROR(ENETUNREACH):
	case AVERROR(EHOSTUNREACH):
	case AVERROR(ESHUTDOWN):
	case AVERROR_EOF:
		return true;
	default:
		return false;
	}
}

} // namespace cv
