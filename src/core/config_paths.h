#pragma once

#include <string>

// Path rules of the two config files, kept free of the host so they can be tested alone.
namespace cv {

inline constexpr const char *kGlobalConfigFile = "settings-global.ini";
inline constexpr const char *kProfileConfigSuffix = "/corvane-vertical-canvas.ini";

// The profile file inside a profile directory; empty when the directory is unknown.
// The separator belongs to the appended text, so a directory that already ends in
// one gives a doubled separator (the host's file functions accept that).
std::string profile_config_path_in(const std::string &profile_dir);

// The directory part of a path: the text before the last '/' or '\'. A path with
// neither separator is returned whole.
std::string parent_dir_of(const std::string &path);

} // namespace cv
