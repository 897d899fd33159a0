#pragma once

#include <obs-module.h>

#include <QString>

namespace cv {

// The text under `key` in the plug-in's locale files, in the host's language; the key
// itself when no file has it.
inline QString text(const char *key)
{
	return QString::fromUtf8(obs_module_text(key));
}

} // namespace cv
