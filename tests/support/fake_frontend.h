#pragma once

#include <string>

// A stand-in for the host program's front-end API, for host tests that run libobs
// without the real program. The test decides what the front end reports.
namespace cvtest::frontend {

// Directory reported as the current profile's; empty makes the front end answer null.
void set_profile_dir(const std::string &dir);
void reset();

} // namespace cvtest::frontend
