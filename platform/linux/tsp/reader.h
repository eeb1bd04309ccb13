// SPDX-License-Identifier: Apache-2.0
// A thread as reader of shared segments: its slot, and how deep it is inside each lock.
#ifndef RSW_TSP_READER_H
#define RSW_TSP_READER_H

#include <cstdint>

#include "tsp/reader_locks.h"
#include "tsp/slots.h"

namespace rsw {

struct Reader {
  Slot *slot;      // null: none yet, or none to be had
  uint32_t light;  // epoch_light if this process is registered for membarrier, else 0
  uint32_t depth[lock_count];
  uint32_t skip;  // outermost acquisitions to go without a slot before asking again
  Reader *next;   // the process's readers with a slot; guarded by the mutex of slot_ownership.cc
  Reader *previous;
};

// Zero-initialised and without destructor, so that it costs a load from a fixed offset; what a thread's end needs is
// done by a pthread key.
extern thread_local constinit Reader this_reader;

// Gives this thread a slot. Null: none to be had, said once in the log; the thread goes on without protection.
Slot *acquire_slot();

// The other half of open_reader_lock().
void close_reader_lock(uint32_t handle);

// The slots of a process stay attached after its last lock is closed, because a late thread may still store into one.
// A writer that is about to make the slots anew calls this to let go of them. Nothing happens while a lock is open.
void detach_idle_slots();

// A second open file description of the same file, for locks that must not be mixed up with another's. -1: errno.
int reopen(int descriptor);

// Is the slot's owner alive, as far as locks taken through other descriptions than this one tell?
bool slot_is_owned(int descriptor, uint32_t slot);
// Behind the last slot whose owner is alive; slot_limit when there are too many locks to tell.
uint32_t end_of_owned_slots(int descriptor);
// Takes or drops the lock that ownership of a slot consists of. Does not wait. False: another has it, or errno says.
bool lock_slot(int descriptor, uint32_t slot);
void unlock_slot(int descriptor, uint32_t slot);

}  // namespace rsw

#endif
