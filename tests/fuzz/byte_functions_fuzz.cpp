// libFuzzer target for the stream's byte and address helpers. The input is split at
// "\x1f\x1f\x1f" into an encoder header, an H.264 payload, a server address and a key;
// each call checks the properties its callers rely on.

#include "stream/annexb.h"
#include "stream/stream_url.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/parseutils.h>
}

namespace {

#define CHECK(cond)                                                                              \
	do {                                                                                     \
		if (!(cond)) {                                                                   \
			fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
			abort();                                                                 \
		}                                                                                \
	} while (0)

using Bytes = std::vector<uint8_t>;

std::vector<Bytes> split_input(const uint8_t *data, size_t size)
{
	std::vector<Bytes> pieces(1);
	for (size_t i = 0; i < size; i++) {
		if (pieces.size() < 4 && size - i >= 3 && memcmp(data + i, "\x1f\x1f\x1f", 3) == 0) {
			pieces.emplace_back();
			i += 2;
			continue;
		}
		pieces.back().push_back(data[i]);
	}
	pieces.resize(4);
	return pieces;
}

// The scanners get a heap block of exactly the input's size, so that any read past its
// end is reported.
void check_scanners(const Bytes &bytes)
{
	const size_t size = bytes.size();
	auto *copy = static_cast<uint8_t *>(malloc(std::max<size_t>(size, 1)));
	std::copy(bytes.begin(), bytes.end(), copy);
	const bool annexb = (size >= 3 && copy[0] == 0 && copy[1] == 0 && copy[2] == 1) ||
			    (size >= 4 && copy[0] == 0 && copy[1] == 0 && copy[2] == 0 && copy[3] == 1);
	CHECK(cv::is_annexb(copy, size) == annexb);
	CHECK(!cv::is_disposable(copy, size) || annexb);
	cv::has_nal_type(copy, size, 5);
	free(copy);
}

// `unit` is `base` with `insert` put in at one place.
bool is_splice(const Bytes &unit, const Bytes &base, const Bytes &insert)
{
	if (unit.size() != base.size() + insert.size())
		return false;
	for (size_t at = 0; at <= base.size(); at++)
		if (std::equal(base.begin(), base.begin() + long(at), unit.begin()) &&
		    std::equal(insert.begin(), insert.end(), unit.begin() + long(at)) &&
		    std::equal(base.begin() + long(at), base.end(), unit.begin() + long(at + insert.size())))
			return true;
	return false;
}

void check_packet(const Bytes &payload, const Bytes &headers)
{
	Bytes unit;
	const uint8_t *data = payload.empty() ? nullptr : payload.data();
	if (cv::complete_access_unit(data, payload.size(), payload.size() & 1, headers, &unit)) {
		// The payload's bytes all there and in order, behind its own delimiter or a new
		// one, and the parameter sets put in at most once.
		CHECK(cv::is_annexb(data, payload.size()));
		Bytes with_aud(std::begin(cv::kAccessUnitDelimiter), std::end(cv::kAccessUnitDelimiter));
		with_aud.insert(with_aud.end(), payload.begin(), payload.end());
		CHECK(unit == with_aud || is_splice(unit, payload, headers) || is_splice(unit, with_aud, headers));
	}

	// Timestamps: the payload read as a sequence of (pts, dts) pairs.
	int64_t last_dts = AV_NOPTS_VALUE;
	for (size_t offset = 0; offset + 16 <= payload.size() && offset < 128; offset += 16) {
		int64_t pts, dts;
		memcpy(&pts, payload.data() + offset, 8);
		memcpy(&dts, payload.data() + offset + 8, 8);
		if (offset & 16)
			pts = AV_NOPTS_VALUE;
		const int64_t in_pts = pts, in_dts = dts, before = last_dts;
		cv::fix_monotonic_ts(pts, dts, last_dts);
		if (in_dts == AV_NOPTS_VALUE) {
			CHECK(pts == in_pts && dts == in_dts && last_dts == before);
			continue;
		}
		CHECK(last_dts == dts && dts >= in_dts);
		CHECK(before == AV_NOPTS_VALUE || dts > before || dts == INT64_MAX);
		CHECK(pts == AV_NOPTS_VALUE || pts >= dts);
	}
}

// What FFmpeg's SRT protocol reads from an address for one option, by its own parser.
std::optional<std::string> ffmpeg_reads(const std::string &url, const char *option)
{
	const char *query = strchr(url.c_str(), '?');
	std::string value(url.size() + 1, '\0');
	if (!query || !av_find_info_tag(value.data(), int(value.size()), option, query))
		return std::nullopt;
	return std::string(value.c_str());
}

// Secrets put into the fuzzed address where the masking must find them, whatever the
// rest of it holds: behind a user name, as a query value, and as the key.
void check_masking(const std::string &server, const std::string &key)
{
	const std::string secret = "Zq9xK";
	const std::string password = "rtmp://u:" + secret + "@" + server;
	const std::string query = server + (server.find('?') == std::string::npos ? "?" : "&") + "t=" + secret;
	for (const std::string *address : {&password, &query}) {
		if (address->find(secret) != address->rfind(secret))
			continue;
		CHECK(cv::url_has_secret(*address));
		CHECK(cv::mask_url_for_log(*address, "").find(secret) == std::string::npos);
	}
	const std::string trimmed_key = cv::trim_blanks(key);
	// A key made of '*' could be rebuilt from masks and the text around them.
	if (!trimmed_key.empty() && trimmed_key.find('*') == std::string::npos)
		CHECK(cv::mask_url_for_log(server, key).find(trimmed_key) == std::string::npos);
}

// FFmpeg gets the same SRT options from the split address and its options as from the
// address itself, and the split address holds no secret option.
void check_srt_split(const std::string &url)
{
	if (url.find('\0') != std::string::npos)
		return;
	const cv::SrtAddress split = cv::split_srt_address(url);
	CHECK(split.streamid == ffmpeg_reads(url, "streamid"));
	CHECK(split.passphrase == ffmpeg_reads(url, "passphrase"));
	CHECK(!ffmpeg_reads(split.url, "streamid") && !ffmpeg_reads(split.url, "passphrase"));
	CHECK(ffmpeg_reads(split.url, "latency") == ffmpeg_reads(url, "latency"));
}

void check_urls(const std::string &server, const std::string &key)
{
	const std::string trimmed = cv::trim_blanks(server);
	CHECK(trimmed.empty() ||
	      (!std::isspace((unsigned char)trimmed.front()) && !std::isspace((unsigned char)trimmed.back())));
	const std::string trimmed_key = cv::trim_blanks(key);
	const cv::StreamUrl built = cv::build_stream_url(server, key);
	if (trimmed.empty()) {
		CHECK(built.url.empty() && built.tc_url.empty());
	} else if (cv::is_srt_url(trimmed)) {
		CHECK(built.tc_url.empty() && built.url.compare(0, trimmed.size(), trimmed) == 0);
		if (trimmed_key.empty() || cv::srt_key_ignored(server, key))
			CHECK(built.url == trimmed);
		else if (cv::stream_key_problem(server, key).empty() && built.url.find('\0') == std::string::npos)
			CHECK(ffmpeg_reads(built.url, "streamid") == trimmed_key);
		check_srt_split(built.url);
	} else if (!built.url.empty()) {
		// Without its user part, the application address may be the bare scheme.
		CHECK(built.tc_url.empty() || built.tc_url.back() != '/' ||
		      built.tc_url.compare(built.tc_url.size() - 3, 3, "://") == 0);
		CHECK(built.url.size() >= built.tc_url.size() + 1 + trimmed_key.size());
		CHECK(built.url.compare(built.url.size() - trimmed_key.size(), trimmed_key.size(), trimmed_key) == 0);
	}
	check_masking(server, key);
	check_masking(built.url, key);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	check_scanners(Bytes(data, data + size));
	std::vector<Bytes> pieces = split_input(data, size);
	check_scanners(pieces[1]);

	const Bytes headers =
		cv::annexb_parameter_sets(pieces[0].empty() ? nullptr : pieces[0].data(), pieces[0].size());
	// A record's units gain a start code but lose their length field; a byte stream is
	// taken as it is.
	CHECK(headers.empty() ||
	      (cv::is_annexb(headers.data(), headers.size()) && headers.size() <= 2 * pieces[0].size()));
	check_packet(pieces[1], headers);
	check_urls(std::string(pieces[2].begin(), pieces[2].end()), std::string(pieces[3].begin(), pieces[3].end()));
	return 0;
}
