// SPDX-License-Identifier: Apache-2.0
// Blocks of the heap that the platform handed out and whose release a test has to see, whichever way it comes: by the
// memory tracker, or by the C library's free.
//
// A release is a line in the log: "mtrack_free(vector)" or "free(vector)". For the second a program has to see calls of
// free: it calls block_is_freed() from a free of its own, or from the hook of a sanitizer.
#ifndef TESTS_FAKE_PLATFORM_WATCHED_BLOCKS_H
#define TESTS_FAKE_PLATFORM_WATCHED_BLOCKS_H

#include <string>
#include <vector>

namespace fake_platform {

// `name` has static storage. A few blocks at a time; aborts when there are more.
void watch_block(const void *block, const char *name);

// The name of a watched block; null: not watched.
const char *watched_name(const void *block);

// Ends the watch. Null: it was not watched.
const char *end_watch(const void *block);

// Logs the free of a watched block and ends its watch. Runs inside free: it allocates only when it has to log.
void block_is_freed(const void *block);

// The names of the blocks that nobody released.
std::vector<std::string> unreleased_blocks();

// Frees them.
void free_watched_blocks();

}  // namespace fake_platform

#endif
