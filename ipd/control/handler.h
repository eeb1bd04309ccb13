// SPDX-License-Identifier: Apache-2.0
// One subject of the control service: takes the messages that it was made for, and forgets what a process held when
// that dies.
#ifndef IPD_CONTROL_HANDLER_H
#define IPD_CONTROL_HANDLER_H

#include <chrono>
#include <cstdint>
#include <set>

#include "ipd/control/request.h"

namespace ipd::control {

// What a process holds, for people to look at. Each handler adds its own.
struct Holdings {
  uint32_t registrations = 0;
  uint32_t memberships = 0;  // groups and channels that it joined
  uint32_t loans = 0;        // interfaces that it made unnumbered
  uint32_t downloads = 0;    // of interface information, that go on
  uint32_t link_local_reports = 0;
  uint32_t link_local_ref = 0;  // of the report with the greatest one
  uint32_t link_local_value = 0;
};

class Handler {
 public:
  using Clock = std::chrono::steady_clock;

  virtual ~Handler() = default;

  // Does it, or says why not. A handler that answers, answers in both cases. A request of the transport that it leaves
  // unanswered is rejected by the caller.
  virtual Refusal handle(const Request &request) = 0;
  // One of its messages was refused before it got here: malformed (its bytes may then be fewer than its record; as()
  // fills up with zeros), or its sender may not. Whoever waits for a message as the answer gets it here; requests of
  // the transport are rejected by the caller.
  virtual void refused(const Request & /*request*/, Refusal /*refusal*/) {}
  // The process is gone for good: what it held ends.
  virtual void process_gone(int32_t /*pid*/) {}
  // The queue that this sender sent from is unbound, or its process died: what goes to that SAP from now on would reach
  // somebody else. The process may live on, and what it holds it keeps.
  virtual void queue_gone(const Sender & /*sender*/) {}
  virtual void add_holdings(int32_t /*pid*/, Holdings & /*held*/) const {}
  // These interfaces may have come, changed or gone, their addresses and whose address they borrow included, and that
  // is published.
  virtual void interfaces_changed(const std::set<uint32_t> & /*ifindexes*/) {}
  // A few times a second.
  virtual void tick(Clock::time_point /*now*/) {}
};

}  // namespace ipd::control

#endif
