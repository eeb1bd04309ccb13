// SPDX-License-Identifier: Apache-2.0
// The thread-safety layer: the read side of the shared database's lock.
//
// A reader never waits and is never waited for: taking the lock marks this thread as reading, and the database's writer
// does not reuse memory that a marked thread could still see. So whatever is reached under the lock stays readable
// until it is released, and may have been replaced by then.
//
//   uint32_t lock = tsp_create_rwsem_lock(0, 6);
//   tsp_lock_acquire_rdlock(lock);
//   ... follow pointers, copy what is wanted ...
//   tsp_lock_release_rdlock(lock);
//
// Order, where two locks are held: the database's first, then URIB's (urib.h).
#ifndef RSW_TSP_H
#define RSW_TSP_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Whether this process may use locks.
// Threads: any. Blocks: no. Owns: nothing. Results: nonzero: it may. 0: it has no thread support; take no lock.
uint32_t tsp_is_proc_init(void);

// Opens the database's lock for this process.
//   kind6         6, a reader-writer lock that one thread may take again while it holds it
// Threads: any. Blocks: no. Owns: the handle is the caller's, to be given back by tsp_destroy_lock; every call counts.
// Results: the handle. 0: there is no such lock (the log says why: for example, no IP process ever ran).
uint32_t tsp_create_rwsem_lock(uint32_t zero, uint32_t kind6);

// Gives a handle back.
//   lock          the handle; 0 is nothing. No thread may hold the lock through its last handle
// Threads: any. Blocks: no. Owns: takes the handle.
void tsp_destroy_lock(uint32_t lock);

// Takes the read side; a thread that holds it may take it again, and releases it as often.
//   lock          the handle; with 0 nothing is taken
// Threads: any; not from a signal handler. Blocks: no; a few nanoseconds, no system call. Owns: nothing.
void tsp_lock_acquire_rdlock(uint32_t lock);

// Releases what tsp_lock_acquire_rdlock took, in the same thread. Without a matching acquisition nothing happens.
//   lock          the handle
// Threads: any. Blocks: no. Owns: nothing.
void tsp_lock_release_rdlock(uint32_t lock);

// Bracket a call that may wait for long, so that the layer can let other threads run. The caller holds no lock there.
// Threads: any. Blocks: no. Owns: nothing.
void tsp_before_yield(void);
void tsp_after_yield(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
