#include "encoder_order.h"

#include <algorithm>
#include <iterator>

namespace cv {

int hardware_rank(const std::string &id)
{
	static const char *const vendors[] = {"nvenc", "amf", "qsv", "vaapi"};
	for (size_t i = 0; i < std::size(vendors); i++) {
		if (id.find(vendors[i]) == std::string::npos)
			continue;
		const bool texture = id.size() > 4 && id.compare(id.size() - 4, 4, "_tex") == 0;
		return int(i * 2 + (texture ? 0 : 1));
	}
	return -1;
}

std::vector<std::string> encoder_order(const std::string &chosen, const std::vector<std::string> &offered)
{
	std::vector<std::string> order;
	auto add = [&](const std::string &id) {
		if (std::find(offered.begin(), offered.end(), id) != offered.end() &&
		    std::find(order.begin(), order.end(), id) == order.end())
			order.push_back(id);
	};
	if (chosen != kAutomaticEncoder)
		add(chosen);
	std::vector<std::string> hardware;
	std::copy_if(offered.begin(), offered.end(), std::back_inserter(hardware),
		     [](const std::string &id) { return hardware_rank(id) >= 0; });
	std::stable_sort(hardware.begin(), hardware.end(), [](const std::string &a, const std::string &b) {
		return hardware_rank(a) < hardware_rank(b);
	});
	for (const std::string &id : hardware)
		add(id);
	add(kX264Encoder);
	return order;
}

} // namespace cv
