#pragma once

#include <cstddef>
#include <string>

namespace cv {

// Removes leading and trailing white space (blanks, tabs, line breaks).
std::string trim_blanks(const std::string &text);

// An "srt://" address in any letter case.
bool is_srt_url(const std::string &url);

// Why an address must not be handed to FFmpeg, or an empty string when it may be. It
// must name one of the protocols a live ingest speaks, RTMP (also its TLS, tunnelled
// and encrypted forms) or SRT, in any letter case: FFmpeg would take anything else
// too, a bare path as a local file, "http://" as an upload. And it must not hold
// blanks or control characters: FFmpeg's RTMP reads whatever follows a blank as
// options and drops it, the stream key with it. Nor may it be longer than FFmpeg
// takes without cutting it short (an RTMP stream name is kept to 512 bytes, an SRT
// option value to 1024), which would send another key than the one entered.
std::string stream_url_problem(const std::string &url);

inline constexpr size_t kMaxRtmpUrlBytes = 512;
inline constexpr size_t kMaxSrtUrlBytes = 1024;

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

// Whether the address carries something secret besides a key: a user or password, a
// query value or a fragment.
bool url_has_secret(const std::string &url);
// Whether an SRT address already names its stream id, so that a key is not used.
bool srt_key_ignored(const std::string &url, const std::string &key);

// The address as it may appear in a log: the stream key (also percent-encoded) and the
// values of "streamid" and "passphrase" query parameters become "****".
std::string mask_url_for_log(const std::string &url, const std::string &key);

} // namespace cv
