#pragma once

#include <cstddef>

// What the test process holds, for tests that repeat something many times and check
// that nothing piles up.
namespace cvtest {

// Threads of this process.
size_t thread_count();
// Bytes the allocator has handed out and not been given back (small and mapped blocks).
size_t heap_in_use();

} // namespace cvtest
