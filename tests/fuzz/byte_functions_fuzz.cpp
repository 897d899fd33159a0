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
#include <string>
#include <vector>

extern "C" {
#include <libavutil/avutil.h>
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

// Every streamid/passphrase value in a masked address is the mask.
void check_parameters_masked(const std::string &masked)
{
	std::string lower = masked;
	std::transform(lower.begin(), lower.end(), lower.begin(),
		       [](unsigned char c) { return char(std::tolower(c)); });
	for (size_t sep = lower.find_first_of("?&"); sep != std::string::npos; sep = lower.find_first_of("?&", sep + 1))
		for (const std::string name : {"streamid=", "passphrase="})
			if (lower.compare(sep + 1, name.size(), name) == 0) {
				const size_t value = sep + 1 + name.size();
				CHECK(masked.compare(value, 4, "****") == 0 &&
				      (value + 4 == masked.size() || masked[value + 4] == '&'));
			}
}

void check_urls(const std::string &server, const std::string &key)
{
	const std::string trimmed = cv::trim_blanks(server);
	CHECK(trimmed.empty() ||
	      (!std::isspace((unsigned char)trimmed.front()) && !std::isspace((unsigned char)trimmed.back())));
	const cv::StreamUrl built = cv::build_stream_url(server, key);
	if (trimmed.empty()) {
		CHECK(built.url.empty() && built.tc_url.empty());
	} else if (cv::is_srt_url(trimmed)) {
		CHECK(built.url == trimmed && built.tc_url.empty());
	} else if (!built.url.empty()) {
		CHECK(built.tc_url.empty() || built.tc_url.back() != '/');
		CHECK(built.url == built.tc_url + "/" + cv::trim_blanks(key));
	}

	const std::string trimmed_key = cv::trim_blanks(key);
	for (const std::string *address : {&server, &built.url}) {
		check_parameters_masked(cv::mask_url_for_log(*address, ""));
		// A key made of '*' could be rebuilt from masks and the text around them.
		if (!trimmed_key.empty() && trimmed_key.find('*') == std::string::npos)
			CHECK(cv::mask_url_for_log(*address, key).find(trimmed_key) == std::string::npos);
	}
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
