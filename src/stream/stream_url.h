#pragma once

#include <cstddef>
#include <optional>
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
// option value to 1024), which would send another key than the one entered, nor carry
// an SRT stream id longer than the 512 bytes the SRT library takes.
std::string stream_url_problem(const std::string &url);

inline constexpr size_t kMaxRtmpUrlBytes = 512;
inline constexpr size_t kMaxSrtUrlBytes = 1024;
inline constexpr size_t kMaxSrtStreamIdBytes = 512;

// The address the output connects to and, for RTMP, the application address the
// server sees as tcUrl (the server without its trailing slashes and without any user
// name and password, which FFmpeg uses for its own challenge and never sends as such).
struct StreamUrl {
	std::string url;
	std::string tc_url;
};

// RTMP: server + "/" + key, both trimmed. SRT: the server, and the key as its
// "streamid" parameter when it has none (see srt_key_ignored), put in as it is: FFmpeg
// decodes no %XX escapes there. Empty when the server is empty, or for RTMP when the
// key is empty.
StreamUrl build_stream_url(const std::string &server, const std::string &key);

// For SRT the key is sent as the stream id. True when the key is not blank but the
// server address has a "streamid" parameter of its own, which FFmpeg takes instead, so
// the key is not used; a settings dialog should say so next to the key.
bool srt_key_ignored(const std::string &server, const std::string &key);

// Why the key cannot reach the server as entered, or an empty string: a key sent as an
// SRT stream id must not hold '&', where FFmpeg ends the value, nor '+', which it reads
// as a blank.
std::string stream_key_problem(const std::string &server, const std::string &key);

// The address as it may appear in a log, an error text, the dock or a websocket reply.
// Every run of hidden bytes becomes one "****", so nothing tells their length:
// - a user name and password: everything from "//" to the last '@' before the query
//   (also when the password holds '?', '#' or '/'), in any scheme or none;
// - the value of every query parameter (names stay: "?a=****&b=****"), running to the
//   next '&' (SRT stream ids start with "#!::"), and a parameter without '=' whole;
// - a fragment ('#' before any '?');
// - the key, wherever it appears, also with any of its bytes as %XX escapes.
std::string mask_url_for_log(const std::string &url, const std::string &key);

// Whether the address itself holds something mask_url_for_log hides (a user name or
// password, a query value or a bare query parameter, a fragment): a settings field
// showing it should then be masked like the key's.
bool url_has_secret(const std::string &url);

// An SRT address split for FFmpeg: `url` without user name and password, without any
// "streamid" or "passphrase" parameter (in any letter case) and without parameters that
// are none of FFmpeg's SRT options (it reads nothing from them), and the values FFmpeg
// would have read from the stream id and passphrase ('+' as a blank, the first of each
// name), to be handed over as the protocol's options. FFmpeg quotes the address it fails
// to connect to in its own log; that quote then holds no secret.
struct SrtAddress {
	std::string url;
	std::optional<std::string> streamid;
	std::optional<std::string> passphrase;
};
SrtAddress split_srt_address(const std::string &url);

} // namespace cv
