#pragma once

namespace cv {

// Whether an FFmpeg write error means the connection to the server is gone (as opposed
// to a full buffer, bad data or a deliberate stop), so the output should reconnect.
bool is_connection_lost(int averror);

} // namespace cv
