#pragma once

namespace cv {

// Whether an FFmpeg write error means the connection to the server is gone (as opposed
// to a full buffer, bad data or a deliberate stop), so the output should reconnect.
// `stream_error` is the error the connection's byte stream keeps (0 while it works): once
// it failed, nothing more goes out on it, whatever its code (SRT reports a broken
// connection as an unknown error).
bool is_connection_lost(int averror, int stream_error = 0);

} // namespace cv
