// SPDX-License-Identifier: Apache-2.0
#include "mts/references.h"

#include <errno.h>

#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "never_destroyed.h"

namespace rsw::mts {
namespace {

struct Slot {
  std::unique_ptr<Arrived> message;
  uint16_t uses = 0;
};

struct Table {
  std::mutex mutex;
  std::vector<Slot> slots;
  std::vector<uint16_t> free;
};

constexpr size_t most_slots = 65535;

Table &table() {
  static NeverDestroyed<Table> only;
  return only.value;
}

// Never null: a slot's number is counted from 1.
mts_msg_ref_t reference_of(size_t slot, uint16_t uses) {
  return reinterpret_cast<mts_msg_ref_t>(uintptr_t{uses} << 16 | (slot + 1));
}

Slot *slot_of(Table &all, mts_msg_ref_t reference) {
  const auto word = reinterpret_cast<uintptr_t>(reference);
  const uintptr_t number = word & 0xffff;
  if (number == 0 || number > all.slots.size()) return nullptr;
  Slot &slot = all.slots[number - 1];
  return slot.message != nullptr && word >> 16 == slot.uses ? &slot : nullptr;
}

bool add_slot(Table &all) try {
  if (all.free.capacity() <= all.slots.size()) all.free.reserve(2 * (all.slots.size() + 1));
  all.slots.emplace_back();
  all.free.push_back(static_cast<uint16_t>(all.slots.size() - 1));
  return true;
} catch (const std::bad_alloc &) {
  return false;
}

std::unique_ptr<Arrived> empty(Table &all, Slot &slot) {
  ++slot.uses;
  // It has room: it was reserved with the slots.
  all.free.push_back(static_cast<uint16_t>(&slot - all.slots.data()));
  return std::move(slot.message);
}

}  // namespace

mts_msg_ref_t keep(std::unique_ptr<Arrived> *message, int *error) {
  Table &all = table();
  const std::lock_guard guard(all.mutex);
  if (all.free.empty() && all.slots.size() >= most_slots) {
    *error = ENOBUFS;
    return nullptr;
  }
  if (all.free.empty() && !add_slot(all)) {
    *error = ENOMEM;
    return nullptr;
  }
  const size_t number = all.free.back();
  all.free.pop_back();
  all.slots[number].message = std::move(*message);
  return reference_of(number, all.slots[number].uses);
}

bool drop(uint32_t queue, mts_msg_ref_t reference) {
  std::unique_ptr<Arrived> dropped;  // freed without the mutex
  Table &all = table();
  const std::lock_guard guard(all.mutex);
  Slot *slot = slot_of(all, reference);
  if (slot == nullptr || slot->message->queue != queue) return false;
  dropped = empty(all, *slot);
  return true;
}

void drop_all(uint32_t queue) {
  Table &all = table();
  const std::lock_guard guard(all.mutex);
  for (Slot &slot : all.slots) {
    if (slot.message != nullptr && slot.message->queue == queue) empty(all, slot);
  }
}

bool look_at(mts_msg_ref_t reference, void (*look)(Arrived &message, void *context), void *context) {
  Table &all = table();
  const std::lock_guard guard(all.mutex);
  Slot *slot = slot_of(all, reference);
  if (slot == nullptr) return false;
  look(*slot->message, context);
  return true;
}

void lock_references_for_fork() {
  table().mutex.lock();
}

void unlock_references_after_fork() {
  table().mutex.unlock();
}

}  // namespace rsw::mts
