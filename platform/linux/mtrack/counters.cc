// SPDX-License-Identifier: Apache-2.0
// Memory counters of this process.
//
// The truth is kept here, in private memory, under one mutex: per component and type the blocks and bytes that are out,
// and how many allocations succeeded and failed. When the segment "/rsw/shm/mtrack" is there, each change is also
// written to the process's block in it, for whoever shows all processes. Nothing is ever read back from the block, so a
// process that scribbles over the segment can spoil what is shown and nothing else, and a process without the segment
// (no ipd, no permission, no free block, no storage) counts all the same.
//
// Who owns a block is the kernel's to say: the owner holds an open-file-description lock on the block's first byte. The
// lock goes with the last descriptor of that open file, so a killed process gives its block back at once, in whatever
// pid namespace it lived. Two events take the descriptor away from a living process, or share it: a daemon closes every
// descriptor on its way, and a fork gives it to the child, whose life would then keep the parent's block. The first is
// seen when another process has put its own pid into the block: the owner then leaves it and takes another one (until
// then it is not shown). For the second, a child gives its copy up and takes a block of its own when it first counts.
//
// One entry's numbers change together: `sequence` is odd meanwhile. There is one writer per block (this mutex), so the
// words need no read-modify-write.
//
// What must never happen: that a store goes to a block without storage in the file, because that is a SIGBUS on a full
// file system. So the block's storage is allocated before it is taken.
#include "counters.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "log/log_writer.h"
#include "sm/length_keeper.h"

namespace rsw::mtrack {
namespace {

// Never destroyed: blocks are released after static destructors have run, too.
union Lasting {
  Counters counters;
  constexpr Lasting() : counters() {}
  ~Lasting() {}
};
constinit Lasting lasting;

void store(uint32_t &word, uint32_t value, std::memory_order order) {
  std::atomic_ref<uint32_t>(word).store(value, order);
}

template <size_t size>
void copy_text(char (&to)[size], const char *from) {
  snprintf(to, size, "%s", from != nullptr ? from : "");
}

bool lock_block(int fd, uint32_t index) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(block_offset(index));
  range.l_len = 1;
  return fcntl(fd, F_OFD_SETLK, &range) == 0;
}

__attribute__((constructor)) void follow_forks() {
  pthread_atfork([] { process_counters().before_fork(); }, [] { process_counters().after_fork_in_parent(); },
                 [] { process_counters().after_fork_in_child(); });
}

}  // namespace

Counters &process_counters() {
  return lasting.counters;
}

Counters::Component *Counters::find(uint32_t component, bool shared) {
  for (uint32_t i = 0; i < components_; ++i) {
    if (component_[i].component == component && component_[i].shared == shared) return &component_[i];
  }
  return nullptr;
}

bool Counters::register_types(const char *description, uint32_t component, bool shared, const char *const *names,
                              uint32_t count) {
  const std::lock_guard guard(mutex_);
  Component *known = find(component, shared);
  if (known == nullptr) {
    if (components_ == max_components || count > max_entries - entries_) return false;
    known = &component_[components_++];
    *known = {component, shared, entries_, count, {}};
    entries_ += count;
  } else if (count > known->types) {
    return false;
  }
  copy_text(known->description, description);
  for (uint32_t type = 0; type < count; ++type) {
    Entry &entry = entry_[known->first + type];
    entry.component = static_cast<uint32_t>(known - component_) + 1;
    entry.type = type;
    copy_text(entry.name, names[type]);
  }
  if (shared) take_early(*known);
  if (block_ != nullptr && still_ours()) publish_all();
  return true;
}

uint32_t Counters::entry_of(uint32_t component, uint32_t type) {
  const std::lock_guard guard(mutex_);
  const Component *known = find(component, false);
  return known != nullptr && type < known->types ? known->first + type : 0;
}

void Counters::allocated(uint32_t entry, uint32_t size) {
  const std::lock_guard guard(mutex_);
  ++entry_[entry].count[blocks];
  entry_[entry].count[bytes] += size;
  ++entry_[entry].count[allocations];
  changed(entry);
}

void Counters::failed(uint32_t entry) {
  const std::lock_guard guard(mutex_);
  ++entry_[entry].count[failures];
  changed(entry);
}

void Counters::freed(uint32_t entry, uint32_t size) {
  const std::lock_guard guard(mutex_);
  if (entry >= entries_) return;
  --entry_[entry].count[blocks];
  entry_[entry].count[bytes] -= size;
  changed(entry);
}

void Counters::set_shared(uint32_t component, uint32_t type, uint64_t block_number, uint64_t byte_number) {
  const std::lock_guard guard(mutex_);
  const Component *known = find(component, true);
  if (known == nullptr) return set_early(component, type, block_number, byte_number);
  if (type >= known->types) return;
  entry_[known->first + type].count[blocks] = block_number;
  entry_[known->first + type].count[bytes] = byte_number;
  changed(known->first + type);
}

void Counters::set_early(uint32_t component, uint32_t type, uint64_t block_number, uint64_t byte_number) {
  Early *place = nullptr;
  for (Early &early : early_) {
    if (early.used && early.component == component && early.type == type) {
      place = &early;
      break;
    }
    if (!early.used && place == nullptr) place = &early;
  }
  if (place != nullptr) *place = {true, component, type, block_number, byte_number};
}

void Counters::take_early(const Component &component) {
  for (Early &early : early_) {
    if (!early.used || early.component != component.component) continue;
    early.used = false;
    if (early.type >= component.types) continue;
    entry_[component.first + early.type].count[blocks] = early.blocks;
    entry_[component.first + early.type].count[bytes] = early.bytes;
  }
}

void Counters::changed(uint32_t entry) {
  if (take_again_) {
    take_again_ = false;
    if (take_block()) publish_all();
    return;
  }
  if (block_ != nullptr && still_ours()) publish_entry(entry);
}

// Another process's pid in our block: our lock was closed under us, and the block has been taken.
bool Counters::still_ours() {
  // Relaxed: the pid alone is looked at.
  if (std::atomic_ref<uint32_t>(block_->pid).load(std::memory_order_relaxed) == static_cast<uint32_t>(getpid()))
    return true;
  leave_block();
  return take_block();
}

void Counters::publish_entry(uint32_t index) {
  const Entry &entry = entry_[index];
  SharedEntry &shared = block_->entry[index];
  const uint32_t sequence = shared.sequence & ~1u;
  store(shared.sequence, sequence + 1, std::memory_order_relaxed);
  for (uint32_t name = 0; name < counters; ++name) {
    // Release: who reads a new number sees the odd sequence too; the partner is the acquire load in report.cc.
    store(shared.count[name][0], static_cast<uint32_t>(entry.count[name]), std::memory_order_release);
    store(shared.count[name][1], static_cast<uint32_t>(entry.count[name] >> 32), std::memory_order_release);
  }
  // Release: an even sequence stands behind its numbers; the partner is the first acquire load in report.cc.
  store(shared.sequence, sequence + 2, std::memory_order_release);
}

void Counters::publish_all() {
  for (uint32_t i = 0; i < components_; ++i) {
    block_->component[i].component = component_[i].component;
    memcpy(block_->component[i].description, component_[i].description, sizeof component_[i].description);
  }
  for (uint32_t i = 0; i < entries_; ++i) {
    SharedEntry &shared = block_->entry[i];
    shared.component = entry_[i].component;
    shared.shared = entry_[i].component != 0 && component_[entry_[i].component - 1].shared ? 1 : 0;
    shared.type = entry_[i].type;
    memcpy(shared.name, entry_[i].name, sizeof shared.name);
    publish_entry(i);
  }
  // Release: who sees the number of entries sees the entries; the partner is the acquire load in report.cc.
  store(block_->entries, entries_, std::memory_order_release);
  // Release: who sees our pid sees our block and no longer the previous owner's; the same partner.
  store(block_->pid, static_cast<uint32_t>(getpid()), std::memory_order_release);
}

// Takes a free block of segment_. The caller publishes what is in it.
bool Counters::take_block() {
  if (segment_ == nullptr) return false;
  const SegmentLayout &layout = segment_->layout();
  // Not the descriptor of the mapping: a lock does not stand against a look through the same open file.
  const std::string path = "/proc/self/fd/" + std::to_string(segment_->descriptor());
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  for (uint32_t index = 0; index < block_count(layout); ++index) {
    if (!lock_block(fd, index)) continue;
    if (posix_fallocate(fd, static_cast<off_t>(block_offset(index)), block_stride) != 0) break;
    block_ = reinterpret_cast<SharedBlock *>(static_cast<uintptr_t>(layout.base + block_offset(index)));
    block_index_ = index;
    lock_fd_ = fd;
    // Relaxed: nobody is to find anything by a 0.
    store(block_->pid, 0, std::memory_order_relaxed);
    store(block_->entries, 0, std::memory_order_relaxed);
    copy_text(block_->command, program_invocation_short_name);
    publish_all();
    return true;
  }
  close(fd);
  return false;
}

// The descriptor is closed only if it is still the segment's file: its number may be somebody else's by now.
void Counters::leave_block() {
  struct stat held {};
  struct stat file {};
  if (lock_fd_ >= 0 && segment_ != nullptr && fstat(lock_fd_, &held) == 0 &&
      fstat(segment_->descriptor(), &file) == 0 && held.st_dev == file.st_dev && held.st_ino == file.st_ino) {
    close(lock_fd_);
  }
  lock_fd_ = -1;
  block_ = nullptr;
}

void Counters::own_segment(std::shared_ptr<SegmentMap> segment) {
  const std::lock_guard guard(mutex_);
  if (segment == segment_ && block_ != nullptr && still_ours()) return;
  leave_block();
  take_again_ = false;
  segment_ = std::move(segment);
  take_block();
}

void Counters::attach() {
  std::string reason;
  std::shared_ptr<SegmentMap> found = SegmentMap::attach(segment_mtrack, &reason);
  if (found == nullptr && errno == EBUSY) {  // the run directory is another one now: let the old segment go
    own_segment(nullptr);
    found = SegmentMap::attach(segment_mtrack, &reason);
  }
  if (found != nullptr) own_segment(std::move(found));
}

bool Counters::open_for_writing(std::string *reason) {
  own_segment(nullptr);
  std::shared_ptr<SegmentMap> made = SegmentMap::create(segment_mtrack, reason);
  if (made == nullptr || !made->publish_name(reason)) return false;
  keep_length(*made);
  own_segment(std::move(made));
  return true;
}

void Counters::report_own(std::vector<MemoryUse> *uses) {
  const std::lock_guard guard(mutex_);
  for (uint32_t i = 0; i < entries_; ++i) {
    const Entry &entry = entry_[i];
    if (entry.count[blocks] == 0 && entry.count[allocations] == 0 && entry.count[failures] == 0) continue;
    const Component *component = entry.component != 0 ? &component_[entry.component - 1] : nullptr;
    MemoryUse use{};
    use.pid = static_cast<int32_t>(getpid());
    copy_text(use.command, program_invocation_short_name);
    use.component = component != nullptr ? component->component : 0;
    use.description = component != nullptr ? component->description : "";
    use.shared = component != nullptr && component->shared;
    use.type = entry.type;
    use.type_name = entry.name;
    use.blocks = entry.count[blocks];
    use.bytes = entry.count[bytes];
    use.allocations = entry.count[allocations];
    use.failures = entry.count[failures];
    uses->push_back(std::move(use));
  }
}

std::shared_ptr<SegmentMap> Counters::segment(uint32_t *own_block) {
  const std::lock_guard guard(mutex_);
  *own_block = block_ != nullptr ? block_index_ : UINT32_MAX;
  return segment_;
}

void Counters::after_fork_in_child() {
  take_again_ = block_ != nullptr;
  leave_block();  // the child's copy: the parent's lock stays
  mutex_.unlock();
}

}  // namespace rsw::mtrack
