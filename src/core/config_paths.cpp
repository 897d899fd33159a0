#include "config_paths.h"

namespace cv {

std::string profile_config_path_in(const std::string &profile_dir)
{
	if (profile_dir.empty())
		return {};
	return profile_dir + kProfileConfigSuffix;
}

std::string parent_dir_of(const std::string &path)
{
	const auto sep = path.find_last_of("/\\");
	return sep == std::string::npos ? path : path.substr(0, sep);
}

} // namespace cv
