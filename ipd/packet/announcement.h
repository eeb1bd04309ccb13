// SPDX-License-Identifier: Apache-2.0
// Telling the neighbours on a link that an address is here from now on: those that know another holder of it, as when a
// shared address moves from one router to the next, send to this one at once.
#ifndef IPD_PACKET_ANNOUNCEMENT_H
#define IPD_PACKET_ANNOUNCEMENT_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ipd/kernel/packet_output.h"
#include "ipd/packet/links.h"

namespace ipd::packet {

// The frame of an ARP announcement (RFC 826; RFC 5227, 2.3): a request to everybody, from and about the address.
[[nodiscard]] std::vector<std::byte> announcement_of(uint32_t addr, const MacAddress &holder);

class Announcements {
 public:
  // Both outlive it.
  Announcements(const Links &links, kernel::PacketOutput &frames) : links_(links), frames_(frames) {}

  // Sends one by the interface, if its link has Ethernet addresses. Nobody is told when it cannot leave: it is a help.
  void announce(uint32_t ifindex, uint32_t addr);

 private:
  const Links &links_;
  kernel::PacketOutput &frames_;
};

}  // namespace ipd::packet

#endif
