#include "fake_frontend.h"

#include <obs-frontend-api.h>
#include <util/bmem.h>

namespace cvtest::frontend {

namespace {
std::string profile_dir;
} // namespace

void set_profile_dir(const std::string &dir)
{
	profile_dir = dir;
}

void reset()
{
	profile_dir.clear();
}

} // namespace cvtest::frontend

char *obs_frontend_get_current_profile_path(void)
{
	const std::string &dir = cvtest::frontend::profile_dir;
	return dir.empty() ? nullptr : bstrdup(dir.c_str());
}
