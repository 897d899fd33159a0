// libFuzzer target for the byte stream and address helpers of the muxer.
//
// The input is split at "\x1f\x1f\x1f" into up to four pieces: an encoder header, an
// H.264 payload, a server address and a stream key (missing pieces are empty). The
// whole input is also fed to the byte scanners as it is. Besides the sanitizers, each
// call checks the properties its callers rely on and aborts when one does not hold.

#include "mux/annexb.h"
#include "mux/stream_url.h"
#include "mux/write_errors.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/error.h>
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

const char kSeparator[] = "\x1f\x1f\x1f";
constexpr size_t kSeparatorSize = sizeof(kSeparator) - 1;

std::vector<Bytes> split_input(const uint8_t *data, size_t size)
{
	std::vector<Bytes> pieces(1);
	for (size_t i = 0; i < size; i++) {
		if (pieces.size() < 4 && size - i >= kSeparatorSize &&
		    memcmp(data + i, kSeparator, kSeparatorSize) == 0) {
			pieces.emplace_back();
			i += kSeparatorSize - 1;
			continue;
		}
		pieces.back().push_back(data[i]);
	}
	pieces.resize(4);
	return pieces;
}

// The scanners get a heap block of exactly `size` bytes so that any read past the end
// is reported.
void check_scanners(const Bytes &bytes)
{
	const size_t size = bytes.size();
	uint8_t *copy = size ? static_cast<uint8_t *>(malloc(size)) : nullptr;
	if (size)
		memcpy(copy, bytes.data(), size);

	const bool annexb = (size >= 3 && copy[0] == 0 && copy[1] == 0 && copy[2] == 1) ||
			    (size >= 4 && copy[0] == 0 && copy[1] == 0 && copy[2] == 0 && copy[3] == 1);
	CHECK(cv::is_annexb(copy, size) == annexb);

	// A byte stream with an IDR slice or a delimiter starts with a start code somewhere.
	if (cv::has_nal_type(copy, size, 5) || cv::has_nal_type(copy, size, 9))
		CHECK(size >= 5);
	if (cv::is_disposable(copy, size))
		CHECK(annexb);
	free(copy);
}

void check_headers(const Bytes &extradata, Bytes &headers)
{
	headers = cv::annexb_parameter_sets(extradata.empty() ? nullptr : extradata.data(), extradata.size());
	if (headers.empty())
		return;
	CHECK(cv::is_annexb(headers.data(), headers.size()));
	// A record's units gain a start code but lose their length field; the counts and
	// the record's first five bytes go. A byte stream is taken as it is.
	CHECK(headers.size() <= 2 * extradata.size());
}

int64_t read_i64(const Bytes &bytes, size_t index)
{
	int64_t value = 0;
	const size_t offset = index * sizeof(value);
	if (offset + sizeof(value) <= bytes.size())
		memcpy(&value, bytes.data() + offset, sizeof(value));
	else
		value = (index & 1) ? AV_NOPTS_VALUE : int64_t(index);
	return value;
}

void check_packet(const Bytes &payload, const Bytes &headers)
{
	const bool keyframe = payload.size() & 1;
	Bytes unit;
	const uint8_t *data = payload.empty() ? nullptr : payload.data();
	if (cv::complete_access_unit(data, payload.size(), keyframe, headers, &unit)) {
		// A delimiter first, the payload's bytes all there and in order, the sets added at most once.
		const size_t aud = sizeof(cv::kAccessUnitDelimiter);
		CHECK(cv::is_annexb(data, payload.size()));
		CHECK(unit.size() == payload.size() + aud || unit.size() == payload.size() + headers.size() ||
		      unit.size() == payload.size() + aud + headers.size());
		CHECK(cv::has_nal_type(unit.data(), unit.size(), 9) || unit.size() < 5);
		CHECK(memcmp(unit.data() + unit.size() - 1, data + payload.size() - 1, 1) == 0);
	}

	// Timestamps: the payload read as a sequence of (pts, dts) pairs.
	int64_t last_dts = AV_NOPTS_VALUE;
	for (size_t i = 0; i < 16; i += 2) {
		int64_t pts = read_i64(payload, i);
		int64_t dts = read_i64(payload, i + 1);
		const int64_t in_pts = pts;
		const int64_t in_dts = dts;
		const int64_t before = last_dts;
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

bool is_space(char c)
{
	return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool ends_secret_value(const std::string &text, size_t value)
{
	return text.compare(value, 4, "****") == 0 && (value + 4 == text.size() || text[value + 4] == '&');
}

// Every streamid/passphrase value in a masked address is the mask.
void check_parameters_masked(const std::string &masked)
{
	std::string lower = masked;
	for (char &c : lower)
		c = char(std::tolower(static_cast<unsigned char>(c)));
	for (size_t sep = lower.find_first_of("?&"); sep != std::string::npos;
	     sep = lower.find_first_of("?&", sep + 1)) {
		for (const char *name : {"streamid=", "passphrase="}) {
			if (lower.compare(sep + 1, strlen(name), name) == 0)
				CHECK(ends_secret_value(masked, sep + 1 + strlen(name)));
		}
	}
}

void check_urls(const std::string &server, const std::string &key)
{
	const std::string trimmed = cv::trim_blanks(server);
	CHECK(trimmed.empty() || (!is_space(trimmed.front()) && !is_space(trimmed.back())));
	CHECK(server.find(trimmed) != std::string::npos);

	const cv::StreamUrl built = cv::build_stream_url(server, key);
	if (trimmed.empty()) {
		CHECK(built.url.empty() && built.tc_url.empty());
	} else if (cv::is_srt_url(trimmed)) {
		CHECK(built.url == trimmed && built.tc_url.empty());
	} else if (!built.url.empty()) {
		CHECK(built.tc_url.empty() || built.tc_url.back() != '/');
		CHECK(built.url == built.tc_url + "/" + cv::trim_blanks(key));
	}

	for (const std::string *address : {&server, &built.url}) {
		check_parameters_masked(cv::mask_url_for_log(*address, ""));
		const std::string masked = cv::mask_url_for_log(*address, key);
		const std::string trimmed_key = cv::trim_blanks(key);
		// A key made of '*' could be rebuilt from masks and the text around them.
		if (!trimmed_key.empty() && trimmed_key.find('*') == std::string::npos)
			CHECK(masked.find(trimmed_key) == std::string::npos);
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	check_scanners(Bytes(data, data + size));

	std::vector<Bytes> pieces = split_input(data, size);
	const Bytes &extradata = pieces[0];
	const Bytes &payload = pieces[1];
	check_scanners(extradata);
	check_scanners(payload);

	Bytes headers;
	check_headers(extradata, headers);
	check_packet(payload, headers);

	check_urls(std::string(pieces[2].begin(), pieces[2].end()), std::string(pieces[3].begin(), pieces[3].end()));

	int averror = 0;
	if (size)
		memcpy(&averror, data, size < sizeof(averror) ? size : sizeof(averror));
	CHECK(!cv::is_connection_lost(averror) || averror < 0);
	CHECK(!cv::is_connection_lost(AVERROR(averror & 0xFF)) || (averror & 0xFF) != 0);
	return 0;
}
