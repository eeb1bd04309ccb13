// SPDX-License-Identifier: Apache-2.0
// Counts what the program takes from the heap: the malloc family of every library in it, operator new on top of it.
#ifndef TESTS_PLATFORM_COUNTING_ALLOCATOR_H
#define TESTS_PLATFORM_COUNTING_ALLOCATOR_H

#include <cstdint>

namespace counting_allocator {

// Of the calling thread so far; others may allocate meanwhile.
uint64_t allocations();

}  // namespace counting_allocator

#endif
