// SPDX-License-Identifier: Apache-2.0
// Who owns which slot: the slow path of the reader lock.
//
// A slot is owned by an open-file-description lock on its bytes of the slot file. The kernel drops such a lock when the
// last descriptor of the description is closed, at the latest with the process, whatever killed it and in whatever pid
// namespace it ran. So "the owner is dead" is a question to the kernel and never a guess from a pid. Each process has
// one description for all slots of its threads; it is close-on-exec, and a fork's child closes its copy at once.
//
// Life of a slot: a thread finds one that nobody seems to own, locks its bytes (this decides), clears it, signs it
// (owner_pid, for people) and uses it; the thread's end clears it and drops the lock. What a killed process leaves
// stays signed until the writer clears it (Epochs) or the slots run out and somebody takes it over.
//
// fork(2): the child has one thread, and none of its parent's slots. If the forking thread is inside a lock, a slot for
// the child is taken before the fork, with the same epochs, through a description of its own that the parent then
// closes: there is no moment at which the child's reads are unprotected. Otherwise the child asks when it needs one.
#include <errno.h>
#include <fcntl.h>
#include <linux/falloc.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <bitset>
#include <memory>
#include <mutex>
#include <string>

#include "log/log_writer.h"
#include "never_destroyed.h"
#include "sm/segment_map.h"
#include "tsp/membarrier.h"
#include "tsp/reader.h"

namespace rsw {
namespace {

struct flock range_of(uint32_t slot, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(slots_offset + slot * sizeof(Slot));
  range.l_len = static_cast<off_t>(sizeof(Slot));
  return range;
}

struct Heir {  // what a fork prepares for the child
  int descriptor = -1;
  uint32_t slot = 0;
};

struct Ownership {
  std::mutex mutex;
  std::shared_ptr<SegmentMap> map;  // kept when the last lock is closed
  uint32_t opened[lock_count] = {};
  int descriptor = -1;           // the description whose locks make slots ours
  std::bitset<slot_limit> ours;  // by slot
  uint32_t search_from = 0;      // below it are no free slots, as far as this process knows
  uint32_t light = 0;            // epoch_light once the process is registered
  Reader *readers = nullptr;     // threads with a slot
  pthread_key_t thread_end{};    // its destructor gives a thread's slot back
  bool hooks_set = false;
  bool shortage_logged = false;
  Heir heir;
};

Ownership &ownership() {
  static NeverDestroyed<Ownership> only;
  return only.value;
}

void enter_list(Ownership &own, Reader &reader) {
  reader.previous = nullptr;
  reader.next = own.readers;
  if (own.readers != nullptr) own.readers->previous = &reader;
  own.readers = &reader;
}

void leave_list(Ownership &own, Reader &reader) {
  if (reader.previous != nullptr) reader.previous->next = reader.next;
  if (own.readers == &reader) own.readers = reader.next;
  if (reader.next != nullptr) reader.next->previous = reader.previous;
  reader.next = nullptr;
  reader.previous = nullptr;
}

// Relaxed throughout: the names are for people, who may see half of an old one.
void sign(Slot &slot) {
  char command[16] = {};
  prctl(PR_GET_NAME, command);
  if (FILE *name = fopen("/proc/self/comm", "re"); name != nullptr) {  // of the process, not of the thread
    if (fgets(command, sizeof command, name) != nullptr) command[strcspn(command, "\n")] = '\0';
    fclose(name);
  }
  uint32_t words[4];
  memcpy(words, command, sizeof words);
  for (size_t i = 0; i < 4; ++i) word(slot.command[i]).store(words[i], std::memory_order_relaxed);
  word(slot.owner_tid).store(static_cast<uint32_t>(syscall(SYS_gettid)), std::memory_order_relaxed);
  word(slot.owner_pid).store(static_cast<uint32_t>(getpid()), std::memory_order_relaxed);
}

// Storage for the page the slot lies in: a store into a hole of a full file system would be a SIGBUS. Where the file
// system has no fallocate there is nothing better to do than to go on.
bool has_storage(int descriptor, uint32_t slot) {
  if (slot < slots_with_storage) return true;
  const off_t at = static_cast<off_t>((slots_offset + slot * sizeof(Slot)) & ~size_t{segment_page - 1});
  return fallocate(descriptor, 0, at, segment_page) == 0 || errno == EOPNOTSUPP;
}

uint32_t slots_in_use() {
  // Acquire: partner of the release in raise_slots_in_use().
  const uint32_t in_use = word(slot_control().slots_in_use).load(std::memory_order_acquire);
  return in_use < slot_limit ? in_use : slot_limit;
}

void raise_slots_in_use(uint32_t to) {
  auto in_use = word(slot_control().slots_in_use);
  uint32_t seen = in_use.load(std::memory_order_relaxed);
  // Release: ordered before this thread's first entry, whose barrier makes it visible to the writer's scan.
  while (seen < to && !in_use.compare_exchange_weak(seen, to, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

constexpr uint32_t no_slot = UINT32_MAX;

// Locks a slot through this description. no_slot: errno says why. The mutex is held.
uint32_t claim(Ownership &own, int descriptor) {
  const uint32_t in_use = slots_in_use();
  const auto take = [&](uint32_t index) {
    own.ours[index] = true;
    Slot &slot = slot_at(index);
    for (uint32_t &epoch : slot.epoch) word(epoch).store(0, std::memory_order_relaxed);  // a dead owner's, if any
    sign(slot);
    return index;
  };
  for (uint32_t index = own.search_from; index < in_use; ++index) {
    // Relaxed: a hint; the lock decides.
    if (own.ours[index] || word(slot_at(index).owner_pid).load(std::memory_order_relaxed) != 0) continue;
    if (!lock_slot(descriptor, index)) continue;
    own.search_from = index + 1;
    return take(index);
  }
  for (uint32_t index = in_use; index < slot_limit; ++index) {
    if (own.ours[index]) continue;
    if (!lock_slot(descriptor, index)) {
      if (errno == EAGAIN || errno == EACCES) continue;  // somebody was faster
      return no_slot;
    }
    if (!has_storage(descriptor, index)) {
      const int error = errno;
      unlock_slot(descriptor, index);
      errno = error;
      return no_slot;
    }
    raise_slots_in_use(index + 1);
    own.search_from = index + 1;
    return take(index);
  }
  for (uint32_t index = 0; index < slot_limit; ++index) {  // what dead processes left
    if (!own.ours[index] && lock_slot(descriptor, index)) return take(index);
  }
  errno = EUSERS;
  return no_slot;
}

void give_slot_back(Ownership &own, uint32_t index) {
  Slot &slot = slot_at(index);
  // Release: this thread's reads come before the slot is seen empty; partner: the acquire load in passed().
  for (uint32_t &epoch : slot.epoch) word(epoch).store(0, std::memory_order_release);
  word(slot.owner_pid).store(0, std::memory_order_relaxed);
  own.ours[index] = false;
  if (index < own.search_from) own.search_from = index;
  unlock_slot(own.descriptor, index);
}

void at_thread_end(void *reader_of_thread) {
  Reader &reader = *static_cast<Reader *>(reader_of_thread);
  Ownership &own = ownership();
  const std::lock_guard guard(own.mutex);
  if (reader.slot == nullptr) return;
  leave_list(own, reader);
  give_slot_back(own, index_of(reader.slot));
  reader.slot = nullptr;
}

void before_fork() {
  Ownership &own = ownership();
  own.mutex.lock();
  const Reader &me = this_reader;
  if (me.slot == nullptr || (me.depth[0] == 0 && me.depth[1] == 0)) return;
  const int descriptor = reopen(own.descriptor);
  if (descriptor < 0) return;
  const uint32_t index = claim(own, descriptor);
  if (index == no_slot) {
    close(descriptor);
    return;
  }
  for (uint32_t lock = 0; lock < lock_count; ++lock) {
    // Release and fence: visible before the fork, hence before the child's reads; this thread is inside meanwhile.
    const uint32_t epoch = word(me.slot->epoch[lock]).load(std::memory_order_relaxed);
    word(slot_at(index).epoch[lock]).store(epoch, std::memory_order_release);
  }
  full_fence();
  own.heir = {descriptor, index};
}

void after_fork_in_parent() {
  Ownership &own = ownership();
  if (own.heir.descriptor >= 0) {
    own.ours[own.heir.slot] = false;
    close(own.heir.descriptor);  // the child has the description too; if there is no child, the slot is free again
    own.heir = {};
  }
  own.mutex.unlock();
}

void after_fork_in_child() {
  Ownership &own = ownership();
  Reader &me = this_reader;
  if (own.descriptor >= 0) close(own.descriptor);
  own.descriptor = own.heir.descriptor;
  own.ours.reset();
  own.readers = nullptr;
  me.slot = nullptr;
  me.next = nullptr;
  me.previous = nullptr;
  if (own.light != 0) own.light = register_for_membarrier() ? epoch_light : 0;
  if (own.heir.descriptor >= 0) {
    own.ours[own.heir.slot] = true;
    me.slot = &slot_at(own.heir.slot);
    me.light = own.light;
    sign(*me.slot);
    enter_list(own, me);
    own.heir = {};
  }
  own.mutex.unlock();
}

bool set_hooks(Ownership &own, std::string *reason) {
  if (own.hooks_set) return true;
  int error = pthread_key_create(&own.thread_end, at_thread_end);
  if (error == 0) error = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
  if (error != 0) {
    *reason = std::string("cannot watch threads end: ") + strerror(error);
    return false;
  }
  own.hooks_set = true;
  return true;
}

// Lets go of the slots. The mutex is held; no thread of this process may be inside a lock.
void detach(Ownership &own) {
  while (own.readers != nullptr) {
    Reader &reader = *own.readers;
    leave_list(own, reader);
    give_slot_back(own, index_of(reader.slot));
    reader.slot = nullptr;
  }
  if (own.descriptor >= 0) close(own.descriptor);
  own.descriptor = -1;
  own.search_from = 0;
  own.map.reset();
}

bool attach(Ownership &own, Domain domain, std::string *reason) {
  std::shared_ptr<SegmentMap> now = SegmentMap::attach(segment_tsp, reason);
  const uint32_t other = static_cast<uint32_t>(domain) == 1 ? 1 : 0;
  if (now == nullptr && own.map != nullptr) {
    // The slot file is another one than that we are attached to, or is gone. While the other lock is in use its
    // threads may be storing into their slots: then stay.
    if (own.opened[other] != 0) return true;
    detach(own);
    now = SegmentMap::attach(segment_tsp, reason);
  }
  if (now == nullptr) return false;
  if (own.map == nullptr) {
    own.map = std::move(now);
    own.ours.reset();
    own.light = register_for_membarrier() ? epoch_light : 0;
  }
  return true;
}

// A process that ends in order unsigns its slots, so that the next one need not ask the kernel about each. The locks
// go with the process.
struct AtExit {
  ~AtExit() {
    Ownership &own = ownership();
    if (!own.mutex.try_lock()) return;
    for (Reader *reader = own.readers; reader != nullptr; reader = reader->next) {
      word(reader->slot->owner_pid).store(0, std::memory_order_relaxed);
    }
    own.mutex.unlock();
  }
} at_exit;

}  // namespace

bool lock_slot(int descriptor, uint32_t slot) {
  struct flock range = range_of(slot, F_WRLCK);
  return fcntl(descriptor, F_OFD_SETLK, &range) == 0;
}

void unlock_slot(int descriptor, uint32_t slot) {
  struct flock range = range_of(slot, F_UNLCK);
  fcntl(descriptor, F_OFD_SETLK, &range);
}

bool slot_is_owned(int descriptor, uint32_t slot) {
  struct flock range = range_of(slot, F_WRLCK);
  return fcntl(descriptor, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

uint32_t end_of_owned_slots(int descriptor) {
  uint32_t end = 0;
  // Each step goes behind one lock. Nobody has this many but who wants us to count.
  for (int step = 0; step < 1000 && end < slot_limit; ++step) {
    struct flock range = range_of(end, F_WRLCK);
    range.l_len = static_cast<off_t>((slot_limit - end) * sizeof(Slot));
    if (fcntl(descriptor, F_OFD_GETLK, &range) != 0) break;
    if (range.l_type == F_UNLCK) return end;
    const off_t last = range.l_start + range.l_len - 1 - static_cast<off_t>(slots_offset);
    if (range.l_len == 0 || last < static_cast<off_t>(end * sizeof(Slot))) break;
    end = static_cast<uint32_t>(last / static_cast<off_t>(sizeof(Slot))) + 1;
  }
  return slot_limit;
}

int reopen(int descriptor) {
  char path[48];
  snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
  return open(path, O_RDWR | O_CLOEXEC);
}

Slot *acquire_slot() {
  Reader &me = this_reader;
  if (me.skip != 0) {
    --me.skip;
    return nullptr;
  }
  Ownership &own = ownership();
  const int kept = errno;
  const std::lock_guard guard(own.mutex);
  if (own.map == nullptr) return nullptr;  // no lock was ever opened
  if (own.descriptor < 0) own.descriptor = reopen(own.map->descriptor());
  const uint32_t index = own.descriptor < 0 ? no_slot : claim(own, own.descriptor);
  if (index == no_slot) {
    if (!own.shortage_logged) {
      log_line(LOG_ERR, "no slot of the reader lock for a thread of this process (%s): its queries go unprotected",
               strerror(errno));
    }
    own.shortage_logged = true;
    me.skip = 1000;
    errno = kept;
    return nullptr;
  }
  me.slot = &slot_at(index);
  me.light = own.light;
  enter_list(own, me);
  pthread_setspecific(own.thread_end, &me);
  errno = kept;
  return me.slot;
}

uint32_t open_reader_lock(Domain domain, std::string *reason) {
  Ownership &own = ownership();
  const std::lock_guard guard(own.mutex);
  if (!set_hooks(own, reason) || !attach(own, domain, reason)) return 0;
  const auto handle = static_cast<uint32_t>(domain);
  ++own.opened[handle - 1];
  return handle;
}

void close_reader_lock(uint32_t handle) {
  if (handle - 1 >= lock_count) return;
  Ownership &own = ownership();
  const std::lock_guard guard(own.mutex);
  if (own.opened[handle - 1] != 0) --own.opened[handle - 1];
}

void detach_idle_slots() {
  Ownership &own = ownership();
  const std::lock_guard guard(own.mutex);
  if (own.opened[0] == 0 && own.opened[1] == 0) detach(own);
}

}  // namespace rsw
