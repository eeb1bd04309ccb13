// SPDX-License-Identifier: Apache-2.0
// A packet in pieces that fit a link (RFC 791, section 3.2).
#ifndef IPD_PACKET_FRAGMENTS_H
#define IPD_PACKET_FRAGMENTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ipd/packet/ipv4.h"
#include "ipd/packet/outcome.h"

namespace ipd::packet {

// One after the other, in order. The packet outlives it and is not changed; its total length is that of the span.
class Fragments {
 public:
  Fragments(ipv4::Bytes packet, size_t mtu);

  // done: there are some. too_big: the packet says that it must not be fragmented, or not even 8 bytes of data fit
  // behind its header. bad_packet: its options cannot be told apart, so nobody knows which of them belong to every
  // piece, or its data would end beyond the longest packet.
  [[nodiscard]] Outcome outcome() const { return outcome_; }
  // The next one, with its checksum; it may be changed, and lasts until the next call. Empty: there are no more.
  ipv4::WritableBytes next();

 private:
  ipv4::Bytes packet_;
  size_t mtu_;
  Outcome outcome_ = Outcome::done;
  std::vector<std::byte> later_header_;  // of all but the first
  std::vector<std::byte> fragment_;
  size_t taken_ = 0;  // bytes of data
};

}  // namespace ipd::packet

#endif
