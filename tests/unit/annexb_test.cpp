#include "stream/annexb.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <iterator>
#include <vector>

extern "C" {
#include <libavutil/avutil.h>
}

namespace {

using Bytes = std::vector<uint8_t>;

struct ScanCase {
	const char *name;
	Bytes bytes;
	bool annexb;
	bool aud;
	bool idr;
	bool disposable = false;
};

TEST(AnnexB, DetectionAndNalScansAtBufferEdges)
{
	const ScanCase cases[] = {
		{"empty", {}, false, false, false},
		{"bare 3-byte code", {0, 0, 1}, true, false, false},
		{"4-byte code without header", {0, 0, 0, 1}, true, false, false},
		{"3-byte code, header last, size 4", {0, 0, 1, 9}, true, false, false},
		{"4-byte code, header last, size 5", {0, 0, 0, 1, 9}, true, true, false},
		{"3-byte IDR, size 5", {0, 0, 1, 0x65, 0x88}, true, false, true},
		{"nal_ref_idc bits ignored", {0, 0, 1, 0x25, 0x88}, true, false, true},
		{"3-byte code at the very end", {0xAA, 0, 0, 1, 9}, false, false, false},
		{"4-byte code at the very end", {0xAA, 0, 0, 0, 1, 9}, false, true, false},
		{"length-prefixed (avcC) frame",
		 {0, 0, 0, 7, 0x65, 0x88, 0x84, 0, 0x33, 0x5F, 0xFE},
		 false,
		 false,
		 false},
		{"whole keyframe access unit",
		 {0, 0, 0, 1, 9, 0xF0, 0, 0, 0, 1, 0x67, 0x64, 0, 0, 0, 1, 0x68, 0xEB, 0, 0, 1, 0x65, 0x88},
		 true,
		 true,
		 true},
		// A slice nothing refers to (nal_ref_idc 0), behind a delimiter and an SEI.
		{"disposable B-frame",
		 {0, 0, 0, 1, 9, 0x10, 0, 0, 1, 0x06, 0x05, 0, 0, 1, 0x01, 0x9E},
		 true,
		 true,
		 false,
		 true},
		{"referenced P-frame", {0, 0, 0, 1, 9, 0x10, 0, 0, 1, 0x41, 0x9A}, true, true, false, false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		const uint8_t *data = c.bytes.empty() ? nullptr : c.bytes.data();
		EXPECT_EQ(cv::is_annexb(data, c.bytes.size()), c.annexb);
		EXPECT_EQ(cv::has_nal_type(data, c.bytes.size(), 9), c.aud);
		EXPECT_EQ(cv::has_nal_type(data, c.bytes.size(), 5), c.idr);
		EXPECT_EQ(cv::is_disposable(data, c.bytes.size()), c.disposable);
	}
}

const Bytes kSps = {0x67, 0x64, 0x00, 0x1F, 0xAC};
const Bytes kSps2 = {0x67, 0x42};
const Bytes kPps = {0x68, 0xEB, 0xE3};

// An avcC record: header, SPS list, PPS count and list, then any extra bytes.
Bytes avcc(uint8_t sps_count_byte, const std::vector<Bytes> &sps, int pps_count, const std::vector<Bytes> &pps,
	   const Bytes &tail = {})
{
	Bytes out = {1, 0x64, 0x00, 0x1F, 0xFF, sps_count_byte};
	for (const auto &unit : sps) {
		out.push_back(uint8_t(unit.size() >> 8));
		out.push_back(uint8_t(unit.size()));
		out.insert(out.end(), unit.begin(), unit.end());
	}
	if (pps_count >= 0)
		out.push_back(uint8_t(pps_count));
	for (const auto &unit : pps) {
		out.push_back(uint8_t(unit.size() >> 8));
		out.push_back(uint8_t(unit.size()));
		out.insert(out.end(), unit.begin(), unit.end());
	}
	out.insert(out.end(), tail.begin(), tail.end());
	return out;
}

Bytes annexb(const std::vector<Bytes> &units)
{
	Bytes out;
	for (const auto &unit : units) {
		out.insert(out.end(), {0, 0, 0, 1});
		out.insert(out.end(), unit.begin(), unit.end());
	}
	return out;
}

TEST(AnnexB, EncoderHeaderToParameterSets)
{
	Bytes wrong_version = avcc(0xE1, {kSps}, 1, {kPps});
	wrong_version[0] = 0;
	Bytes sps_cut = avcc(0xE1, {kSps}, 1, {kPps});
	sps_cut.resize(9);
	Bytes pps_cut = avcc(0xE1, {kSps}, 1, {kPps});
	pps_cut.pop_back();

	const struct {
		const char *name;
		Bytes record;
		Bytes expected; // empty: conversion fails
	} cases[] = {
		{"one SPS, one PPS", avcc(0xE1, {kSps}, 1, {kPps}), annexb({kSps, kPps})},
		{"several of each", avcc(0xE2, {kSps, kSps2}, 2, {kPps, kPps}), annexb({kSps, kSps2, kPps, kPps})},
		{"trailing High profile fields ignored", avcc(0xE1, {kSps}, 1, {kPps}, {0xFD, 0xF8, 0xF8, 0}),
		 annexb({kSps, kPps})},
		{"SPS list ends inside a length field", avcc(0xE2, {kSps}, 0, {}), annexb({kSps})},
		{"PPS list missing", avcc(0xE1, {kSps}, 1, {}), annexb({kSps})},
		{"no SPS", avcc(0xE0, {}, 1, {kPps}), annexb({kPps})},
		{"zero counts", avcc(0xE0, {}, 0, {}, {0}), {}},
		{"no PPS count", avcc(0xE1, {kSps}, -1, {}), {}},
		{"SPS runs past the end", sps_cut, {}},
		{"PPS runs past the end", pps_cut, {}},
		{"wrong version", wrong_version, {}},
		{"shorter than a header", {1, 0x64, 0, 0x1F, 0xFF, 0xE1, 0}, {}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		EXPECT_EQ(cv::annexb_parameter_sets(c.record.data(), c.record.size()), c.expected);
	}
	EXPECT_EQ(cv::annexb_parameter_sets(nullptr, 100), Bytes());
	// A header that is a byte stream already (x264's) is used as it is.
	const Bytes stream = annexb({kSps, kPps});
	EXPECT_EQ(cv::annexb_parameter_sets(stream.data(), stream.size()), stream);
}

// What MPEG-TS gets of each access unit: a delimiter first, and the parameter sets with
// every keyframe that lacks them, right behind the delimiter.
TEST(AnnexB, SelfContainedAccessUnits)
{
	const Bytes aud = {0, 0, 0, 1, 9, 0x10};
	const Bytes idr = {0, 0, 1, 0x65, 0x88, 0x84};
	const Bytes p_slice = {0, 0, 0, 1, 0x41, 0x9A};
	const Bytes sets = annexb({kSps, kPps});
	const Bytes new_aud(std::begin(cv::kAccessUnitDelimiter), std::end(cv::kAccessUnitDelimiter));
	auto cat = [](std::initializer_list<Bytes> parts) {
		Bytes out;
		for (const Bytes &part : parts)
			out.insert(out.end(), part.begin(), part.end());
		return out;
	};

	const struct {
		const char *name;
		Bytes unit;
		bool keyframe;
		Bytes expected; // empty: left as it is
	} cases[] = {
		{"keyframe without delimiter or sets", idr, true, cat({new_aud, sets, idr})},
		{"keyframe behind its own delimiter", cat({aud, idr}), true, cat({aud, sets, idr})},
		{"keyframe with its own sets", cat({aud, sets, idr}), true, {}},
		{"keyframe with sets, no delimiter", cat({sets, idr}), true, cat({new_aud, sets, idr})},
		{"delimiter alone", aud, true, cat({aud, sets})},
		{"other frame without delimiter", p_slice, false, cat({new_aud, p_slice})},
		{"other frame with delimiter", cat({aud, p_slice}), false, {}},
		{"length-prefixed payload", {0, 0, 0, 2, 0x65, 0x88}, true, {}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		Bytes out = {0xEE};
		const bool changed = cv::complete_access_unit(c.unit.data(), c.unit.size(), c.keyframe, sets, &out);
		EXPECT_EQ(changed, !c.expected.empty());
		EXPECT_EQ(out, changed ? c.expected : Bytes{0xEE});
	}
	Bytes out;
	EXPECT_FALSE(cv::complete_access_unit(nullptr, 0, true, sets, &out));
	EXPECT_TRUE(cv::complete_access_unit(idr.data(), idr.size(), true, {}, &out));
	EXPECT_EQ(out, cat({new_aud, idr})) << "no sets to add";
}

TEST(AnnexB, MonotonicTimestamps)
{
	constexpr int64_t kNone = AV_NOPTS_VALUE;
	const struct {
		const char *name;
		int64_t last, pts, dts;
		int64_t want_pts, want_dts, want_last;
	} cases[] = {
		{"first packet", kNone, 90, 100, 100, 100, 100},
		{"increasing", 100, 300, 200, 300, 200, 200},
		{"equal dts is moved up by one", 100, 100, 100, 101, 101, 101},
		{"dts going back", 100, 150, 50, 150, 101, 101},
		{"pts raised to dts", kNone, 10, 20, 20, 20, 20},
		{"missing pts stays missing", 100, kNone, 100, kNone, 101, 101},
		{"missing dts changes nothing", 100, 5, kNone, 5, kNone, 100},
		{"no overflow at the top", INT64_MAX, INT64_MAX, 7, INT64_MAX, INT64_MAX, INT64_MAX},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		int64_t pts = c.pts, dts = c.dts, last = c.last;
		cv::fix_monotonic_ts(pts, dts, last);
		EXPECT_EQ(pts, c.want_pts);
		EXPECT_EQ(dts, c.want_dts);
		EXPECT_EQ(last, c.want_last);
	}
}

} // namespace
