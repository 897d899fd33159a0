#include "annexb.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

extern "C" {
#include <libavcodec/defs.h>
#include <libavcodec/packet.h>
#include <libavutil/avutil.h>
#include <libavutil/buffer.h>
#include <libavutil/mem.h>
}

namespace cv {

namespace {

constexpr uint8_t kNalTypeIdr = 5;
constexpr uint8_t kNalTypeAud = 9;

// Finds the next start code at a position in [pos, last] whose NAL header byte lies
// inside the data, a four byte code taking precedence over the three byte one it ends
// with. Returns the offset of the header byte, or 0 when there is none (a header byte
// is never at offset 0). Runs on every video packet, so it jumps from one 0x01 byte
// to the next with memchr instead of testing every position.
size_t next_nal_header(const uint8_t *data, size_t size, size_t &pos, size_t last)
{
	if (pos > last || size < 4)
		return 0;
	// The 0x01 of a code starting at p lies at p + 2 or p + 3.
	const size_t end = std::min(last + 3, size - 1);
	for (size_t i = pos + 2; i <= end;) {
		const void *found = memchr(data + i, 1, end - i + 1);
		if (!found)
			break;
		i = size_t(static_cast<const uint8_t *>(found) - data);
		if (i >= pos + 3 && i - 3 <= last && i + 1 < size && data[i - 3] == 0 && data[i - 2] == 0 &&
		    data[i - 1] == 0) {
			pos = i + 1;
			return pos;
		}
		if (i - 2 <= last && i + 1 < size && data[i - 2] == 0 && data[i - 1] == 0) {
			pos = i + 1;
			return pos;
		}
		i++;
	}
	pos = last + 1;
	return 0;
}

bool has_nal_type(const uint8_t *data, size_t size, uint8_t type)
{
	if (!data || size < 5)
		return false;
	size_t pos = 0;
	while (size_t header = next_nal_header(data, size, pos, size - 5)) {
		if ((data[header] & 0x1F) == type)
			return true;
	}
	return false;
}

void append_start_code(std::vector<uint8_t> &out)
{
	static const uint8_t start_code[4] = {0, 0, 0, 1};
	out.insert(out.end(), start_code, start_code + sizeof(start_code));
}

// Copies `count` length-prefixed units starting at pos. A length field cut off by the
// end of the record ends the list quietly; a unit running past the end is an error.
bool copy_parameter_sets(const uint8_t *data, size_t size, size_t &pos, unsigned count, std::vector<uint8_t> &out)
{
	for (unsigned i = 0; i < count; i++) {
		if (size - pos < 2)
			break;
		const size_t len = (size_t(data[pos]) << 8) | data[pos + 1];
		pos += 2;
		if (len > size - pos)
			return false;
		append_start_code(out);
		out.insert(out.end(), data + pos, data + pos + len);
		pos += len;
	}
	return true;
}

} // namespace

bool is_annexb(const uint8_t *data, size_t size)
{
	if (!data || size < 3)
		return false;
	if (data[0] == 0 && data[1] == 0 && data[2] == 1)
		return true;
	return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

bool has_aud(const uint8_t *data, size_t size)
{
	return has_nal_type(data, size, kNalTypeAud);
}

bool has_idr(const uint8_t *data, size_t size)
{
	return has_nal_type(data, size, kNalTypeIdr);
}

std::string nal_types_string(const uint8_t *data, size_t size, size_t limit)
{
	if (!data || size < 4)
		return "[]";
	std::string out = "[";
	size_t pos = 0;
	for (size_t found = 0; found < limit; found++) {
		const size_t header = next_nal_header(data, size, pos, size - 4);
		if (!header)
			break;
		if (found)
			out += ',';
		out += std::to_string(data[header] & 0x1F);
	}
	out += ']';
	return out;
}

uint8_t *avcc_to_annexb_headers(const uint8_t *extradata, size_t size, size_t *out_size)
{
	if (!extradata || size < 8 || extradata[0] != 1)
		return nullptr;

	std::vector<uint8_t> units;
	size_t pos = 6;
	if (!copy_parameter_sets(extradata, size, pos, extradata[5] & 0x1F, units))
		return nullptr;
	if (pos >= size)
		return nullptr;
	const unsigned pps_count = extradata[pos++];
	if (!copy_parameter_sets(extradata, size, pos, pps_count, units))
		return nullptr;
	if (units.empty())
		return nullptr;

	auto *out = static_cast<uint8_t *>(av_malloc(units.size() + AV_INPUT_BUFFER_PADDING_SIZE));
	if (!out)
		return nullptr;
	memcpy(out, units.data(), units.size());
	memset(out + units.size(), 0, AV_INPUT_BUFFER_PADDING_SIZE);
	if (out_size)
		*out_size = units.size();
	return out;
}

bool prepend_bytes(AVPacket *pkt, const uint8_t *prefix, size_t prefix_size)
{
	if (!pkt || !pkt->data || pkt->size <= 0)
		return false;
	if (!prefix && prefix_size)
		return false;
	const size_t old_size = size_t(pkt->size);
	if (prefix_size > size_t(INT_MAX) - AV_INPUT_BUFFER_PADDING_SIZE - old_size)
		return false;
	const size_t new_size = prefix_size + old_size;

	// Swapping only the payload buffer keeps every other field of the packet.
	AVBufferRef *buf = av_buffer_alloc(new_size + AV_INPUT_BUFFER_PADDING_SIZE);
	if (!buf)
		return false;
	if (prefix_size)
		memcpy(buf->data, prefix, prefix_size);
	memcpy(buf->data + prefix_size, pkt->data, old_size);
	memset(buf->data + new_size, 0, AV_INPUT_BUFFER_PADDING_SIZE);

	av_buffer_unref(&pkt->buf);
	pkt->buf = buf;
	pkt->data = buf->data;
	pkt->size = int(new_size);
	return true;
}

bool prepend_aud(AVPacket *pkt)
{
	return prepend_bytes(pkt, kAccessUnitDelimiter, sizeof(kAccessUnitDelimiter));
}

void fix_monotonic_ts(int64_t &pts, int64_t &dts, int64_t &last_dts)
{
	if (dts == AV_NOPTS_VALUE)
		return;
	if (last_dts != AV_NOPTS_VALUE && dts <= last_dts)
		dts = last_dts == INT64_MAX ? INT64_MAX : last_dts + 1;
	if (pts != AV_NOPTS_VALUE && pts < dts)
		pts = dts;
	last_dts = dts;
}

} // namespace cv
