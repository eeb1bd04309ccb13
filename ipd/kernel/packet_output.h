// SPDX-License-Identifier: Apache-2.0
// Frames that leave by an interface as they are.
#ifndef IPD_KERNEL_PACKET_OUTPUT_H
#define IPD_KERNEL_PACKET_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "ipd/packet/outcome.h"

namespace ipd::kernel {

class PacketOutput {
 public:
  // Over a packet socket, which is opened with the first frame.
  static std::unique_ptr<PacketOutput> over_packet_socket();
  virtual ~PacketOutput() = default;

  // The frame with its header. Never waits. Results: done; interface_down, no_interface; too_big; queue_full: the
  // interface's queue; no_privilege: of packet sockets; no_memory; kernel.
  virtual packet::Outcome send(uint32_t ifindex, std::span<const std::byte> frame) = 0;
};

}  // namespace ipd::kernel

#endif
