#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct AVPacket;

namespace cv {

// Access unit delimiter, primary_pic_type 7 (any slice type).
inline constexpr uint8_t kAccessUnitDelimiter[6] = {0, 0, 0, 1, 0x09, 0xF0};

// H.264 byte stream helpers. Every function accepts any pointer/size pair, including a
// null pointer, and never reads outside [data, data + size).

// Starts with a three or four byte start code.
bool is_annexb(const uint8_t *data, size_t size);

// Whether any NAL unit of the byte stream is an access unit delimiter (type 9) or an
// IDR slice (type 5).
bool has_aud(const uint8_t *data, size_t size);
bool has_idr(const uint8_t *data, size_t size);

// The types of the first `limit` NAL units, for log lines: "[9,7,8,5]".
std::string nal_types_string(const uint8_t *data, size_t size, size_t limit);

// Converts an avcC record (MP4/FLV extradata) to Annex B SPS and PPS units, each behind
// a four byte start code. Returns nullptr for a malformed record or one without any
// unit; otherwise an av_malloc'd buffer (free with av_free) padded with zeroed
// AV_INPUT_BUFFER_PADDING_SIZE bytes, whose length without padding goes to *out_size.
uint8_t *avcc_to_annexb_headers(const uint8_t *extradata, size_t size, size_t *out_size);

// Puts prefix in front of the packet's payload. The packet keeps its timing, flags,
// stream index, position and side data. False, with the packet unchanged, for a packet
// without payload or when memory runs out.
bool prepend_bytes(AVPacket *pkt, const uint8_t *prefix, size_t prefix_size);
bool prepend_aud(AVPacket *pkt);

// Keeps decode timestamps strictly increasing across calls sharing last_dts (start it
// at AV_NOPTS_VALUE) and the presentation timestamp never before the decode one. A
// packet without dts is left alone.
void fix_monotonic_ts(int64_t &pts, int64_t &dts, int64_t &last_dts);

} // namespace cv
