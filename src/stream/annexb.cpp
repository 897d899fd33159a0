#include "annexb.h"

#include <algorithm>
#include <cstring>
#include <iterator>

extern "C" {
#include <libavutil/avutil.h>
}

namespace cv {

namespace {

constexpr uint8_t kNalTypeSps = 7;
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

bool is_disposable(const uint8_t *data, size_t size)
{
	if (!is_annexb(data, size))
		return false;
	size_t pos = 0;
	while (size_t header = next_nal_header(data, size, pos, size - 3)) {
		const uint8_t type = data[header] & 0x1F;
		if (type >= 1 && type <= 5)
			return (data[header] & 0x60) == 0;
	}
	return false;
}

std::vector<uint8_t> annexb_parameter_sets(const uint8_t *header, size_t size)
{
	if (is_annexb(header, size))
		return std::vector<uint8_t>(header, header + size);
	std::vector<uint8_t> units;
	if (!header || size < 8 || header[0] != 1)
		return units;
	size_t pos = 6;
	if (!copy_parameter_sets(header, size, pos, header[5] & 0x1F, units) || pos >= size) {
		units.clear();
		return units;
	}
	const unsigned pps_count = header[pos++];
	if (!copy_parameter_sets(header, size, pos, pps_count, units))
		units.clear();
	return units;
}

bool complete_access_unit(const uint8_t *data, size_t size, bool keyframe, const std::vector<uint8_t> &parameter_sets,
			  std::vector<uint8_t> *out)
{
	if (!is_annexb(data, size))
		return false;
	size_t pos = 0;
	const size_t first = next_nal_header(data, size, pos, size - 3);
	const bool leading_aud = first && (data[first] & 0x1F) == kNalTypeAud;
	const bool add_sets = keyframe && !parameter_sets.empty() && !has_nal_type(data, size, kNalTypeSps);
	if (leading_aud && !add_sets)
		return false;

	// The delimiter the unit has, up to the start code after it, or a new one.
	size_t split = 0;
	if (leading_aud) {
		const size_t second = size >= 4 ? next_nal_header(data, size, pos, size - 3) : 0;
		split = second ? second - 3 : size;
	}
	out->clear();
	out->reserve(sizeof(kAccessUnitDelimiter) + parameter_sets.size() + size);
	if (leading_aud)
		out->insert(out->end(), data, data + split);
	else
		out->insert(out->end(), std::begin(kAccessUnitDelimiter), std::end(kAccessUnitDelimiter));
	if (add_sets)
		out->insert(out->end(), parameter_sets.begin(), parameter_sets.end());
	out->insert(out->end(), data + split, data + size);
	return true;
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
