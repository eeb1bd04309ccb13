// SPDX-License-Identifier: Apache-2.0
// The pool's maker.
//
// A new pool has all groups free and without storage; see groups.cc for how they get it. A pool that an earlier ipd
// made is gone on with as it is: clients are in it. Only if its mark is damaged, the tables are written anew; buffers
// in use are then left alone because their state says so, and found again by their owners.
#include "mbuf/pool.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mbuf/attachment.h"
#include "mbuf/reclaim.h"
#include "sm/length_keeper.h"

namespace rsw {
namespace {

using namespace pool;

void begin_tables() {
  for (uint32_t number = first_group; number < group_limit; ++number) {
    Group &group = group_at(number);
    // Relaxed, all: the mark says that they are written.
    word(group.holder).store(0, std::memory_order_relaxed);
    word(group.returned).store(0, std::memory_order_relaxed);
    word(group.free).store(~0u, std::memory_order_relaxed);
  }
  word(control().groups_in_use).store(first_group, std::memory_order_relaxed);
  // Release: the tables are whole; the partner is the acquire load of whoever attaches.
  word(control().magic).store(pool_magic, std::memory_order_release);
}

}  // namespace

bool mbuf_open_for_writing(std::string *reason) {
  if (!is_attached()) detach();  // a mapping that a child of fork brought along
  const std::shared_ptr<SegmentMap> map = SegmentMap::create(segment_mbuf, reason);
  if (map == nullptr) return false;
  if (map->layout().base != window_base || map->layout().size != window_bytes) {
    *reason = "the pool's window is not where the library has it";
    return false;
  }
  if (!map->grow(window_base + first_group * group_bytes, reason)) return false;
  if (word(control().magic).load(std::memory_order_relaxed) != pool_magic) begin_tables();
  if (!map->publish_name(reason) || !attach_to(map, reason)) return false;
  take_back_everything();
  keep_length(*map);
  return true;
}

void mbuf_put_back() {
  if (is_attached() && word(control().magic).load(std::memory_order_relaxed) != pool_magic) begin_tables();
}

bool mbuf_is_open() {
  return is_attached();
}

bool mbuf_open_to_group(std::optional<uint32_t> gid, std::string *reason) {
  const std::shared_ptr<SegmentMap> map = map_pool(reason);
  if (map == nullptr) return false;
  const bool is_given = !gid || fchown(map->descriptor(), static_cast<uid_t>(-1), *gid) == 0;
  if (is_given && fchmod(map->descriptor(), gid ? 0660 : 0600) == 0) return true;
  const std::string error = strerror(errno);
  if (!is_given) fchmod(map->descriptor(), 0600);
  *reason = "packet buffers cannot be opened to the group: " + error;
  return false;
}

void mbuf_leave() {
  detach();
}

}  // namespace rsw
