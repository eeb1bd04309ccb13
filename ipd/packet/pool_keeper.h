// SPDX-License-Identifier: Apache-2.0
// Takes back what dead processes left in the pool of packet buffers: of those that the control service sees go, and of
// those that it never heard of.
//
// What a process sent before it ended may name packets of its own, and wait in a queue that is not the control
// service's. So it is taken back from a moment later.
#ifndef IPD_PACKET_POOL_KEEPER_H
#define IPD_PACKET_POOL_KEEPER_H

#include <cstdint>
#include <optional>
#include <vector>

#include "ipd/control/handler.h"

namespace ipd::packet {

// Without a pool nothing happens.
class PoolKeeper final : public control::Handler {
 public:
  // Lets the group that may configure use the pool, too; what fails is logged.
  void open_to_group(std::optional<uint32_t> gid);

  // No message is its subject.
  control::Refusal handle(const control::Request &) override { return control::Refusal::unknown_minor; }
  void process_gone(int32_t pid) override { gone_.push_back(pid); }
  void tick(Clock::time_point now) override;

 private:
  std::vector<int32_t> gone_;    // since the last tick
  std::vector<int32_t> before_;  // in the one before
  uint32_t damaged_ = 0;         // words of the pool, as far as that was logged
};

}  // namespace ipd::packet

#endif
