// SPDX-License-Identifier: Apache-2.0
// The packet service: takes each message of the packet queue, checks what is the same for all, brings its packet here,
// and gives it to the handler of its subject.
#ifndef IPD_PACKET_SERVICE_H
#define IPD_PACKET_SERVICE_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "ipd/packet/handler.h"
#include "ipd/packet/messages.h"
#include "ipd/packet/outcome.h"
#include "ipd/packet/request.h"
#include "ipd/packet/tap.h"

namespace ipd::packet {

// Packets that clients name by reference.
class References {
 public:
  virtual ~References() = default;

  // Copies the packet that `reference` names and `pid` owns to `into`; *length: of how many bytes. From then on it is
  // not the client's any more: what can be told to be the sender's is freed, whatever the outcome.
  virtual Outcome take(uint32_t reference, int32_t pid, std::span<std::byte> into, size_t *length) = 0;
};

struct MessageCounts {
  uint64_t received = 0;
  uint64_t bytes = 0;  // of packets
  OutcomeCounts by_outcome{};
};

class Service {
 public:
  // Whether the sender may send packets.
  using Allowed = std::function<bool(const control::Request &)>;

  // All outlive it.
  Service(References &references, Allowed allowed);

  // From now on `handler` takes these minor types, each of which has its row in the table of messages. A row without a
  // handler is refused as unknown. The handler must outlive the service.
  void add(Handler &handler, std::initializer_list<uint16_t> minors);
  void add(Tap &tap) { taps_.push_back(&tap); }

  // A message as it came.
  void receive(const control::Request &message);
  // A message to a client, after it was sent or not.
  void delivered(int32_t pid, uint32_t iod, Outcome outcome, std::span<const std::byte> packet);
  // What was logged about this process is forgotten.
  void process_gone(int32_t pid);

  // By minor type, of what came; 0: messages of no kind that is known.
  [[nodiscard]] const std::map<uint16_t, MessageCounts> &counts() const { return counts_; }
  // Of packets to clients.
  [[nodiscard]] const MessageCounts &deliveries() const { return deliveries_; }

 private:
  Outcome check(const control::Request &message, const MessageKind **kind) const;
  Outcome bring_packet(const control::Request &message, const MessageKind &kind, Request *request);
  void count(const MessageKind *kind, size_t bytes, Outcome outcome);
  void tell(const Passed &what, std::span<const std::byte> packet);
  void log_refusal(const control::Request &message, const MessageKind *kind, Outcome outcome);

  References &references_;
  Allowed allowed_;
  std::map<uint16_t, Handler *> by_minor_;
  std::vector<Tap *> taps_;
  std::map<uint16_t, MessageCounts> counts_;
  MessageCounts deliveries_;
  std::set<std::pair<int32_t, Outcome>> logged_;  // by process
  std::vector<std::byte> packet_;                 // the one that is handled
  std::vector<std::byte> as_it_came_;             // for the taps, if there are any
};

}  // namespace ipd::packet

#endif
