// SPDX-License-Identifier: Apache-2.0
// Who is to get packets, by IP protocol: the registrations whose key is a protocol number and that name a packet queue.
#ifndef IPD_PACKET_RECEIVERS_H
#define IPD_PACKET_RECEIVERS_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <vector>

#include "ipd/control/clients.h"
#include "ipd/packet/local.h"

namespace ipd::packet {

class Receivers {
 public:
  // A protocol that the first receiver wants, or that the last one wants no more.
  using Change = std::function<void(uint8_t protocol, bool wanted)>;

  void on_change(Change changed) { changed_ = std::move(changed); }

  // One that is for no packets is ignored.
  void add(const control::Registration &registration);
  void remove(const control::Registration &registration);

  // Each queue once, however many registrations name it. Good until the next add() or remove().
  [[nodiscard]] std::span<const Receiver> of(uint8_t protocol) const { return protocols_[protocol].each; }

 private:
  struct Protocol {
    std::map<uint32_t, Receiver> by_serial;
    std::vector<Receiver> each;
  };
  static void list(Protocol &protocol);

  std::array<Protocol, 256> protocols_;
  Change changed_;
};

}  // namespace ipd::packet

#endif
