// SPDX-License-Identifier: Apache-2.0
// Handles, and what becomes of queues in fork(2).
//
// A queue has one process: two that received from one socket would take each other's messages. So the child closes its
// copies of all descriptors at once (otherwise the parent's death would be seen by nobody while the child lives), and
// each call with an inherited handle is refused. Queues that the child binds get handles of their own.
//
// Order of mutexes: binding, table, each queue's, references.
#include "mts/queue_table.h"

#include <errno.h>
#include <pthread.h>

#include <vector>

#include "mts/references.h"
#include "never_destroyed.h"

namespace rsw::mts {
namespace {

struct Entry {
  std::shared_ptr<Queue> queue;
  uint32_t uses = 0;
};

struct Table {
  std::mutex binding;  // held while a queue has descriptors that the table does not know
  std::mutex mutex;
  std::vector<Entry> entries;
  bool hooks_set = false;
};

constexpr size_t most_queues = 4094;

Table &table() {
  static NeverDestroyed<Table> only;
  return only.value;
}

void before_fork() {
  Table &all = table();
  all.binding.lock();
  all.mutex.lock();
  for (const Entry &entry : all.entries) {
    if (entry.queue != nullptr) entry.queue->lock_for_fork();
  }
  lock_references_for_fork();
}

void after_fork() {
  Table &all = table();
  unlock_references_after_fork();
  for (const Entry &entry : all.entries) {
    if (entry.queue != nullptr) entry.queue->unlock_after_fork();
  }
  all.mutex.unlock();
  all.binding.unlock();
}

void after_fork_in_child() {
  for (const Entry &entry : table().entries) {
    if (entry.queue != nullptr) entry.queue->abandon_in_child();
  }
  after_fork();
}

// Never 0 and never no_queue.
uint32_t handle_of(size_t number, uint32_t uses) {
  return uses << 12 | static_cast<uint32_t>(number + 1);
}

Entry *entry_of(Table &all, uint32_t handle) {
  const uint32_t number = handle & 0xfff;
  if (handle == no_queue || number == 0 || number > all.entries.size()) return nullptr;
  Entry &entry = all.entries[number - 1];
  return entry.queue != nullptr && (entry.uses & 0xfffff) == handle >> 12 ? &entry : nullptr;
}

Entry *usable_entry_of(Table &all, uint32_t handle) {
  Entry *entry = entry_of(all, handle);
  if (entry == nullptr || entry->queue->inherited()) {
    errno = entry == nullptr ? EBADF : ECHILD;
    return nullptr;
  }
  return entry;
}

size_t free_entry(Table &all) {
  for (size_t number = 0; number < all.entries.size(); ++number) {
    if (all.entries[number].queue == nullptr) return number;
  }
  if (all.entries.size() >= most_queues) return most_queues;
  all.entries.emplace_back();
  return all.entries.size() - 1;
}

}  // namespace

uint32_t add_queue(int32_t sap, uint32_t module, const char *name, int *error) {
  Table &all = table();
  const std::lock_guard birth(all.binding);
  if (!all.hooks_set) {
    *error = pthread_atfork(before_fork, after_fork, after_fork_in_child);
    if (*error != 0) return no_queue;
    all.hooks_set = true;
  }
  std::shared_ptr<Queue> queue;
  *error = Queue::bind(sap, module, name, &queue);
  if (*error != 0) return no_queue;
  const std::lock_guard guard(all.mutex);
  const size_t number = free_entry(all);
  if (number == most_queues) {
    *error = EMFILE;
    return no_queue;
  }
  all.entries[number].queue = std::move(queue);
  return handle_of(number, ++all.entries[number].uses);
}

std::shared_ptr<Queue> queue_of(uint32_t handle) {
  Table &all = table();
  const std::lock_guard guard(all.mutex);
  const Entry *entry = usable_entry_of(all, handle);
  return entry != nullptr ? entry->queue : nullptr;
}

std::shared_ptr<Queue> remove_queue(uint32_t handle) {
  Table &all = table();
  const std::lock_guard guard(all.mutex);
  Entry *entry = usable_entry_of(all, handle);
  return entry != nullptr ? std::move(entry->queue) : nullptr;
}

}  // namespace rsw::mts
