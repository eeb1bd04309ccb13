// SPDX-License-Identifier: Apache-2.0
// The memory tracker: heap memory that is counted by component and type, so that an operator can see which part of
// which process holds how much.
//
// A component registers the names of its types once, then allocates under them. What it allocates is memory of this
// process; the registered shared types (mtrack_sm_init) are the names under which the owner of a shared segment reports
// its records.
#ifndef RSW_MTRACK_H
#define RSW_MTRACK_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Registers a component's private memory types. Registering again renames them and keeps their counts.
//   desc          the component in words, "Internet Protocol (IP)"
//   component     its number
//   names, count  the types' names in the order of their numbers, from 0; a null name is an empty one
// Threads: any. Blocks: no. Owns: nothing; all texts are copied.
// Results: nonzero: registered. 0: no room; allocations are counted under no name then.
uint32_t mtrack_init(const char *desc, uint32_t component, const char **names, uint32_t count);

// The same for a component's shared memory types.
uint32_t mtrack_sm_init(const char *desc, uint32_t component, const char **names, uint32_t count);

// Allocates memory and counts it. Its contents are undefined.
//   component     the caller's
//   type          one of the component's private types
//   size          bytes; 0 gives a block of its own as well
// Threads: any. Blocks: no.
// Owns: the block is the caller's, to be released by mtrack_free. free(3) releases it too, but then it stays counted.
// Results: the block, aligned as malloc's. Null: no memory, after mtrack_ignore_alloc_abort(1); without that, the
// process is aborted with a line that says what was asked for.
void *mtrack_alloc(uint32_t component, uint32_t type, uint32_t size);

// Releases a block of mtrack_alloc and takes it off the count. A block of malloc(3) is released as well.
//   block         may be null: nothing happens
// Threads: any. Blocks: no. Owns: takes the block.
void mtrack_free(void *block);

// Makes failed allocations an answer instead of the end of the process.
//   one           1; a 0 brings the aborts back
// Threads: any. Blocks: no. Owns: nothing.
void mtrack_ignore_alloc_abort(uint32_t one);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
