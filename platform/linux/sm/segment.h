// SPDX-License-Identifier: Apache-2.0
// What every shared segment of librsw looks like, and where each is mapped.
//
// A segment is a file in the run directory, as long as its window from the start (sparse: only what is in use takes
// memory), mapped at the same fixed address below 2 GiB in every process, whatever its width. The first page is the
// header; the last page of a window is never used, so that a record which starts inside the window can be read whole.
#ifndef RSW_SM_SEGMENT_H
#define RSW_SM_SEGMENT_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sm/run_dir.h"

namespace rsw {

// All windows lie in [window_low, window_high). The first attach of a process reserves the whole range readable, so
// that a damaged word that points anywhere into it reads zeros instead of faulting.
inline constexpr uint32_t window_low = 0x60000000u;
inline constexpr uint32_t window_high = 0x7f000000u;

struct SegmentLayout {
  std::string_view name;  // "/rsw/shm/ip"; the file in the run directory bears its last component
  uint32_t base;          // where the window begins, in every process
  uint32_t size;          // of the window, a multiple of 64 KiB
  uint32_t layout_hash;   // changes whenever a record of this segment changes
  bool clients_write;     // the reader-lock slots and the memory counters: mapped read-write by clients as well
};

inline constexpr uint32_t segment_page = 4096;
inline constexpr uint32_t segment_magic = 0x52535731u;  // "RSW1"
inline constexpr uint32_t segment_header_version = 1;

struct SegmentHeader {
  uint32_t magic;
  uint32_t header_version;
  uint32_t layout_hash;
  uint32_t base;
  uint32_t size;
  uint32_t used_end;    // address of the end of the used area; grows, never shrinks
  uint32_t root;        // address of the root record; 0 while there is none
  uint32_t segment_id;  // a number of its own for each segment name
  uint32_t instance;    // +1 each time a writer takes the segment over
  uint32_t writer_pid;
  uint32_t generation;  // +1 after each batch of changes; readers may wait on it with a futex
  uint32_t reserved[5];
  char name[32];
};
static_assert(sizeof(SegmentHeader) == 96);
static_assert(offsetof(SegmentHeader, root) == 24);
static_assert(offsetof(SegmentHeader, generation) == 40);
static_assert(offsetof(SegmentHeader, name) == 64);

// Known segments, by name; null for a name that is not ours. sm_open knows a segment's window and layout from here.
[[nodiscard]] RSW_EXPORT const SegmentLayout *find_segment_layout(std::string_view name);

RSW_EXPORT extern const SegmentLayout segment_tsp, segment_sysmgr, segment_mtrack, segment_im, segment_ip, segment_urib,
    segment_mbuf;

}  // namespace rsw

#endif
