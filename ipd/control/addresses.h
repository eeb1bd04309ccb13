// SPDX-License-Identifier: Apache-2.0
// IP_MSG_CONFIG_ADDRESS: an address for an interface, out of the kernel's hands, or its end.
#ifndef IPD_CONTROL_ADDRESSES_H
#define IPD_CONTROL_ADDRESSES_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <set>
#include <utility>

#include "ip_msg.h"
#include "ipd/control/box.h"
#include "ipd/control/handler.h"
#include "ipd/control/transport.h"
#include "ipd/kernel/address_requests.h"

namespace ipd::control {

class Addresses final : public Handler {
 public:
  static constexpr size_t most_waiting = 256;              // requests that are not answered yet
  static constexpr size_t most_waiting_of_a_process = 32;  // of them
  static constexpr auto patience = std::chrono::seconds(5);

  // Is called with an ifindex and an address that the kernel has just been given.
  using Announce = std::function<void(uint32_t ifindex, uint32_t addr)>;

  Addresses(const Box &box, kernel::AddressRequests &kernel, Transport &transport, Announce announce = nullptr)
      : box_(box), kernel_(kernel), transport_(transport), announce_(std::move(announce)) {}

  Refusal handle(const Request &request) override;
  void refused(const Request &request, Refusal reason) override;
  void process_gone(int32_t pid) override;
  void queue_gone(const Sender &sender) override;
  void interfaces_changed(const std::set<uint32_t> &ifindexes) override;
  void tick(Clock::time_point now) override;

  [[nodiscard]] size_t waiting() const { return waiting_.size(); }

 private:
  struct Answer {
    uint8_t status = IP_CONFIG_STATUS_DONE;
    uint32_t result = 0;
  };
  struct Wait {
    Sender sender;
    bool wants_reply = false;
    bool removes = false;
    uint32_t iod = 0, context_id = 0, addr = 0;
    uint8_t mask_len = 0;
    std::optional<Answer> answer;             // it is known, and there was no room for it
    std::optional<Clock::time_point> latest;  // set at the first tick
  };

  // Nothing: the kernel did it, and it is not published yet.
  [[nodiscard]] std::optional<Answer> configure(const Request &request, const ip_msg_config_address &asked);
  [[nodiscard]] bool busy(int32_t pid) const;
  [[nodiscard]] uint32_t overlapping(const InterfaceFacts &facts, uint32_t addr, uint8_t mask_len) const;
  [[nodiscard]] std::optional<Answer> outcome(const Wait &wait) const;
  [[nodiscard]] int reply(const Sender &sender, const Answer &answer);
  bool answer_now(const Sender &sender, const Answer &answer);
  void settle();

  const Box &box_;
  kernel::AddressRequests &kernel_;
  Transport &transport_;
  Announce announce_;  // null: nobody wants to know
  std::list<Wait> waiting_;
};

}  // namespace ipd::control

#endif
