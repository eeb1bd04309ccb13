// SPDX-License-Identifier: Apache-2.0
// A signal handler that lengthens a file again, and the watch on the files that makes it a rare visitor.
//
// The handler runs wherever the writer touched a segment, so it takes no lock and no memory: it finds the segment in a
// table of plain words, and uses nothing but fstat, ftruncate, pwrite and fallocate. It never makes another file
// longer: a descriptor that somebody closed under us may be anything's by now.
//
// A fault inside a whole file is one for want of storage: if the page can be given some, the access is repeated, and
// otherwise the signal goes where it went before. So no fault is repeated for ever.
#include "sm/length_keeper.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace rsw {
namespace {

struct Kept {
  std::atomic<uint32_t> base{0};  // 0: free; the last word to be written
  uint32_t size = 0;
  int descriptor = -1;
  dev_t device = 0;
  ino_t inode = 0;
  SegmentHeader header{};
  const SegmentLayout *layout = nullptr;
  int watch = -1;
  std::atomic<bool> was_cut{false};
};

constexpr size_t most_kept = 4;  // of three that others may write

// Constant initialization, and no destructor: the handler may come at any time.
constinit Kept table[most_kept];
constinit std::mutex changing;  // who enters and who leaves
struct sigaction before_us;
constinit bool handling = false;

static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

enum class Found { whole, cut, lost };

// Puts the header back and then the length, so that nobody finds a whole file without its header, and a file system
// that was full for the one is tried again for both. For the handler, too.
Found put_back(Kept &kept) {
  struct stat file {};
  const bool is_ours = fstat(kept.descriptor, &file) == 0 && file.st_dev == kept.device && file.st_ino == kept.inode;
  if (!is_ours) return Found::lost;
  if (static_cast<uint64_t>(file.st_size) >= kept.size) return Found::whole;
  const bool has_header = pwrite(kept.descriptor, &kept.header, sizeof kept.header, 0) == sizeof kept.header;
  if (!has_header || ftruncate(kept.descriptor, static_cast<off_t>(kept.size)) != 0) return Found::lost;
  kept.was_cut.store(true, std::memory_order_relaxed);
  return Found::cut;
}

bool repair(Kept &kept, uintptr_t address) {
  const Found found = put_back(kept);
  if (found == Found::lost) return false;
  const auto page =
      static_cast<off_t>((address - kept.base.load(std::memory_order_relaxed)) & ~uintptr_t{segment_page - 1});
  if (fallocate(kept.descriptor, 0, page, segment_page) == 0) return true;
  return found == Found::cut && errno == EOPNOTSUPP;  // a store will show whether there is room
}

void on_bus_error(int number, siginfo_t *information, void *) {
  const int error = errno;
  const auto address = reinterpret_cast<uintptr_t>(information->si_addr);
  bool repaired = false;
  for (Kept &kept : table) {
    // Acquire: the other words came first; partner: keep_length().
    const uint32_t base = kept.base.load(std::memory_order_acquire);
    if (base == 0 || address < base || address - base >= kept.size) continue;
    repaired = information->si_code == BUS_ADRERR && repair(kept, address);
  }
  if (!repaired) sigaction(number, &before_us, nullptr);  // the access is repeated, and tells whoever was there before
  errno = error;
}

void handle_bus_errors() {
  if (handling) return;
  struct sigaction ours {};
  ours.sa_sigaction = on_bus_error;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&ours.sa_mask);
  handling = sigaction(SIGBUS, &ours, &before_us) == 0;
}

// Its storage as grow() left it: a store of ours must not find a full file system later.
void give_storage(const Kept &kept) {
  // Nothing to do when there is no room: the handler sees which page is really needed.
  (void)posix_fallocate(kept.descriptor, 0, static_cast<off_t>(kept.header.used_end - kept.header.base));
}

}  // namespace

void keep_length(const SegmentMap &map) {
  struct stat file {};
  if (fstat(map.descriptor(), &file) != 0) return;
  const std::lock_guard guard(changing);
  for (Kept &kept : table) {
    if (kept.base.load(std::memory_order_relaxed) != 0) continue;
    kept.size = map.layout().size;
    kept.descriptor = map.descriptor();
    kept.device = file.st_dev;
    kept.inode = file.st_ino;
    kept.header = *map.header();
    kept.layout = find_segment_layout(map.layout().name);
    kept.was_cut.store(false, std::memory_order_relaxed);
    char path[48];
    snprintf(path, sizeof path, "/proc/self/fd/%d", kept.descriptor);
    kept.watch = length_events() < 0 ? -1 : inotify_add_watch(length_events(), path, IN_MODIFY);
    handle_bus_errors();
    // Release: partner of the handler's acquire.
    kept.base.store(map.layout().base, std::memory_order_release);
    return;
  }
}

void forget_length(const SegmentLayout &layout) {
  const std::lock_guard guard(changing);
  for (Kept &kept : table) {
    if (kept.base.load(std::memory_order_relaxed) != layout.base) continue;
    kept.base.store(0, std::memory_order_relaxed);
    if (kept.watch >= 0) inotify_rm_watch(length_events(), kept.watch);
    kept.watch = -1;
  }
}

int length_events() {
  static const int descriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  return descriptor;
}

std::vector<std::string> mend_lengths() {
  // What they say does not matter. One read: who goes on cutting would otherwise keep us here.
  char events[4096];
  if (length_events() >= 0) (void)!read(length_events(), events, sizeof events);
  std::vector<std::string> cut;
  const std::lock_guard guard(changing);
  for (Kept &kept : table) {
    if (kept.base.load(std::memory_order_relaxed) == 0) continue;
    put_back(kept);
    if (!kept.was_cut.exchange(false, std::memory_order_relaxed)) continue;
    give_storage(kept);
    cut.emplace_back(kept.layout->name);
  }
  return cut;
}

}  // namespace rsw
