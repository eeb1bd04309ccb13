// SPDX-License-Identifier: Apache-2.0
// A packet message after its size, types and opcode were found good, its sender was found to have the right, and its
// packet, if it has one, was brought here and is an IPv4 packet: what a handler gets to see.
#ifndef IPD_PACKET_REQUEST_H
#define IPD_PACKET_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

#include "ipd/control/request.h"

namespace ipd::packet {

inline constexpr size_t longest_packet = 65535;

struct Request {
  control::Sender sender;
  uint16_t minor = 0;
  std::span<const std::byte> message;  // the record, of the size that the message has
  // The whole packet in one piece, its header first: version 4, a header length that fits, and exactly as many bytes
  // as its total length says; but the total length may be 0, then these are all bytes that came. It may be changed in
  // place. Empty: the message has none.
  std::span<std::byte> packet;

  // A copy of the record, which lies at no particular alignment.
  template <class Record>
  [[nodiscard]] Record as() const {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record{};
    std::memcpy(&record, message.data(), sizeof record < message.size() ? sizeof record : message.size());
    return record;
  }
};

}  // namespace ipd::packet

#endif
