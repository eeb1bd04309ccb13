// SPDX-License-Identifier: Apache-2.0
// Who wants to see every packet that passes the packet service.
#ifndef IPD_PACKET_TAP_H
#define IPD_PACKET_TAP_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "ipd/packet/outcome.h"

namespace ipd::packet {

struct Passed {
  bool to_client = false;  // else from one
  int32_t pid = 0;         // of that client
  uint16_t minor = 0;      // IP_MSG_...
  uint32_t iod = 0;        // that the message names; 0: none
  Outcome outcome = Outcome::done;
};

class Tap {
 public:
  virtual ~Tap() = default;

  // After it was handled, as it was when it came.
  virtual void passed(const Passed &what, std::span<const std::byte> packet) = 0;
  // Whether it wants to see any, now.
  [[nodiscard]] virtual bool wants() const = 0;
};

}  // namespace ipd::packet

#endif
