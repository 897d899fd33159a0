#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

// The host tests end with _exit: Debian 12's libsrt crashes in its own static
// destructors at process exit once an SRT connection was made, after every test
// has passed and libobs has been shut down. _exit also skips the sanitizer build's
// exit-time leak check, which could not name the host's graphics and plug-in modules
// anyway (unloaded, no frame pointers); leaks there are caught by libobs's own count
// of outstanding allocations, checked after every test.
int main(int argc, char **argv)
{
	::testing::InitGoogleTest(&argc, argv);
	const int result = RUN_ALL_TESTS();
	fflush(stdout);
	fflush(stderr);
	_exit(result);
}
