// SPDX-License-Identifier: Apache-2.0
// The control service: takes each message of the control queue, checks what is the same for all, and gives it to the
// handler of its subject.
#ifndef IPD_CONTROL_SERVICE_H
#define IPD_CONTROL_SERVICE_H

#include <array>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <set>
#include <vector>

#include "ipd/control/handler.h"
#include "ipd/control/messages.h"
#include "ipd/control/processes.h"
#include "ipd/control/rights.h"
#include "ipd/control/transport.h"

namespace ipd::control {

struct MessageCounts {
  uint64_t received = 0;
  std::array<uint64_t, refusal_count> by_outcome{};  // by Refusal; none: done
};

// A process that sent something and is not gone. Counts wrap.
struct SenderCounts {
  uint32_t uid = 0;
  uint32_t received = 0;
  uint32_t refused = 0;
};

class Service {
 public:
  // All of them outlive it. It takes over processes' on_gone.
  Service(Transport &transport, Processes &processes, const Rights &rights);

  // From now on `handler` takes these minor types, each of which has its row in the table of messages. A row without a
  // handler is refused as unknown. The handler must outlive the service.
  void add(Handler &handler, std::initializer_list<uint16_t> minors);

  // A message as it came; its minor type is not looked at, but read from the bytes. The reference stays the caller's.
  void receive(Request request);
  // A sender's queue is unbound, or its process died; all that it sent has been received.
  void queue_gone(const Sender &sender);
  void interfaces_changed(const std::set<uint32_t> &ifindexes);
  void tick(Handler::Clock::time_point now);

  // By minor type; 0: messages of no kind that is known.
  [[nodiscard]] const std::map<uint16_t, MessageCounts> &counts() const { return counts_; }
  [[nodiscard]] const std::map<int32_t, SenderCounts> &senders() const { return senders_; }
  [[nodiscard]] Holdings holdings(int32_t pid) const;

 private:
  Refusal serve(const Request &request, Refusal form, const MessageKind *kind);
  void count(const Request &request, Refusal refusal);
  void log_refusal(const Request &request, const MessageKind *kind, Refusal refusal);
  void process_gone(int32_t pid);

  Transport &transport_;
  Processes &processes_;
  const Rights &rights_;
  std::map<uint16_t, Handler *> by_minor_;
  std::vector<Handler *> handlers_;
  std::map<uint16_t, MessageCounts> counts_;
  std::map<int32_t, SenderCounts> senders_;       // by process
  std::set<std::pair<int32_t, Refusal>> logged_;  // by process
};

}  // namespace ipd::control

#endif
