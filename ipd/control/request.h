// SPDX-License-Identifier: Apache-2.0
// A control message after its size, major type, minor type and opcode were found good and its sender was found to have
// the right that the message needs: what a handler gets to see.
#ifndef IPD_CONTROL_REQUEST_H
#define IPD_CONTROL_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

#include "mts.h"

namespace ipd::control {

// Why a message was not done. They are counted by message and reason, and logged once for each sending process and
// reason.
enum class Refusal : uint8_t {
  none,
  too_short,       // less than the message's record
  too_long,        // more than the message may have
  wrong_major,     // no client message
  unknown_minor,   // no message that this queue takes
  wrong_opcode,    // the opcode is another message's
  bad_field,       // a field has a value that makes no sense
  no_interface,    // no such interface
  not_allowed,     // the sender lacks the right
  name_taken,      // a live process has that registration
  not_registered,  // there is no such registration, or nothing like that is held
  limit,           // more than one process may hold
  kernel,          // the kernel refused
  no_answer,       // the answer could not be delivered
};
inline constexpr size_t refusal_count = 14;

// Who sent it, by the kernel's word.
struct Sender {
  int32_t pid = 0;
  uint32_t uid = 0;
  uint32_t sap = 0;  // of the queue that it was sent from; 0: that is gone, and nothing can be sent there
};

struct Request {
  Sender sender;
  uint16_t minor = 0;
  uint32_t opcode = 0;
  std::span<const std::byte> bytes;  // the whole message, at least as long as its record
  mts_msg_ref_t reference = nullptr;
  bool wants_answer = false;  // it was sent as a request of the transport

  // A copy of the record, which lies at no particular alignment.
  template <class Record>
  [[nodiscard]] Record as() const {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record{};
    std::memcpy(&record, bytes.data(), sizeof record < bytes.size() ? sizeof record : bytes.size());
    return record;
  }
};

}  // namespace ipd::control

#endif
