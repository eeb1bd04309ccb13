// SPDX-License-Identifier: Apache-2.0
// Packets in frames of our own making: fragmented when they must be, to a known link-layer address or to a neighbour.
#ifndef IPD_PACKET_FRAMED_OUTPUT_H
#define IPD_PACKET_FRAMED_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "ipd/kernel/packet_output.h"
#include "ipd/packet/ethernet.h"
#include "ipd/packet/ipv4.h"
#include "ipd/packet/neighbor_output.h"
#include "ipd/packet/outcome.h"

namespace ipd::packet {

struct FrameWay {
  uint32_t ifindex = 0;
  size_t mtu = 0;
  MacAddress source{};
  uint16_t tag = 0;                         // 802.1Q; 0: none
  std::optional<MacAddress> destination{};  // of the frame; else:
  uint32_t neighbor = 0;                    // whose it is
  bool unchanged = false;                   // one frame, or none
};

class FramedOutput {
 public:
  // Both outlive it.
  FramedOutput(kernel::PacketOutput &frames, NeighborOutput &neighbors) : frames_(frames), neighbors_(neighbors) {}

  // The packet's header is complete. Stops at the first fragment that cannot be sent.
  Outcome send(const FrameWay &way, ipv4::Bytes packet);

 private:
  Outcome send_one(const FrameWay &way, ipv4::Bytes packet);

  kernel::PacketOutput &frames_;
  NeighborOutput &neighbors_;
  std::vector<std::byte> frame_;
};

// The frame's destination when the packet's or the next hop's address says it: of a group, and of everybody. Nothing:
// it is one neighbour's.
[[nodiscard]] std::optional<MacAddress> mapped_destination(uint32_t addr, bool is_broadcast);

}  // namespace ipd::packet

#endif
