#include "stream_url.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <vector>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/opt.h>
}

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

// Where the part after the scheme begins: after "scheme://" (leading blanks skipped),
// or at the first byte that is not blank when there is no such scheme.
size_t authority_start(const std::string &url)
{
	size_t begin = 0;
	while (begin < url.size() && is_blank(url[begin]))
		begin++;
	size_t pos = begin;
	while (pos < url.size() && (std::isalnum(static_cast<unsigned char>(url[pos])) || url[pos] == '+' ||
				    url[pos] == '-' || url[pos] == '.'))
		pos++;
	const bool scheme = pos > begin && std::isalpha(static_cast<unsigned char>(url[begin])) &&
			    url.compare(pos, 3, "://") == 0;
	return scheme ? pos + 3 : begin;
}

// Which bytes of an address a log must not show, and where an empty value stands that
// is shown as a mask all the same.
struct Marks {
	explicit Marks(size_t size) : hidden(size, false), empty_value(size + 1, false) {}
	std::vector<bool> hidden;
	std::vector<bool> empty_value;

	void hide(size_t begin, size_t end)
	{
		std::fill(hidden.begin() + std::ptrdiff_t(begin), hidden.begin() + std::ptrdiff_t(end), true);
	}
	bool any() const { return std::find(hidden.begin(), hidden.end(), true) != hidden.end(); }
};

// The values of a query starting at `first` ('?'), or a fragment ('#'). Values run to
// the next '&', '#' included: SRT stream ids start with "#!::", and a fragment after a
// value is hidden with it.
void mark_query(const std::string &url, size_t first, Marks &marks)
{
	if (first >= url.size())
		return;
	if (url[first] == '#') {
		marks.hide(first + 1, url.size());
		return;
	}
	for (size_t item = first + 1; item <= url.size();) {
		const size_t end = std::min(url.find('&', item), url.size());
		const size_t equals = url.find('=', item);
		if (equals < end) {
			marks.hide(equals + 1, end);
			if (equals + 1 == end)
				marks.empty_value[end] = true;
		} else {
			marks.hide(item, end);
		}
		item = end + 1;
	}
}

// User name and password, query values and fragment: what the address itself holds.
// The user part runs to the last '@' before the query that follows the path, so a
// password holding '?', '#' or '/' (typed without escapes) is hidden whole; an '@' in
// the query is no user part. The query is read both after that user part and, as
// FFmpeg reads it, from the first '?' or '#' after the scheme; what either reading
// takes for a secret is hidden.
Marks mark_address(const std::string &url)
{
	Marks marks(url.size());
	const size_t start = authority_start(url);
	const size_t path = std::min(url.find('/', start), url.size());
	const size_t query = std::min(url.find_first_of("?#", path), url.size());
	size_t rest = start;
	if (query > start) {
		const size_t at = url.rfind('@', query - 1);
		if (at != std::string::npos && at >= start) {
			marks.hide(start, at);
			rest = at + 1;
		}
	}
	mark_query(url, url.find_first_of("?#", start), marks);
	if (rest != start)
		mark_query(url, url.find_first_of("?#", rest), marks);
	return marks;
}

// Hides every occurrence of `needle` in `text`, overlapping ones included, in linear
// time however long and repetitive both are. `from[j]` is where the j-th byte of
// `text` starts in the address and `from[j + 1]` where it ends.
void hide_occurrences(const std::string &text, const std::vector<size_t> &from, const std::string &needle, Marks &marks)
{
	const size_t n = needle.size();
	if (n == 0 || n > text.size())
		return;
	std::vector<size_t> border(n, 0); // Knuth-Morris-Pratt
	for (size_t i = 1, k = 0; i < n; i++) {
		while (k > 0 && needle[i] != needle[k])
			k = border[k - 1];
		if (needle[i] == needle[k])
			k++;
		border[i] = k;
	}
	size_t hidden_to = 0;
	for (size_t i = 0, k = 0; i < text.size(); i++) {
		while (k > 0 && text[i] != needle[k])
			k = border[k - 1];
		if (text[i] == needle[k])
			k++;
		if (k == n) {
			const size_t begin = std::max(from[i + 1 - n], hidden_to);
			hidden_to = from[i + 1];
			if (begin < hidden_to)
				marks.hide(begin, hidden_to);
			k = border[k - 1];
		}
	}
}

int hex_value(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	const char l = lower(c);
	return l >= 'a' && l <= 'f' ? l - 'a' + 10 : -1;
}

// The key as it stands in the address, and with any of its bytes written as %XX
// escapes (in either letter case, also bytes that need none).
void mark_key(const std::string &url, const std::string &key, Marks &marks)
{
	std::vector<size_t> literal(url.size() + 1);
	for (size_t i = 0; i <= url.size(); i++)
		literal[i] = i;
	std::string decoded;
	std::vector<size_t> from;
	for (size_t i = 0; i < url.size();) {
		from.push_back(i);
		const int high = i + 2 < url.size() && url[i] == '%' ? hex_value(url[i + 1]) : -1;
		const int low = high >= 0 ? hex_value(url[i + 2]) : -1;
		if (low >= 0) {
			decoded += static_cast<char>(high * 16 + low);
			i += 3;
		} else {
			decoded += url[i++];
		}
	}
	from.push_back(url.size());
	for (const std::string &form : {key, trim_blanks(key)}) {
		hide_occurrences(url, literal, form, marks);
		hide_occurrences(decoded, from, form, marks);
	}
}

// Each run of hidden bytes, and each empty value, as one mask.
std::string render(const std::string &url, const Marks &marks)
{
	std::string out;
	out.reserve(url.size());
	for (size_t i = 0; i <= url.size(); i++) {
		const bool after_mask = i > 0 && marks.hidden[i - 1];
		if (marks.empty_value[i] && !after_mask)
			out += kMask;
		if (i == url.size())
			break;
		if (!marks.hidden[i])
			out += url[i];
		else if (!after_mask && !(marks.empty_value[i]))
			out += kMask;
	}
	return out;
}

// The parameters of an SRT address as FFmpeg reads them: from the first '?', split at
// '&', each a name up to the first '=' and the value after it.
struct Parameter {
	size_t begin, end; // the whole "name=value"
	std::string name;
	std::optional<std::string> value;
};

std::vector<Parameter> srt_parameters(const std::string &url)
{
	std::vector<Parameter> parameters;
	const size_t query = url.find('?');
	if (query == std::string::npos)
		return parameters;
	for (size_t item = query + 1; item <= url.size();) {
		const size_t end = std::min(url.find('&', item), url.size());
		const size_t equals = std::min(url.find('=', item), end);
		Parameter parameter{item, end, url.substr(item, equals - item), std::nullopt};
		if (equals < end)
			parameter.value = url.substr(equals + 1, end - equals - 1);
		parameters.push_back(std::move(parameter));
		item = end + 1;
	}
	return parameters;
}

// What FFmpeg's option parser makes of a value: '+' is a blank, nothing else changes.
std::string ffmpeg_value(const std::optional<std::string> &value)
{
	std::string text = value.value_or("");
	std::replace(text.begin(), text.end(), '+', ' ');
	return text;
}

// One of the options of FFmpeg's SRT protocol, which are what it reads from an address.
bool is_srt_option(const std::string &name)
{
	const AVClass *options = avio_protocol_get_class("srt");
	const AVOption *option = options && !name.empty()
					 ? av_opt_find(&options, name.c_str(), nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ)
					 : nullptr;
	return option && option->type != AV_OPT_TYPE_CONST;
}

bool has_srt_stream_id(const std::string &url)
{
	const std::vector<Parameter> parameters = srt_parameters(url);
	return std::any_of(parameters.begin(), parameters.end(),
			   [](const Parameter &parameter) { return parameter.name == "streamid"; });
}

bool equals_ignore_case(const std::string &a, const char *b)
{
	return a.size() == strlen(b) && equals_ignore_case(a, 0, b);
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
	const bool srt = is_srt_url(url);
	const size_t limit = srt ? kMaxSrtUrlBytes : kMaxRtmpUrlBytes;
	if (url.size() > limit)
		return "longer than " + std::to_string(limit) + " bytes";
	if (srt && split_srt_address(url).streamid.value_or("").size() > kMaxSrtStreamIdBytes)
		return "an SRT stream id longer than " + std::to_string(kMaxSrtStreamIdBytes) + " bytes";
	return {};
}

StreamUrl build_stream_url(const std::string &server, const std::string &key)
{
	StreamUrl result;
	const std::string trimmed_server = trim_blanks(server);
	if (trimmed_server.empty())
		return result;
	const std::string trimmed_key = trim_blanks(key);
	if (is_srt_url(trimmed_server)) {
		result.url = trimmed_server;
		if (!trimmed_key.empty() && !has_srt_stream_id(trimmed_server)) {
			const size_t query = trimmed_server.find('?');
			if (query == std::string::npos)
				result.url += '?';
			else if (query + 1 != trimmed_server.size() && trimmed_server.back() != '&')
				result.url += '&';
			result.url += "streamid=" + trimmed_key;
		}
		return result;
	}
	if (trimmed_key.empty())
		return result;

	size_t end = trimmed_server.size();
	while (end > 0 && trimmed_server[end - 1] == '/')
		end--;
	const std::string application = trimmed_server.substr(0, end);
	result.url = application + "/" + trimmed_key;
	// As FFmpeg splits it: the host part ends at the first '/', '?' or '#'.
	const size_t start = authority_start(application);
	const size_t host_end = std::min(application.find_first_of("/?#", start), application.size());
	const size_t at = host_end > start ? application.rfind('@', host_end - 1) : std::string::npos;
	result.tc_url = at != std::string::npos && at >= start
				? application.substr(0, start) + application.substr(at + 1)
				: application;
	return result;
}

bool srt_key_ignored(const std::string &server, const std::string &key)
{
	const std::string trimmed_server = trim_blanks(server);
	return is_srt_url(trimmed_server) && !trim_blanks(key).empty() && has_srt_stream_id(trimmed_server);
}

std::string stream_key_problem(const std::string &server, const std::string &key)
{
	const std::string trimmed_key = trim_blanks(key);
	if (is_srt_url(trim_blanks(server)) && !srt_key_ignored(server, key) &&
	    trimmed_key.find_first_of("&+") != std::string::npos)
		return "a stream key sent as SRT stream id cannot hold '&' or '+'";
	return {};
}

std::string mask_url_for_log(const std::string &url, const std::string &key)
{
	Marks marks = mark_address(url);
	mark_key(url, key, marks);
	return render(url, marks);
}

bool url_has_secret(const std::string &url)
{
	return mark_address(url).any();
}

SrtAddress split_srt_address(const std::string &url)
{
	SrtAddress result;
	// The user part, as FFmpeg splits the address: up to the last '@' before the first
	// '/', '?' or '#'. SRT has no use for it.
	const size_t start = authority_start(url);
	const size_t host_end = std::min(url.find_first_of("/?#", start), url.size());
	const size_t at = host_end > start ? url.rfind('@', host_end - 1) : std::string::npos;
	const std::string address = at != std::string::npos && at >= start ? url.substr(0, start) + url.substr(at + 1)
									   : url;

	const size_t query = address.find('?');
	result.url = address.substr(0, query);
	std::string kept;
	for (const Parameter &parameter : srt_parameters(address)) {
		if (equals_ignore_case(parameter.name, "streamid")) {
			// FFmpeg reads the first one, in this letter case only.
			if (parameter.name == "streamid" && !result.streamid)
				result.streamid = ffmpeg_value(parameter.value);
		} else if (equals_ignore_case(parameter.name, "passphrase")) {
			if (parameter.name == "passphrase" && !result.passphrase)
				result.passphrase = ffmpeg_value(parameter.value);
		} else if (is_srt_option(parameter.name)) {
			kept += (kept.empty() ? "" : "&") +
				address.substr(parameter.begin, parameter.end - parameter.begin);
		}
	}
	if (!kept.empty())
		result.url += "?" + kept;
	return result;
}

} // namespace cv
