#include "stream_url.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <vector>

namespace cv {

namespace {

constexpr const char *kMask = "****";

bool is_blank(char c)
{
	return std::isspace(static_cast<unsigned char>(c)) != 0;
}

char lower(char c)
{
	return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool equals_ignore_case(const std::string &text, size_t pos, const char *word)
{
	for (; *word; word++, pos++) {
		if (pos >= text.size() || lower(text[pos]) != *word)
			return false;
	}
	return true;
}

// Flags every character covered by an occurrence of needle, overlapping ones included.
void mark_occurrences(const std::string &text, const std::string &needle, std::vector<bool> &marked)
{
	if (needle.empty())
		return;
	for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
		std::fill(marked.begin() + std::ptrdiff_t(pos), marked.begin() + std::ptrdiff_t(pos + needle.size()),
			  true);
}

// Everything outside RFC 3986's unreserved characters as %XX.
std::string percent_encode(const std::string &text, bool upper_hex)
{
	const char *digits = upper_hex ? "0123456789ABCDEF" : "0123456789abcdef";
	std::string out;
	for (char c : text) {
		const auto u = static_cast<unsigned char>(c);
		const bool unreserved = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
					c == '-' || c == '.' || c == '_' || c == '~';
		if (unreserved) {
			out += c;
		} else {
			out += '%';
			out += digits[u >> 4];
			out += digits[u & 0xF];
		}
	}
	return out;
}

// The value of a secret parameter runs to the next '&', not to a '#': SRT stream ids
// commonly start with "#!::" and are passed unescaped, and FFmpeg reads them that way.
void mask_secret_parameters(std::string &url)
{
	static const char *const secret_names[] = {"streamid", "passphrase"};
	for (size_t sep = url.find_first_of("?&"); sep != std::string::npos; sep = url.find_first_of("?&", sep + 1)) {
		for (const char *name : secret_names) {
			const size_t name_len = std::char_traits<char>::length(name);
			const size_t value = sep + 1 + name_len + 1;
			if (!equals_ignore_case(url, sep + 1, name) || value > url.size() || url[value - 1] != '=')
				continue;
			const size_t end = url.find('&', value);
			const size_t len = (end == std::string::npos ? url.size() : end) - value;
			url.replace(value, len, kMask);
			// Carry on after the mask.
			sep = value + 3;
			break;
		}
	}
}

} // namespace

std::string trim_blanks(const std::string &text)
{
	size_t begin = 0;
	size_t end = text.size();
	while (begin < end && is_blank(text[begin]))
		begin++;
	while (end > begin && is_blank(text[end - 1]))
		end--;
	return text.substr(begin, end - begin);
}

bool is_srt_url(const std::string &url)
{
	return url.size() >= 6 && equals_ignore_case(url, 0, "srt://");
}

std::string stream_url_problem(const std::string &url)
{
	static const char *const schemes[] = {"rtmp://",  "rtmps://",  "rtmpt://", "rtmpts://",
					      "rtmpe://", "rtmpte://", "srt://"};
	bool known = false;
	for (const char *scheme : schemes) {
		const size_t length = strlen(scheme);
		known = known || (url.size() > length && equals_ignore_case(url, 0, scheme));
	}
	if (!known)
		return "not an RTMP or SRT address";
	for (const char c : url) {
		const auto byte = static_cast<unsigned char>(c);
		if (byte <= 0x20 || byte == 0x7F)
			return "a blank or control character inside the address";
	}
	const size_t limit = is_srt_url(url) ? kMaxSrtUrlBytes : kMaxRtmpUrlBytes;
	if (url.size() > limit)
		return "longer than " + std::to_string(limit) + " bytes";
	return {};
}

StreamUrl build_stream_url(const std::string &server, const std::string &key)
{
	StreamUrl result;
	const std::string trimmed_server = trim_blanks(server);
	if (trimmed_server.empty())
		return result;
	if (is_srt_url(trimmed_server)) {
		result.url = trimmed_server;
		return result;
	}
	const std::string trimmed_key = trim_blanks(key);
	if (trimmed_key.empty())
		return result;

	size_t end = trimmed_server.size();
	while (end > 0 && trimmed_server[end - 1] == '/')
		end--;
	result.tc_url = trimmed_server.substr(0, end);
	result.url = result.tc_url + "/" + trimmed_key;
	return result;
}

bool url_has_secret(const std::string &url)
{
	const size_t scheme = url.find("://");
	const size_t authority = scheme == std::string::npos ? 0 : scheme + 3;
	const size_t path = url.find_first_of("/?#", authority);
	const size_t at = url.find('@', authority);
	const bool userinfo = at != std::string::npos && (path == std::string::npos || at < path);
	const size_t query = url.find_first_of("?#");
	return userinfo || (query != std::string::npos && query + 1 < url.size());
}

bool srt_key_ignored(const std::string &url, const std::string &key)
{
	if (!is_srt_url(url) || trim_blanks(key).empty())
		return false;
	for (size_t sep = url.find_first_of("?&"); sep != std::string::npos; sep = url.find_first_of("?&", sep + 1))
		if (equals_ignore_case(url, sep + 1, "streamid="))
			return true;
	return false;
}

std::string mask_url_for_log(const std::string &url, const std::string &key)
{
	std::string text = url;
	// Parameters first: masking the key first could turn a parameter's name into
	// "****" and leave its value readable.
	mask_secret_parameters(text);

	// The key as typed, as the address carries it, and percent-encoded either way.
	std::vector<bool> marked(text.size(), false);
	const std::string trimmed_key = trim_blanks(key);
	for (const std::string &form : {key, trimmed_key}) {
		mark_occurrences(text, form, marked);
		mark_occurrences(text, percent_encode(form, true), marked);
		mark_occurrences(text, percent_encode(form, false), marked);
	}

	// Each run of key characters becomes one mask, so the log does not tell its length.
	std::string masked;
	masked.reserve(text.size());
	for (size_t i = 0; i < text.size(); i++) {
		if (!marked[i])
			masked += text[i];
		else if (i == 0 || !marked[i - 1])
			masked += kMask;
	}
	return masked;
}

} // namespace cv
