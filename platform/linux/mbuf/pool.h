// SPDX-License-Identifier: Apache-2.0
// The shared pool of packet buffers beyond the contract: who makes it, who may use it, what dead processes leave in it,
// and what ipsh shows.
#ifndef RSW_MBUF_POOL_H
#define RSW_MBUF_POOL_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sm/run_dir.h"

namespace rsw {

// Makes or takes over the segment "/rsw/shm/mbuf" and keeps it mapped: for ipd. What a damaged or a new pool lacks is
// put right, and what dead processes left is taken back. A new pool is open to root and this process's user.
// Threads: start-up. Blocks: no. False: *reason; this process then has private buffers, as any process without a pool.
RSW_EXPORT bool mbuf_open_for_writing(std::string *reason);

// Somebody who may use the pool cut its file short, and its length is back: if the tables are gone, all buffers are
// free again, also those that somebody has. For ipd.
RSW_EXPORT void mbuf_put_back();

// Whether this process is attached to the pool. Threads: any.
[[nodiscard]] RSW_EXPORT bool mbuf_is_open();

// Lets a group use the pool, or no group: for its maker. Who is attached stays attached.
// Threads: any. False: *reason.
RSW_EXPORT bool mbuf_open_to_group(std::optional<uint32_t> gid, std::string *reason);

// Leaves the pool that this process is attached to, or that it made: for one that goes to another run directory. None
// of its buffers may be out, and the calling thread is the only one that took any. Nothing happens when it is not
// attached.
RSW_EXPORT void mbuf_leave();

// Takes back what a process that is gone for good left, buffers that its threads had cached included. Cheap when that
// process never had any. Nothing happens while a process of that number is attached to the pool.
// Threads: any, one at a time. Blocks: no. Results: how many buffers.
RSW_EXPORT uint32_t reclaim_buffers_of(int32_t pid);

// The same for every process that was attached to the pool and was found dead at the last look, too: what it sent
// before may have been on its way then. A few times a second is not too often. After a buffer was refused to somebody
// it looks at every buffer once, and takes back those of owners that do not exist.
RSW_EXPORT uint32_t reclaim_buffers_of_the_dead();

// Words of the pool that made no sense, counted by all processes. 0 when this one is not attached.
[[nodiscard]] RSW_EXPORT uint32_t damage_in_pool();

struct PoolOwner {
  int32_t pid = 0;
  std::string command;  // empty: it is not attached; packets were handed to it
  uint32_t in_use = 0;
  uint32_t cached = 0;
};

struct PoolReport {
  uint32_t total = 0;
  uint32_t in_use = 0;
  uint32_t cached = 0;            // free, but kept by a thread for itself
  uint32_t free = 0;              // for whoever wants one
  uint32_t high_water = 0;        // this many had an owner or were cached at one time, rounded up to a group's 32
  uint32_t refused = 0;           // buffers that were wanted when there was none
  uint32_t reclaimed = 0;         // from the dead
  uint32_t damaged = 0;           // words of the pool that made no sense
  std::vector<PoolOwner> owners;  // ascending by pid
};

// What the pool holds now. A process that is not attached looks without attaching. Numbers of a moment: others go on
// meanwhile. Threads: any. Blocks: no. False: *reason, as that there is no pool, or no right to look at it.
RSW_EXPORT bool report_pool(PoolReport *report, std::string *reason);

}  // namespace rsw

#endif
