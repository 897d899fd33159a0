#include "mux/annexb.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/avutil.h>
#include <libavutil/mem.h>
}

namespace {

using Bytes = std::vector<uint8_t>;

struct ScanCase {
	const char *name;
	Bytes bytes;
	bool annexb;
	bool aud;
	bool idr;
	const char *types;
};

TEST(AnnexB, DetectionAndNalScansAtBufferEdges)
{
	const ScanCase cases[] = {
		{"empty", {}, false, false, false, "[]"},
		{"bare 3-byte code", {0, 0, 1}, true, false, false, "[]"},
		{"4-byte code without header", {0, 0, 0, 1}, true, false, false, "[]"},
		{"3-byte code, header last, size 4", {0, 0, 1, 9}, true, false, false, "[9]"},
		{"4-byte code, header last, size 5", {0, 0, 0, 1, 9}, true, true, false, "[9]"},
		{"3-byte IDR, size 5", {0, 0, 1, 0x65, 0x88}, true, false, true, "[5]"},
		{"nal_ref_idc bits ignored", {0, 0, 1, 0x25, 0x88}, true, false, true, "[5]"},
		// The type tests stop one position earlier than the list.
		{"3-byte code at the very end", {0xAA, 0, 0, 1, 9}, false, false, false, "[9]"},
		{"4-byte code at the very end", {0xAA, 0, 0, 0, 1, 9}, false, true, false, "[9]"},
		{"length-prefixed (avcC) frame",
		 {0, 0, 0, 7, 0x65, 0x88, 0x84, 0, 0x33, 0x5F, 0xFE},
		 false,
		 false,
		 false,
		 "[]"},
		{"whole keyframe access unit",
		 {0, 0, 0, 1, 9, 0xF0, 0, 0, 0, 1, 0x67, 0x64, 0, 0, 0, 1, 0x68, 0xEB, 0, 0, 1, 0x65, 0x88},
		 true,
		 true,
		 true,
		 "[9,7,8,5]"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		const uint8_t *data = c.bytes.empty() ? nullptr : c.bytes.data();
		EXPECT_EQ(cv::is_annexb(data, c.bytes.size()), c.annexb);
		EXPECT_EQ(cv::has_aud(data, c.bytes.size()), c.aud);
		EXPECT_EQ(cv::has_idr(data, c.bytes.size()), c.idr);
		EXPECT_EQ(cv::nal_types_string(data, c.bytes.size(), 16), c.types);
	}

	const Bytes au = cases[std::size(cases) - 1].bytes;
	EXPECT_EQ(cv::nal_types_string(au.data(), au.size(), 0), "[]");
	EXPECT_EQ(cv::nal_types_string(au.data(), au.size(), 2), "[9,7]");
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

TEST(AnnexB, AvccRecordToHeaders)
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
		size_t size = 12345;
		uint8_t *out = cv::avcc_to_annexb_headers(c.record.data(), c.record.size(), &size);
		if (c.expected.empty()) {
			EXPECT_EQ(out, nullptr);
			EXPECT_EQ(size, 12345u);
			continue;
		}
		ASSERT_NE(out, nullptr);
		EXPECT_EQ(Bytes(out, out + size), c.expected);
		EXPECT_EQ(Bytes(out + size, out + size + 64), Bytes(64, 0)) << "padding";
		av_free(out);
	}
	size_t size = 0;
	EXPECT_EQ(cv::avcc_to_annexb_headers(nullptr, 100, &size), nullptr);
}

struct PacketDeleter {
	void operator()(AVPacket *pkt) const { av_packet_free(&pkt); }
};
using Packet = std::unique_ptr<AVPacket, PacketDeleter>;

Packet make_packet(const Bytes &payload)
{
	Packet pkt(av_packet_alloc());
	if (!payload.empty() && av_new_packet(pkt.get(), int(payload.size())) == 0)
		memcpy(pkt->data, payload.data(), payload.size());
	pkt->pts = 3003;
	pkt->dts = 1001;
	pkt->duration = 1001;
	pkt->stream_index = 1;
	pkt->flags = AV_PKT_FLAG_KEY;
	pkt->pos = 4096;
	return pkt;
}

void expect_timing_kept(const AVPacket *pkt)
{
	EXPECT_EQ(pkt->pts, 3003);
	EXPECT_EQ(pkt->dts, 1001);
	EXPECT_EQ(pkt->duration, 1001);
	EXPECT_EQ(pkt->stream_index, 1);
	EXPECT_EQ(pkt->flags, AV_PKT_FLAG_KEY);
	EXPECT_EQ(pkt->pos, 4096);
}

TEST(AnnexB, PrependKeepsTimingAndSideData)
{
	const Bytes idr = {0, 0, 1, 0x65, 0x88, 0x84};
	Packet pkt = make_packet(idr);
	ASSERT_NE(av_packet_new_side_data(pkt.get(), AV_PKT_DATA_NEW_EXTRADATA, 4), nullptr);

	// A keyframe as it is sent: delimiter, then SPS/PPS, then the slice.
	const Bytes headers = annexb({kSps, kPps});
	ASSERT_TRUE(cv::prepend_bytes(pkt.get(), headers.data(), headers.size()));
	ASSERT_TRUE(cv::prepend_aud(pkt.get()));

	Bytes expected(std::begin(cv::kAccessUnitDelimiter), std::end(cv::kAccessUnitDelimiter));
	expected.insert(expected.end(), headers.begin(), headers.end());
	expected.insert(expected.end(), idr.begin(), idr.end());
	EXPECT_EQ(Bytes(pkt->data, pkt->data + pkt->size), expected);
	EXPECT_EQ(cv::nal_types_string(pkt->data, size_t(pkt->size), 8), "[9,7,8,5]");
	expect_timing_kept(pkt.get());
	EXPECT_NE(av_packet_get_side_data(pkt.get(), AV_PKT_DATA_NEW_EXTRADATA, nullptr), nullptr);

	// Payload the packet does not own is copied and left to its owner.
	uint8_t external[] = {0, 0, 1, 0x41, 0x9A};
	Packet borrowed = make_packet({});
	borrowed->data = external;
	borrowed->size = int(sizeof(external));
	ASSERT_TRUE(cv::prepend_aud(borrowed.get()));
	EXPECT_EQ(borrowed->size, 11);
	EXPECT_EQ(memcmp(borrowed->data + 6, external, sizeof(external)), 0);
	expect_timing_kept(borrowed.get());

	Packet empty = make_packet({});
	EXPECT_FALSE(cv::prepend_aud(empty.get()));
	EXPECT_EQ(empty->data, nullptr);
	expect_timing_kept(empty.get());
	EXPECT_FALSE(cv::prepend_aud(nullptr));
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
