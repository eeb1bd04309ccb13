// SPDX-License-Identifier: Apache-2.0
// What stands in front of each message on a connection. Both ends are processes of one machine: host byte order.
#ifndef RSW_MTS_WIRE_H
#define RSW_MTS_WIRE_H

#include <cstddef>
#include <cstdint>

#include "contract.h"

namespace rsw::mts {

inline constexpr uint32_t wire_magic = 0x3153544d;  // "MTS1"
inline constexpr uint32_t largest_payload = 120832;
inline constexpr uint32_t most_pieces = 62;
inline constexpr uint32_t first_dynamic_sap = 2048;
inline constexpr uint32_t last_sap = 65535;

enum class Kind : uint32_t { message = 1, request = 2, response = 3, reject = 4 };

struct WireHeader {
  uint32_t magic;
  uint32_t kind;
  uint32_t opcode;
  uint32_t sap;       // the sender's
  uint32_t token;     // of a request and its response; 0 in a message
  uint32_t size;      // bytes that follow
  uint32_t pieces;    // of a packet at the end of them
  uint32_t reserved;  // zero on send, refused otherwise
};
RSW_SIZE(WireHeader, 32);
RSW_OFFSET(WireHeader, magic, 0);
RSW_OFFSET(WireHeader, kind, 4);
RSW_OFFSET(WireHeader, opcode, 8);
RSW_OFFSET(WireHeader, sap, 12);
RSW_OFFSET(WireHeader, token, 16);
RSW_OFFSET(WireHeader, size, 20);
RSW_OFFSET(WireHeader, pieces, 24);
RSW_OFFSET(WireHeader, reserved, 28);

inline constexpr uint32_t largest_datagram = sizeof(WireHeader) + largest_payload;

// Whether `length` bytes with this header in front are a message; `to_server`: on a connection that the peer made.
inline bool well_formed(const WireHeader &header, size_t length, bool to_server) {
  if (header.magic != wire_magic || header.reserved != 0 || header.pieces > most_pieces) return false;
  if (length < sizeof header || length - sizeof header != header.size || header.size > largest_payload) return false;
  if (header.sap == 0 || header.sap > last_sap) return false;
  switch (static_cast<Kind>(header.kind)) {
    case Kind::message:
      return to_server && header.token == 0;
    case Kind::request:
      return to_server && header.token != 0;
    case Kind::response:
    case Kind::reject:
      return !to_server && header.token != 0;
  }
  return false;
}

}  // namespace rsw::mts

#endif
