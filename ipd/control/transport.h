// SPDX-License-Identifier: Apache-2.0
// How the control service answers. Implemented on the queue of the control SAP, and by a list in tests.
#ifndef IPD_CONTROL_TRANSPORT_H
#define IPD_CONTROL_TRANSPORT_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>

#include "ipd/control/request.h"

namespace ipd::control {

// We lack something that may be there a moment later.
inline bool is_shortage(int error) {
  return error == EAGAIN || error == ENOMEM || error == ENOBUFS || error == EMFILE || error == ENFILE ||
         error == ENOSPC;  // of watches
}

class Transport {
 public:
  virtual ~Transport() = default;

  // None of them waits. Results: 0, or an error number: EAGAIN: the receiver has no room now; ECONNREFUSED, ECONNRESET:
  // it is gone; others as is_shortage() has them.
  // To the SAP of a sender, as long as its process has it.
  virtual int send(const Sender &to, uint32_t opcode, std::span<const std::byte> message) = 0;
  // Answers a request of the transport; rejects it.
  virtual int answer(const Request &request, std::span<const std::byte> message) = 0;
  virtual int reject(const Request &request) = 0;
  // Ends the connection of a request that cannot be answered, so that nobody waits for that.
  virtual void hang_up(const Request &) {}
};

}  // namespace ipd::control

#endif
