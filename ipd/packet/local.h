// SPDX-License-Identifier: Apache-2.0
// Packets that are for this system: to the clients that asked for their protocol, and to the kernel where that is
// allowed. Replaced by a recording one in tests.
#ifndef IPD_PACKET_LOCAL_H
#define IPD_PACKET_LOCAL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "ipd/packet/outcome.h"

namespace ipd::packet {

struct Arrival {
  uint32_t iod = 0;                 // the interface that it came in by; 0: not known
  uint32_t context_id = 0;          // of that interface
  std::array<uint8_t, 6> src_l2{};  // all zeros: not known
  bool from_kernel = false;         // it came from there, and does not go there again
  int32_t from_pid = 0;             // the process that handed it in, which gets no copy; 0: none
  bool operator==(const Arrival &) const = default;
};

class LocalDelivery {
 public:
  virtual ~LocalDelivery() = default;

  // The packet as struct Request has it, its total length good.
  virtual Outcome deliver(const Arrival &arrival, std::span<const std::byte> packet) = 0;
};

// Gives a packet message to one client's packet queue. Implemented on the queue of the packet SAP and the pool of
// packet buffers.
struct Receiver {
  int32_t pid = 0;
  uint32_t sap = 0;
  bool by_segments = false;  // else by reference
  bool operator==(const Receiver &) const = default;
};

class Delivery {
 public:
  virtual ~Delivery() = default;

  // `message`: IP_MSG_SIZE bytes, a struct ip_msg_input; its packet_ref is filled in here. Never waits.
  virtual Outcome deliver(const Receiver &receiver, std::span<std::byte> message,
                          std::span<const std::byte> packet) = 0;
};

}  // namespace ipd::packet

#endif
