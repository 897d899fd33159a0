#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace cv {

// Access unit delimiter, primary_pic_type 7 (any slice type).
inline constexpr uint8_t kAccessUnitDelimiter[6] = {0, 0, 0, 1, 0x09, 0xF0};

// H.264 byte stream helpers. Every function accepts any pointer/size pair, including a
// null pointer, and never reads outside [data, data + size).

// Starts with a three or four byte start code.
bool is_annexb(const uint8_t *data, size_t size);

// Whether any NAL unit of the byte stream has this type (9 delimiter, 7 SPS, 5 IDR).
bool has_nal_type(const uint8_t *data, size_t size, uint8_t type);

// Whether no other frame refers to this access unit's picture: its first slice says so
// (nal_ref_idc 0), and every slice of a picture says the same. False when no slice is
// found or the payload is not a byte stream.
bool is_disposable(const uint8_t *data, size_t size);

// The SPS and PPS units of an encoder's header as an Annex B byte stream, each behind a
// four byte start code: an avcC record (MP4/FLV extradata) is converted, a header that
// already is a byte stream is taken as it is. Empty for a malformed record or one
// without any unit.
std::vector<uint8_t> annexb_parameter_sets(const uint8_t *header, size_t size);

// Makes an Annex B access unit self-contained, as MPEG-TS wants it: a delimiter first and,
// for a keyframe without its own SPS, `parameter_sets` right after the delimiter. Returns
// false, leaving `out` alone, when the access unit already is so.
bool complete_access_unit(const uint8_t *data, size_t size, bool keyframe, const std::vector<uint8_t> &parameter_sets,
			  std::vector<uint8_t> *out);

// Keeps decode timestamps strictly increasing across calls sharing last_dts (start it
// at AV_NOPTS_VALUE) and the presentation timestamp never before the decode one. A
// packet without dts is left alone.
void fix_monotonic_ts(int64_t &pts, int64_t &dts, int64_t &last_dts);

} // namespace cv
