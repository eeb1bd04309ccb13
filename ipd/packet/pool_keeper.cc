// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/pool_keeper.h"

#include <syslog.h>

#include <string>
#include <utility>

#include "ipd/process/log.h"
#include "mbuf/pool.h"

namespace ipd::packet {

void PoolKeeper::open_to_group(std::optional<uint32_t> gid) {
  std::string reason;
  if (rsw::mbuf_is_open() && !rsw::mbuf_open_to_group(gid, &reason)) log_line(LOG_WARNING, "%s", reason.c_str());
}

void PoolKeeper::tick(Clock::time_point) {
  uint32_t buffers = 0;
  for (const int32_t pid : before_) buffers += rsw::reclaim_buffers_of(pid);
  before_ = std::exchange(gone_, {});
  buffers += rsw::reclaim_buffers_of_the_dead();
  if (buffers != 0) log_line(LOG_INFO, "processes that are gone left %u packet buffers behind", buffers);
  const uint32_t damaged = rsw::damage_in_pool();
  if (damaged != damaged_) {
    log_line(LOG_WARNING, "words of the pool of packet buffers that made no sense so far: %u", damaged);
    damaged_ = damaged;
  }
}

}  // namespace ipd::packet
