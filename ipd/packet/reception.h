// SPDX-License-Identifier: Apache-2.0
// Packets that the kernel receives for this system, to the clients that registered for their protocol.
#ifndef IPD_PACKET_RECEPTION_H
#define IPD_PACKET_RECEPTION_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>

#include "ipd/control/box.h"
#include "ipd/kernel/raw_reception.h"
#include "ipd/packet/local.h"

namespace ipd::packet {

struct ReceptionCounts {
  uint64_t received = 0;           // handed on
  uint64_t unknown_interface = 0;  // came in by an interface that is not published
  uint64_t malformed = 0;          // cut off, or no IPv4 packet of the length that it says
  uint64_t reentered = 0;          // we put them in ourselves
  bool operator==(const ReceptionCounts &) const = default;
};

class Reception {
 public:
  using Clock = std::chrono::steady_clock;
  // Those that were not handed on, and why; none of those that reentered.
  using Dropped = std::function<void(uint32_t iod, Outcome outcome, std::span<const std::byte> packet)>;

  static constexpr size_t packets_in_a_row = 64;
  static constexpr auto retry_period = std::chrono::seconds(1);

  // All outlive it.
  Reception(const control::Box &box, kernel::RawReception &sockets, LocalDelivery &delivery, Dropped dropped)
      : box_(box), sockets_(sockets), delivery_(delivery), dropped_(std::move(dropped)) {}

  // Packets of this protocol are received from now on, or not any more.
  void want(uint8_t protocol, bool wanted);
  // What comes in by this interface is not delivered: it was already. 0: there is none.
  void ignore(uint32_t ifindex) { ignored_ = ifindex; }
  // Takes some of those that wait.
  void read();
  void interfaces_changed() { places_.clear(); }
  // Tries again what failed.
  void tick(Clock::time_point now);

  [[nodiscard]] const ReceptionCounts &counts() const { return counts_; }

 private:
  struct Place {
    uint32_t iod = 0;  // 0: there is no such interface
    uint32_t context_id = 0;
  };
  Place place_of(uint32_t ifindex);
  void open(uint8_t protocol);
  void take(const kernel::RawPacket &packet);

  const control::Box &box_;
  kernel::RawReception &sockets_;
  LocalDelivery &delivery_;
  Dropped dropped_;
  std::map<uint32_t, Place> places_;  // by ifindex, of interfaces that packets came in by
  uint32_t ignored_ = 0;
  std::set<uint8_t> missing_;  // wanted, and not received
  Clock::time_point next_retry_{};
  std::optional<int> said_;  // the error that was logged last
  ReceptionCounts counts_;
};

}  // namespace ipd::packet

#endif
