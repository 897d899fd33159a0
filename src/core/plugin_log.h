#pragma once

#include <util/base.h>

namespace cv {

// First argument of every log line of the module: each message starts with "[%s] ".
inline constexpr const char *kLogTag = "corvane-obs-vertical";

} // namespace cv
