#pragma once

#include <string>

namespace cv {

// Removes leading and trailing white space (blanks, tabs, line breaks).
std::string trim_blanks(const std::string &text);

// An "srt://" address in any letter case.
bool is_srt_url(const std::string &url);

// The address the output connects to and, for RTMP, the application address the
// server sees as tcUrl (the server without its trailing slashes).
struct StreamUrl {
	std::string url;
	std::string tc_url;
};

// RTMP: server + "/" + key, both trimmed. An SRT server is used as it is, since its
// stream id and passphrase travel in the address's query. Empty when the server is
// empty, or for RTMP when the key is empty.
StreamUrl build_stream_url(const std::string &server, const std::string &key);

// The address as it may appear in a log: the stream key (also percent-encoded) and the
// values of "streamid" and "passphrase" query parameters become "****".
std::string mask_url_for_log(const std::string &url, const std::string &key);

} // namespace cv
