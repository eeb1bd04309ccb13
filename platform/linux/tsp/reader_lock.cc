// SPDX-License-Identifier: Apache-2.0
// The read side of the database lock and of URIB's: what every query runs through.
//
// Taking a lock stores the lock's current epoch in this thread's slot; giving it back stores 0. Neither waits, calls
// the system or writes a cache line that another thread writes. The counters of nesting are the thread's own, so an
// inner acquisition touches no shared memory at all.
//
// The order that everything rests on: the store into the slot must be visible to the writer before this thread reads
// the first record. The writer unlinks a record, raises the epoch, lets barrier_in_all_readers() run, and looks at the
// slots. A thread whose store the writer does not see there has not yet passed that barrier: what it reads afterwards
// is the new state, in which the record is gone. Where the writer has no membarrier, or this process is not registered
// for it, the thread fences for itself; the writer says which in the epoch word, so that one load brings both and they
// cannot disagree.
//
// A thread without a slot (none left, no memory for one) goes on without protection rather than waiting: records keep
// their type for ever, so what it reads may mix two states but never faults.
//
// Not for signal handlers: one that interrupts an acquisition half-way would find the nesting counted and the slot
// empty.
#include "tsp.h"
#include "tsp/reader.h"

#include <syslog.h>

#include <string>

#include "log/log_writer.h"
#include "no_memory.h"

namespace rsw {

thread_local constinit Reader this_reader{};

namespace {

// Callers ask for the one lock there is: kind 6.
constexpr uint32_t database_lock_kind = 6;

inline void enter(Reader &me, uint32_t index) {
  // Acquire: with the epoch comes everything the writer unlinked before it raised it; partner: advance().
  const uint32_t epoch = word(slot_control().lock[index].epoch).load(std::memory_order_acquire);
  // Release: a writer that sees this epoch knows this thread's earlier queries are over; partner: passed().
  word(me.slot->epoch[index]).store(epoch, std::memory_order_release);
  if ((epoch & me.light) != 0) [[likely]] {
    // The compiler must not move reads up; the processor's part is done by the writer's membarrier.
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } else {
    full_fence();
  }
}

// Apart, so that the way every query takes needs no stack frame.
[[gnu::noinline, gnu::cold]] void enter_with_new_slot(uint32_t index) {
  if (acquire_slot() != nullptr) enter(this_reader, index);
}

}  // namespace
}  // namespace rsw

uint32_t tsp_is_proc_init(void) {
  return 1;
}

uint32_t tsp_create_rwsem_lock(uint32_t zero, uint32_t kind6) {
  return rsw::unless_without_memory(0u, [&]() -> uint32_t {
    std::string reason;
    if (zero != 0 || kind6 != rsw::database_lock_kind) {
      reason = "there is no lock of kind " + std::to_string(zero) + ", " + std::to_string(kind6);
    } else if (const uint32_t handle = rsw::open_reader_lock(rsw::Domain::database, &reason); handle != 0) {
      return handle;
    }
    rsw::log_line(LOG_ERR, "tsp_create_rwsem_lock: %s", reason.c_str());
    return 0;
  });
}

void tsp_destroy_lock(uint32_t lock) {
  rsw::close_reader_lock(lock);
}

void tsp_lock_acquire_rdlock(uint32_t lock) {
  const uint32_t index = lock - 1;
  if (index >= rsw::lock_count) return;
  rsw::Reader &me = rsw::this_reader;
  if (me.depth[index]++ != 0) return;
  if (me.slot == nullptr) [[unlikely]]
    return rsw::enter_with_new_slot(index);
  rsw::enter(me, index);
}

void tsp_lock_release_rdlock(uint32_t lock) {
  const uint32_t index = lock - 1;
  if (index >= rsw::lock_count) return;
  rsw::Reader &me = rsw::this_reader;
  if (me.depth[index] == 0) return;  // URIB's unlock may be called without its lock
  if (--me.depth[index] != 0 || me.slot == nullptr) return;
  // Release: all reads of the query come before the slot is seen empty; partner: the acquire load in passed().
  rsw::word(me.slot->epoch[index]).store(0, std::memory_order_release);
}

// They bracket a call that may wait long. Nothing is to be done: no thread waits for another here, and callers do not
// hold a lock across them.
void tsp_before_yield(void) {}
void tsp_after_yield(void) {}
