// SPDX-License-Identifier: Apache-2.0
// The shared-memory library as clients see it: sm_open, sm_close, smm_api_init, and a shm_unlink that knows segments.
//
// sm_open attaches a segment by name and answers with a descriptor, a record in this process's own memory. Each open
// makes one descriptor; all descriptors of one segment share the process's one mapping, and the mapping goes with the
// last of them. A segment that has no root record yet is refused: nothing has been published in it.
//
// libc's shm_unlink knows only names without inner slashes. Ours takes the names of segments and leaves all others to
// libc: a program that links librsw and uses POSIX shared memory of its own notices no difference.
#include "sm.h"

#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>

#include "log/log_writer.h"
#include "never_destroyed.h"
#include "no_memory.h"
#include "sm/reservation.h"
#include "sm/segment_map.h"

namespace rsw {
namespace {

// What sm_open answers with: addresses as 32-bit words, whatever the width of the process.
struct SegmentDescriptor {
  char name[84];
  uint32_t segment_id;
  uint32_t bottom;    // where the window begins
  uint32_t base;      // where the segment is mapped: the same
  uint32_t used_end;  // end of the used area when it was opened
  uint32_t top;       // where the window ends
  uint32_t bounded;   // SM_SEGMENT_BOUNDED: nothing lies outside, and the last page is never used
  uint32_t reserved[20];
  uint32_t root;  // address of the root record
};
static_assert(sizeof(SegmentDescriptor) == 192);
static_assert(std::is_trivially_copyable_v<SegmentDescriptor>);
static_assert(offsetof(SegmentDescriptor, segment_id) == 84);
static_assert(offsetof(SegmentDescriptor, bottom) == 88);
static_assert(offsetof(SegmentDescriptor, base) == 92);
static_assert(offsetof(SegmentDescriptor, used_end) == 96);
static_assert(offsetof(SegmentDescriptor, top) == 100);
static_assert(offsetof(SegmentDescriptor, bounded) == 104);
static_assert(offsetof(SegmentDescriptor, root) == 188);

struct OpenSegment {
  std::unique_ptr<SegmentDescriptor> descriptor;
  std::shared_ptr<SegmentMap> map;
};

struct OpenSegments {
  std::mutex mutex;
  std::unordered_map<const void *, OpenSegment> by_handle;
};

OpenSegments &open_segments() {
  static NeverDestroyed<OpenSegments> only;
  return only.value;
}

uint32_t load_acquire(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// The only combination callers use: an existing segment, for reading.
constexpr uint32_t existing = 0;
constexpr uint32_t read_only = 1;
constexpr uint32_t whole_segment = 17;

uint32_t refuse(const char *name, int error, const std::string &reason) {
  log_line(LOG_ERR, "sm_open %s: %s", name, reason.c_str());
  errno = error != 0 ? error : EIO;
  return static_cast<uint32_t>(errno) & 0xffffu;
}

uint32_t open_segment(const char *name, void **handle) {
  const SegmentLayout *layout = find_segment_layout(name);
  if (layout == nullptr) return refuse(name, ENOENT, "there is no segment of that name");
  std::string reason;
  errno = 0;
  std::shared_ptr<SegmentMap> map = SegmentMap::attach(*layout, &reason);
  if (map == nullptr) return refuse(name, errno, reason);
  const SegmentHeader *const header = map->header();
  // Acquire: the root record was written before its address; the partner is the writer's release store.
  const uint32_t root = load_acquire(header->root);
  if (root == 0) return refuse(name, EAGAIN, "nothing is published in it yet");
  auto descriptor = std::make_unique<SegmentDescriptor>();
  memcpy(descriptor->name, layout->name.data(), std::min(layout->name.size(), sizeof descriptor->name - 1));
  descriptor->segment_id = header->segment_id;
  descriptor->bottom = layout->base;
  descriptor->base = layout->base;
  descriptor->used_end = load_acquire(header->used_end);  // partner: the release store in grow()
  descriptor->top = layout->base + layout->size;
  descriptor->bounded = SM_SEGMENT_BOUNDED;
  descriptor->root = root;
  void *const made = descriptor.get();
  const std::lock_guard guard(open_segments().mutex);
  open_segments().by_handle.emplace(made, OpenSegment{std::move(descriptor), std::move(map)});
  *handle = made;
  return 0;
}

}  // namespace
}  // namespace rsw

uint32_t sm_open(const char *name, void **handle, uint32_t a0, uint32_t a1, uint32_t a17) {
  if (handle == nullptr || name == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  *handle = nullptr;
  if (a0 != rsw::existing || a1 != rsw::read_only || a17 != rsw::whole_segment) {
    return rsw::unless_without_memory(uint32_t{ENOMEM}, [&] {
      return rsw::refuse(name, EINVAL, "opened in a way that this platform does not know");
    });
  }
  return rsw::unless_without_memory(uint32_t{ENOMEM}, [&] { return rsw::open_segment(name, handle); });
}

uint32_t sm_close(void *handle) {
  rsw::OpenSegment closed;  // goes after the mutex is free
  const std::lock_guard guard(rsw::open_segments().mutex);
  auto &by_handle = rsw::open_segments().by_handle;
  const auto entry = by_handle.find(handle);
  if (entry == by_handle.end()) {
    errno = EBADF;
    return EBADF;
  }
  closed = std::move(entry->second);
  by_handle.erase(entry);
  return 0;
}

uint32_t smm_api_init(uint32_t) {
  return rsw::unless_without_memory(0u, []() -> uint32_t {
    std::string reason;
    if (rsw::reserve_windows(&reason)) return 1;
    rsw::log_line(LOG_ERR, "smm_api_init: %s", reason.c_str());
    return 0;
  });
}

// In place of libc's, see above. Declared here and not by <sys/mman.h>: the linkage is what counts.
extern "C" RSW_EXPORT int shm_unlink(const char *name) noexcept {
  constexpr std::string_view ours = "/rsw/shm/";
  if (name != nullptr && std::string_view(name).starts_with(ours)) {
    const std::string_view last = std::string_view(name).substr(ours.size());
    if (last.empty() || last.find('/') != std::string_view::npos || last == "." || last == "..") {
      errno = EINVAL;
      return -1;
    }
    return rsw::unless_without_memory(-1, [name] { return unlink(rsw::segment_path(name).c_str()); });
  }
  using Unlink = int (*)(const char *);
  static const auto next = reinterpret_cast<Unlink>(dlsym(RTLD_NEXT, "shm_unlink"));
  if (next == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return next(name);
}
