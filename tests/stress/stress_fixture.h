#pragma once

#include "host_session.h"
#include "wait.h"

#include <cstdlib>
#include <string>

namespace cvtest {

// The stress suite runs in a short form by default (what CI runs) and in its long form
// when CV_STRESS_LONG is set to anything but "0".
inline bool stress_long_form()
{
	const char *value = std::getenv("CV_STRESS_LONG");
	return value && *value && std::string(value) != "0";
}

inline int by_form(int short_form, int long_form)
{
	return stress_long_form() ? long_form : short_form;
}

// The host as the stress tests run it: the main canvas at 30 fps, like the vertical one.
inline HostOptions stress_host_options()
{
	HostOptions options;
	options.fps_num = 30;
	return options;
}

} // namespace cvtest
