// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/announcement.h"

#include "ipd/packet/ethernet.h"

namespace ipd::packet {
namespace {

constexpr uint16_t type_arp = 0x0806, of_ethernet = 1, request = 1;
constexpr size_t arp_length = 28;
constexpr uint8_t protocol_address_length = 4;

}  // namespace

std::vector<std::byte> announcement_of(uint32_t addr, const MacAddress &holder) {
  std::vector<std::byte> frame(ethernet::header_length + arp_length);
  const auto bytes = ipv4::WritableBytes(frame);
  ethernet::write_destination(bytes, ethernet::everybody);
  ethernet::write_destination(bytes.subspan(ethernet::address_length), holder);
  ipv4::write16(bytes, 12, type_arp);
  const auto arp = bytes.subspan(ethernet::header_length);
  ipv4::write16(arp, 0, of_ethernet);
  ipv4::write16(arp, 2, ethernet::type_ipv4);
  ipv4::write8(arp, 4, ethernet::address_length);
  ipv4::write8(arp, 5, protocol_address_length);
  ipv4::write16(arp, 6, request);
  ethernet::write_destination(arp.subspan(8), holder);
  ipv4::write32(arp, 14, addr);
  ipv4::write32(arp, 24, addr);  // whose Ethernet address is wanted: nobody is to answer
  return frame;
}

void Announcements::announce(uint32_t ifindex, uint32_t addr) {
  const auto holder = links_.ethernet_address(ifindex);
  if (holder) (void)frames_.send(ifindex, announcement_of(addr, *holder));
}

}  // namespace ipd::packet
