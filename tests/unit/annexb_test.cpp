#include "stream/annexb.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

extern "C" {
#include <libavutil/avutil.h>
}

using Bytes = std::vector<uint8_t>;

// "000001 65" as bytes; blanks only group them for reading.
static Bytes hex(const std::string &text)
{
	Bytes out;
	for (size_t i = 0; i < text.size(); i++)
		if (text[i] != ' ')
			out.push_back(uint8_t(std::stoi(text.substr(i++, 2), nullptr, 16)));
	return out;
}

TEST(AnnexB, DetectionAndNalScansAtBufferEdges)
{
	const struct {
		const char *bytes;
		bool annexb, aud, idr, disposable;
	} cases[] = {
		{"", false, false, false, false},
		{"000001", true, false, false, false},
		{"00000001", true, false, false, false},
		{"000001 09", true, false, false, false}, // header byte last, size 4
		{"00000001 09", true, true, false, false},
		{"000001 6588", true, false, true, false},
		{"000001 2588", true, false, true, false}, // nal_ref_idc bits ignored
		{"AA 000001 09", false, false, false, false},
		{"AA 00000001 09", false, true, false, false},
		{"00000007 6588 84 00 335FFE", false, false, false, false}, // length-prefixed (avcC)
		{"00000001 09F0 00000001 6764 00000001 68EB 000001 6588", true, true, true, false},
		// nal_ref_idc 0, behind a delimiter and an SEI.
		{"00000001 0910 000001 0605 000001 019E", true, true, false, true},
		{"00000001 0910 000001 419A", true, true, false, false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.bytes);
		const Bytes bytes = hex(c.bytes);
		const uint8_t *data = bytes.empty() ? nullptr : bytes.data();
		EXPECT_EQ(cv::is_annexb(data, bytes.size()), c.annexb);
		EXPECT_EQ(cv::has_nal_type(data, bytes.size(), 9), c.aud);
		EXPECT_EQ(cv::has_nal_type(data, bytes.size(), 5), c.idr);
		EXPECT_EQ(cv::is_disposable(data, bytes.size()), c.disposable);
	}
}

// avcC's version, profile, level and length size; an SPS and a PPS as avcC has them, and behind start codes.
const std::string kHead = "01 64001FFF ", kSps = " 0005 6764001FAC ", kPps = " 0003 68EBE3 ";
const std::string kSpsB = "00000001 6764001FAC ", kPpsB = "00000001 68EBE3 ";

TEST(AnnexB, EncoderHeaderToParameterSets)
{
	const struct {
		std::string record, expected; // expected empty: conversion fails
	} cases[] = {
		{kHead + "E1" + kSps + "01" + kPps, kSpsB + kPpsB},
		{kHead + "E2" + kSps + "0002 6742 02" + kPps + kPps, kSpsB + "00000001 6742 " + kPpsB + kPpsB},
		{kHead + "E1" + kSps + "01" + kPps + "FDF8F800", kSpsB + kPpsB}, // High profile fields
		{kHead + "E2" + kSps + "00", kSpsB},                             // SPS list ends inside a length field
		{kHead + "E1" + kSps + "01", kSpsB},                             // PPS list missing
		{kHead + "E0 01" + kPps, kPpsB},
		{kHead + "E1" + kSps, ""},                   // no PPS count
		{kHead + "E1 0005 67", ""},                  // SPS runs past the end
		{kHead + "E1" + kSps + "01 0003 68EB", ""},  // PPS likewise
		{"00 64001FFF E1" + kSps + "01" + kPps, ""}, // wrong version
		{kHead + "E1 00", ""},                       // shorter than a header
		{kSpsB + kPpsB, kSpsB + kPpsB},              // a byte stream already (x264's) is taken as it is
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.record);
		const Bytes record = hex(c.record);
		EXPECT_EQ(cv::annexb_parameter_sets(record.data(), record.size()), hex(c.expected));
	}
	EXPECT_EQ(cv::annexb_parameter_sets(nullptr, 100), Bytes());
}

// MPEG-TS wants a delimiter first, and the parameter sets right behind it in every keyframe.
TEST(AnnexB, SelfContainedAccessUnits)
{
	const std::string aud = "00000001 0910 ", new_aud = "00000001 09F0 ", sets = kSpsB + kPpsB;
	const std::string idr = "000001 658884 ", p_slice = "00000001 419A ";
	const struct {
		bool keyframe;
		std::string unit, expected; // expected empty: left as it is
	} cases[] = {
		{true, idr, new_aud + sets + idr}, {true, aud + idr, aud + sets + idr},
		{true, aud + sets + idr, ""},      {true, sets + idr, new_aud + sets + idr},
		{true, aud, aud + sets},           {false, p_slice, new_aud + p_slice},
		{false, aud + p_slice, ""},        {true, "00000002 6588", ""}, // length-prefixed
	};
	const Bytes set_bytes = hex(sets);
	for (const auto &c : cases) {
		SCOPED_TRACE(c.unit);
		const Bytes unit = hex(c.unit);
		Bytes out = {0xEE};
		const bool changed = cv::complete_access_unit(unit.data(), unit.size(), c.keyframe, set_bytes, &out);
		EXPECT_EQ(changed, !c.expected.empty());
		EXPECT_EQ(out, changed ? hex(c.expected) : Bytes{0xEE});
	}
	Bytes out;
	EXPECT_FALSE(cv::complete_access_unit(nullptr, 0, true, set_bytes, &out));
	const Bytes unit = hex(idr);
	EXPECT_TRUE(cv::complete_access_unit(unit.data(), unit.size(), true, {}, &out));
	EXPECT_EQ(out, hex(new_aud + idr)) << "no sets to add";
}

TEST(AnnexB, MonotonicTimestamps)
{
	constexpr int64_t kNone = AV_NOPTS_VALUE;
	const struct {
		int64_t last, pts, dts, want_pts, want_dts, want_last;
	} cases[] = {
		{kNone, 90, 100, 100, 100, 100},
		{100, 300, 200, 300, 200, 200},
		{100, 100, 100, 101, 101, 101}, // equal dts moves up by one
		{100, 150, 50, 150, 101, 101},
		{100, kNone, 100, kNone, 101, 101},
		{100, 5, kNone, 5, kNone, 100}, // no dts: left alone
		{INT64_MAX, INT64_MAX, 7, INT64_MAX, INT64_MAX, INT64_MAX},
	};
	for (const auto &c : cases) {
		int64_t pts = c.pts, dts = c.dts, last = c.last;
		cv::fix_monotonic_ts(pts, dts, last);
		EXPECT_EQ(std::tie(pts, dts, last), std::tie(c.want_pts, c.want_dts, c.want_last))
			<< "row " << &c - cases;
	}
}
