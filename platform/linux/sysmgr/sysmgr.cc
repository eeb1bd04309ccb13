// SPDX-License-Identifier: Apache-2.0
// The supervisor's state and the system's uuid.
//
// One record of two words stands on the first page behind the header of the segment "/rsw/shm/sysmgr". ipd makes the
// segment; the uuid is drawn then and stays for the segment's life. Readers map it read-only at its window like any
// other. The state is changed from outside, by an operator's command, which is no reason to give every client a
// writable mapping: whoever may write the file maps its two pages once, somewhere, stores the word, and unmaps them.
//
// A process asks before it knows whether there is a segment, and may outlive several run directories (tests do). So the
// attachment is kept together with the path it was made for, tried again at each question while there is none, and let
// go when the path is another one. Without a segment there is nobody to be on standby for: the state is active, the
// uuid 0.
#include "sysmgr.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "log.h"
#include "never_destroyed.h"
#include "no_memory.h"
#include "sm/segment_map.h"
#include "sysmgr/sysmgr_writer.h"

namespace {

using rsw::SegmentHeader;
using rsw::SegmentMap;

struct SupervisorRecord {
  uint32_t state;  // supervisor_active or supervisor_standby
  uint32_t uuid;   // not 0
};
static_assert(sizeof(SupervisorRecord) == 8);
static_assert(offsetof(SupervisorRecord, uuid) == 4);

constexpr uint32_t record_offset = rsw::segment_page;

struct Attachment {
  std::mutex mutex;
  std::string path;
  std::shared_ptr<SegmentMap> segment;
};

Attachment &attachment() {
  static rsw::NeverDestroyed<Attachment> only;
  return only.value;
}

SupervisorRecord *record_in(const SegmentMap &segment) {
  return reinterpret_cast<SupervisorRecord *>(static_cast<uintptr_t>(segment.layout().base + record_offset));
}

uint32_t load(uint32_t &word) {
  // Relaxed: each word is complete in itself.
  return std::atomic_ref<uint32_t>(word).load(std::memory_order_relaxed);
}

// One word of the record, or `otherwise` without a segment.
uint32_t word_or(uint32_t SupervisorRecord::*word, uint32_t otherwise) {
  const int kept = errno;
  Attachment &attached = attachment();
  const std::lock_guard guard(attached.mutex);
  // Without memory for the question, what was found the last time holds.
  rsw::unless_without_memory(false, [&attached] {
    std::string path = rsw::segment_path(rsw::segment_sysmgr.name);
    if (attached.segment != nullptr && attached.path == path) return true;
    attached.segment.reset();
    std::string reason;
    attached.segment = SegmentMap::attach(rsw::segment_sysmgr, &reason);
    attached.path = std::move(path);
    return true;
  });
  errno = kept;
  return attached.segment != nullptr ? load(record_in(*attached.segment)->*word) : otherwise;
}

uint32_t fresh_uuid() {
  uint32_t uuid = 0;
  while (uuid == 0) uuid = ksink_trel_rand(0);
  return uuid;
}

bool refuse(std::string *reason, std::string text) {
  *reason = std::move(text);
  return false;
}

// Stores the word through a mapping of its own, after a look at what it is about to change.
bool store_state(int fd, const std::string &path, uint32_t state, std::string *reason) {
  constexpr size_t length = size_t{2} * rsw::segment_page;
  struct stat file {};
  SegmentHeader header{};
  if (fstat(fd, &file) != 0) return refuse(reason, path + ": " + strerror(errno));
  if (!S_ISREG(file.st_mode) || static_cast<uint64_t>(file.st_size) != rsw::segment_sysmgr.size ||
      pread(fd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
      header.magic != rsw::segment_magic || header.layout_hash != rsw::segment_sysmgr.layout_hash) {
    return refuse(reason, path + " is not a segment of this layout");
  }
  void *const pages = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (pages == MAP_FAILED) return refuse(reason, path + ": cannot map it: " + strerror(errno));
  auto *const bytes = static_cast<unsigned char *>(pages);
  auto *const record = reinterpret_cast<SupervisorRecord *>(bytes + record_offset);
  auto *const generation = reinterpret_cast<uint32_t *>(bytes + offsetof(SegmentHeader, generation));
  std::atomic_ref<uint32_t>(record->state).store(state, std::memory_order_relaxed);
  // Release: who sees the new generation sees the state; the partner is the acquire load in wait_for_generation().
  std::atomic_ref<uint32_t>(*generation).fetch_add(1, std::memory_order_release);
  syscall(SYS_futex, generation, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  munmap(pages, length);
  return true;
}

}  // namespace

namespace rsw {

bool sysmgr_open_for_writing(std::string *reason) {
  Attachment &attached = attachment();
  const std::lock_guard guard(attached.mutex);
  attached.segment.reset();
  attached.path = segment_path(segment_sysmgr.name);
  std::shared_ptr<SegmentMap> made = SegmentMap::create(segment_sysmgr, reason);
  if (made == nullptr) return false;
  if (!made->grow(segment_sysmgr.base + record_offset + sizeof(SupervisorRecord), reason)) return false;
  SupervisorRecord *const record = record_in(*made);
  const uint32_t state = load(record->state);
  if (state != supervisor_active && state != supervisor_standby) {
    std::atomic_ref<uint32_t>(record->state).store(supervisor_active, std::memory_order_relaxed);
  }
  if (load(record->uuid) == 0) std::atomic_ref<uint32_t>(record->uuid).store(fresh_uuid(), std::memory_order_relaxed);
  if (!made->publish_name(reason)) return false;
  attached.segment = std::move(made);
  return true;
}

bool sysmgr_supstate_set(uint32_t state, std::string *reason) {
  if (state != supervisor_active && state != supervisor_standby) {
    return refuse(reason, "supervisor state " + std::to_string(state) + " is neither active (1) nor standby (2)");
  }
  const std::string path = segment_path(segment_sysmgr.name);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return refuse(reason, path + ": " + strerror(errno));
  const bool stored = store_state(fd, path, state, reason);
  close(fd);
  return stored;
}

}  // namespace rsw

extern "C" {

uint32_t sysmgr_supstate_get(void) {
  return word_or(&SupervisorRecord::state, rsw::supervisor_active);
}

uint32_t sysmgr_uuid_get(void) {
  return word_or(&SupervisorRecord::uuid, 0);
}

}  // extern "C"
