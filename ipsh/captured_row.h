// SPDX-License-Identifier: Apache-2.0
// A captured packet in words: what both printers and the comments of a file say of it.
#ifndef IPSH_CAPTURED_ROW_H
#define IPSH_CAPTURED_ROW_H

#include <cstdint>
#include <string>
#include <vector>

#include "capture_stream.h"

namespace ipsh {

struct CapturedRow {
  CapturedPacket packet;
  std::string interface;  // empty: the message names none
  // Of the packet's header; only where it has one.
  bool has_header = false;
  uint32_t source = 0, destination = 0;  // host order
  uint8_t protocol = 0;
};

[[nodiscard]] CapturedRow row_of(CapturedPacket packet, std::string interface);
// The name of a packet message; "message 5" where it has none.
[[nodiscard]] std::string packet_message_name(uint32_t minor);
// "output from process 12: no-route".
[[nodiscard]] std::string comment_text(const CapturedRow &row);
// "12:34:56.123456 output from 12 by eth0: 10.0.0.1 > 10.0.0.2 udp, 28 bytes: done".
[[nodiscard]] std::string line_text(const CapturedRow &row);

}  // namespace ipsh

#endif
