#pragma once

#include <string>
#include <sys/types.h>

namespace cvtest {

// A private X server for one test process, on a display number it picks itself.
// It stays the test's own child and is reaped when stopped.
class Xvfb {
public:
	Xvfb() = default;
	~Xvfb();
	Xvfb(const Xvfb &) = delete;
	Xvfb &operator=(const Xvfb &) = delete;

	// Starts the server and sets DISPLAY. Returns false (with a reason) on failure.
	bool start(std::string *error);
	void stop();
	const std::string &display() const { return display_; }

private:
	pid_t pid_ = -1;
	std::string display_;
};

} // namespace cvtest
