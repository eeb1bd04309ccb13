// SPDX-License-Identifier: Apache-2.0
// Packets that the kernel routes, with the header that we wrote.
#ifndef IPD_KERNEL_RAW_OUTPUT_H
#define IPD_KERNEL_RAW_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "ipd/packet/outcome.h"

namespace ipd::kernel {

struct RawWay {
  uint32_t ifindex = 0;     // to leave by, or the VRF device in whose table to look; 0: the route says
  uint32_t source = 0;      // for the choice of the route alone: one of the system's own addresses; 0: none
  bool dont_route = false;  // the destination is on the link
  bool loopback = false;    // a packet to a group comes back to this system's own members
  bool operator==(const RawWay &) const = default;
};

class RawOutput {
 public:
  // Over a raw socket, which is opened with the first packet.
  static std::unique_ptr<RawOutput> over_raw_socket();
  virtual ~RawOutput() = default;

  // The packet with its header, whose destination decides. The kernel writes the checksum, and the identification and
  // the source where they are 0. Never waits. Results: done; interface_down, no_interface, no_route; too_big: the
  // kernel fragments nothing here; queue_full; no_privilege: of raw sockets; no_memory; kernel.
  virtual packet::Outcome send(const RawWay &way, std::span<const std::byte> packet) = 0;
};

}  // namespace ipd::kernel

#endif
