// SPDX-License-Identifier: Apache-2.0
// Everything that processes share lies in one range of addresses below 2 GiB. A process takes the whole range with its
// first attach: from then on nothing else can move in, a segment may be mapped over its window with MAP_FIXED without
// the danger of tearing out somebody else's memory, and a damaged word that points anywhere into the range reads
// zeros. The range costs address space only.
#include "sm/reservation.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <mutex>

#include "sm/segment.h"

namespace rsw {
namespace {

constexpr size_t reserved_bytes = window_high - window_low;

void *at(uint32_t address) {
  return reinterpret_cast<void *>(static_cast<uintptr_t>(address));
}

// The first mapping of this process that overlaps the range, as "1000-2000 /path".
std::string what_is_in_the_way() {
  FILE *maps = fopen("/proc/self/maps", "re");
  if (maps == nullptr) return "something that /proc does not tell";
  std::string found = "nothing that /proc shows";
  char *line = nullptr;
  size_t capacity = 0;
  while (getline(&line, &capacity, maps) > 0) {
    unsigned long long begin = 0;
    unsigned long long end = 0;
    int path_at = 0;
    if (sscanf(line, "%llx-%llx %*s %*s %*s %*s %n", &begin, &end, &path_at) < 2) continue;
    if (end <= window_low || begin >= window_high) continue;
    line[strcspn(line, "\n")] = '\0';
    const char *path = path_at > 0 ? line + path_at : "";
    char text[64];
    snprintf(text, sizeof text, "%llx-%llx ", begin, end);
    found = std::string(text) + (*path != '\0' ? path : "(anonymous memory)");
    break;
  }
  free(line);
  fclose(maps);
  return found;
}

}  // namespace

bool reserve_windows(std::string *reason) {
  static std::mutex once;
  static bool reserved = false;
  const std::lock_guard guard(once);
  if (reserved) return true;
  void *got = mmap(at(window_low), reserved_bytes, PROT_READ,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
  if (got == at(window_low)) {
    reserved = true;
    return true;
  }
  int error = errno;
  if (got != MAP_FAILED) {  // a kernel that takes the address for a mere wish
    munmap(got, reserved_bytes);
    error = EEXIST;
  }
  char range[96];
  snprintf(range, sizeof range, "cannot reserve the addresses %x-%x for shared segments: ", window_low, window_high);
  *reason = range;
  *reason += error == EEXIST ? "in the way is " + what_is_in_the_way() : std::string(strerror(error));
  errno = error;
  return false;
}

void restore_reservation(uint32_t base, uint32_t size) {
  // Over our own range: nothing of anybody else can be there. A failure (no memory for the kernel's bookkeeping)
  // leaves the segment mapped, which is as readable as zeros.
  mmap(at(base), size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

}  // namespace rsw
