// SPDX-License-Identifier: Apache-2.0
// Echo requests that ipd sends for this process, and their replies as it delivers them.
#ifndef IPSH_PING_H
#define IPSH_PING_H

#include <cstdint>
#include <optional>
#include <string>

#include "echo.h"
#include "exit_code.h"

namespace ipsh {

struct PingOrder {
  uint32_t destination = 0;  // host order
  uint32_t iod = 0;          // to leave by; 0: the route says
  uint32_t data = 56;        // bytes
  std::optional<uint32_t> count;
  double wait = 2;      // seconds for the last reply
  double interval = 1;  // seconds between requests
};

enum class PingEventKind { reply, duplicate, error, not_sent };
[[nodiscard]] const char *to_text(PingEventKind kind);

struct PingEvent {
  PingEventKind kind = PingEventKind::reply;
  EchoNews news;            // not_sent: the sequence number alone
  double milliseconds = 0;  // reply, duplicate
  uint32_t outcome = 0;     // not_sent: IP_SHOW_PACKET_...
};

struct PingOutput {
  void (*start)(const PingOrder &order);
  void (*event)(const PingEvent &event);
  void (*end)(const PingOrder &order, const EchoStatistics &statistics);
};

// Blocks until all is answered or the wait is over, or until interrupted. found: something was answered; none: nothing.
[[nodiscard]] ExitCode ping(const PingOrder &order, const PingOutput &output, Failure *failure);

}  // namespace ipsh

#endif
