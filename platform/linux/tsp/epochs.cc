// SPDX-License-Identifier: Apache-2.0
// The writer's side of the reader lock: epochs, and who still holds an old one.
//
// advance() raises a lock's epoch; what was unlinked before may be used again when no slot holds an older one. passed()
// answers that: one barrier in all readers after the advance (however many batches it serves), then one look at the
// slots. What is between them: a reader whose store the look misses reads its first record after the barrier, so it
// finds the unlinked records gone. The answer is kept: passed_until only grows, and a question below it costs nothing.
//
// A slot that holds an old epoch is asked for its owner: if the lock on its bytes can be taken, the owner is dead, and
// the slot is cleared while we hold that lock (so no new owner can be standing in it). Slots that dead processes left
// without being inside are cleared a few at a time, once a second.
//
// The slot segment outlives its writer. A new writer goes on from the epochs it finds, so readers inside a query at the
// moment of the change still count. If the new writer has no membarrier and the old one had, readers that took the lock
// under the old one may not have fenced; for one second nothing passes, which is for ever in the life of a store
// buffer.
#include "tsp/epochs.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <unordered_map>

#include "sm/length_keeper.h"
#include "sm/segment_map.h"
#include "tsp/membarrier.h"
#include "tsp/reader.h"
#include "tsp/slots.h"

namespace rsw {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t slots_swept_at_a_time = 256;

struct LockState {
  uint32_t current = 0;
  uint32_t fenced = 0;         // the newest epoch that a barrier came after
  uint32_t passed_until = 0;   // every epoch up to here has passed
  uint32_t blocking_slot = 0;  // where the last look ended: it most likely ends there again
  // Slot to an epoch: whatever it holds from before that does not count. A slot is its owner's to write, and one that
  // held another old epoch each time we look would otherwise hold everything up for ever. An owner that enters again
  // takes the current epoch or a later one, and counts.
  std::unordered_map<uint32_t, uint32_t> overruled;
};

uint32_t slots_in_use() {
  // Acquire: partner of the release with which a client raises it.
  return std::min(word(slot_control().slots_in_use).load(std::memory_order_acquire), slot_limit);
}

class SlotEpochs final : public Epochs {
 public:
  bool begin(std::string *reason);

  uint32_t advance(Domain domain) override;
  bool passed(Domain domain, uint32_t epoch) override;
  std::vector<EpochHolder> holders(Domain domain, uint32_t epoch) override;
  void overrule(const EpochHolder &holder) override;
  void put_back() override;

 private:
  LockState &state(Domain domain) { return locks_[static_cast<uint32_t>(domain) - 1]; }
  void barrier();
  bool holds_up(uint32_t lock, uint32_t slot, uint32_t epoch, uint32_t *held);
  bool clear_if_dead(uint32_t slot);
  void sweep(Clock::time_point now);
  // The word only grows, and is everybody's to write: what it once said stays true.
  uint32_t slots_to_look_at() { return slots_seen_ = std::max(slots_seen_, slots_in_use()); }

  std::shared_ptr<SegmentMap> map_;
  LockState locks_[lock_count];
  bool light_ = false;
  Clock::time_point nothing_passes_before_{};
  Clock::time_point last_sweep_{};
  uint32_t sweep_from_ = 0;
  uint32_t slots_seen_ = 0;
};

bool SlotEpochs::begin(std::string *reason) {
  detach_idle_slots();
  map_ = SegmentMap::create(segment_tsp, reason);
  if (map_ == nullptr) return false;
  if (!map_->grow(slot_base + slots_offset + slots_with_storage * uint32_t{sizeof(Slot)}, reason)) return false;
  light_ = barrier_in_all_readers();
  for (uint32_t lock = 0; lock < lock_count; ++lock) {
    uint32_t &shared_epoch = slot_control().lock[lock].epoch;
    const uint32_t before = word(shared_epoch).load(std::memory_order_relaxed);
    if ((before & epoch_light) != 0 && !light_) nothing_passes_before_ = Clock::now() + std::chrono::seconds(1);
    const uint32_t count = (before & ~(epoch_step - 1)) + epoch_step;
    LockState &mine = locks_[lock];
    mine.current = count | epoch_inside | (light_ ? epoch_light : 0) | (lock << epoch_lock_shift);
    mine.fenced = mine.passed_until = mine.current - epoch_step;
    // Release: as in advance().
    word(shared_epoch).store(mine.current, std::memory_order_release);
  }
  word(map_->header()->root).store(slot_base + slot_control_offset, std::memory_order_release);
  if (!map_->publish_name(reason)) return false;
  keep_length(*map_);
  return true;
}

void SlotEpochs::put_back() {
  for (uint32_t lock = 0; lock < lock_count; ++lock) {
    // Release: as in advance().
    word(slot_control().lock[lock].epoch).store(locks_[lock].current, std::memory_order_release);
  }
  slots_seen_ = std::max(slots_seen_, end_of_owned_slots(map_->descriptor()));
  word(slot_control().slots_in_use).store(slots_seen_, std::memory_order_release);
}

uint32_t SlotEpochs::advance(Domain domain) {
  LockState &mine = state(domain);
  mine.current += epoch_step;
  // Release: a reader that takes this epoch sees everything unlinked before; partner: the load in acquire.
  word(slot_control().lock[static_cast<uint32_t>(domain) - 1].epoch).store(mine.current, std::memory_order_release);
  return mine.current;
}

// Serves both locks at once: it comes after whatever either has unlinked.
void SlotEpochs::barrier() {
  if (light_ && !barrier_in_all_readers()) {  // it worked when we began: only a changed environment or filter does this
    light_ = false;
    nothing_passes_before_ = Clock::now() + std::chrono::seconds(1);
    for (uint32_t lock = 0; lock < lock_count; ++lock) {
      locks_[lock].current = (locks_[lock].current + epoch_step) & ~epoch_light;
      word(slot_control().lock[lock].epoch).store(locks_[lock].current, std::memory_order_release);
    }
  }
  full_fence();
  for (LockState &lock : locks_) lock.fenced = lock.current;
}

// The lock on the slot's bytes decides; while we hold it nobody can move in.
bool SlotEpochs::clear_if_dead(uint32_t index) {
  if (!lock_slot(map_->descriptor(), index)) return false;
  Slot &slot = slot_at(index);
  for (uint32_t &epoch : slot.epoch) word(epoch).store(0, std::memory_order_relaxed);
  word(slot.owner_pid).store(0, std::memory_order_relaxed);
  unlock_slot(map_->descriptor(), index);
  return true;
}

// Does the slot keep `epoch` from passing? *held is what it holds, 0 if it does not count.
bool SlotEpochs::holds_up(uint32_t lock, uint32_t index, uint32_t epoch, uint32_t *held) {
  // Acquire: the owner's reads, before its store of 0 or of a newer epoch, come before our reuse; partner: the release
  // stores in acquire and release.
  *held = word(slot_at(index).epoch[lock]).load(std::memory_order_acquire);
  if (*held == 0) return false;
  if (!is_before(*held, epoch)) return false;
  const auto overruled = locks_[lock].overruled.find(index);
  if (overruled != locks_[lock].overruled.end()) {
    if (is_before(*held, overruled->second)) {
      *held = 0;
      return false;
    }
    locks_[lock].overruled.erase(overruled);
  }
  if (clear_if_dead(index)) {
    *held = 0;
    return false;
  }
  return true;
}

void SlotEpochs::sweep(Clock::time_point now) {
  if (now - last_sweep_ < std::chrono::seconds(1)) return;
  last_sweep_ = now;
  const uint32_t in_use = slots_to_look_at();
  for (uint32_t count = std::min(in_use, slots_swept_at_a_time); count > 0; --count) {
    if (sweep_from_ >= in_use) sweep_from_ = 0;
    const uint32_t index = sweep_from_++;
    if (word(slot_at(index).owner_pid).load(std::memory_order_relaxed) != 0) clear_if_dead(index);
  }
}

bool SlotEpochs::passed(Domain domain, uint32_t epoch) {
  LockState &mine = state(domain);
  if (!is_before(mine.passed_until, epoch)) return true;
  const Clock::time_point now = Clock::now();
  sweep(now);
  if (is_before(mine.fenced, epoch)) barrier();
  if (now < nothing_passes_before_ || is_before(mine.fenced, epoch)) return false;
  const uint32_t lock = static_cast<uint32_t>(domain) - 1;
  const uint32_t in_use = slots_to_look_at();
  uint32_t held = 0;
  if (mine.blocking_slot < in_use && holds_up(lock, mine.blocking_slot, epoch, &held)) return false;
  uint32_t oldest = mine.fenced;
  for (uint32_t index = 0; index < in_use; ++index) {
    if (holds_up(lock, index, epoch, &held)) {
      mine.blocking_slot = index;
      return false;
    }
    if (held != 0 && is_before(held, oldest)) oldest = held;
  }
  mine.passed_until = oldest;
  return true;
}

std::vector<EpochHolder> SlotEpochs::holders(Domain domain, uint32_t epoch) {
  std::vector<EpochHolder> answer;
  const uint32_t lock = static_cast<uint32_t>(domain) - 1;
  for (uint32_t index = 0; index < slots_to_look_at(); ++index) {
    EpochHolder holder{};
    holder.domain = domain;
    if (!holds_up(lock, index, epoch, &holder.epoch)) continue;
    Slot &slot = slot_at(index);
    holder.slot = index;
    holder.pid = static_cast<int32_t>(word(slot.owner_pid).load(std::memory_order_relaxed));
    holder.tid = static_cast<int32_t>(word(slot.owner_tid).load(std::memory_order_relaxed));
    uint32_t words[4];
    for (size_t i = 0; i < 4; ++i) words[i] = word(slot.command[i]).load(std::memory_order_relaxed);
    memcpy(holder.command, words, sizeof holder.command);
    answer.push_back(holder);
  }
  return answer;
}

void SlotEpochs::overrule(const EpochHolder &holder) {
  LockState &mine = state(holder.domain);
  mine.overruled[holder.slot] = mine.current;
}

}  // namespace

std::unique_ptr<Epochs> Epochs::open(std::string *reason) {
  auto epochs = std::make_unique<SlotEpochs>();
  if (!epochs->begin(reason)) return nullptr;
  return epochs;
}

std::vector<EpochClient> epoch_clients() {
  std::string reason;
  const std::shared_ptr<SegmentMap> map = SegmentMap::attach(segment_tsp, &reason);
  if (map == nullptr) return {};
  std::map<uint32_t, EpochClient> by_pid;
  for (uint32_t index = 0; index < slots_in_use(); ++index) {
    Slot &slot = slot_at(index);
    const uint32_t pid = word(slot.owner_pid).load(std::memory_order_relaxed);
    if (pid == 0 || !slot_is_owned(map->descriptor(), index)) continue;
    EpochClient &client = by_pid[pid];
    client.pid = static_cast<int32_t>(pid);
    ++client.threads;
    uint32_t words[4];
    for (size_t i = 0; i < 4; ++i) words[i] = word(slot.command[i]).load(std::memory_order_relaxed);
    memcpy(client.command, words, sizeof client.command);
    for (uint32_t &epoch : slot.epoch) client.inside |= word(epoch).load(std::memory_order_relaxed) != 0;
  }
  std::vector<EpochClient> answer;
  for (const auto &[pid, client] : by_pid) answer.push_back(client);
  return answer;
}

}  // namespace rsw
