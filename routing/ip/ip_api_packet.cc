// SPDX-License-Identifier: Apache-2.0
// What stands beside the packet calls: the mark for a restart, the source address towards a destination, a bare IPv4
// header, the kind of a destination.
#include "byte_order.h"
#include "carriage.h"
#include "ip_header.h"
#include "report.h"

namespace libip {
namespace {

constexpr uint8_t version_4_without_options = 0x45;
constexpr uint8_t highest_ttl = 255;
constexpr uint32_t loopback = 0x7f000001;
constexpr uint32_t limited_broadcast = 0xffffffff;

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_dont_forward_ra_on_restart(const char *name, uint8_t number, struct ip_client *client, uint32_t interval) {
  using namespace libip;
  if (dbg_ip_api_misc != 0) {
    debug_line("ip_dont_forward_ra_on_restart (%s %d 0x%x ivl %lu)\n", name != nullptr ? name : "(null)", number,
               shown_address(client), static_cast<unsigned long>(interval));
  }
  if (client == nullptr) {
    debug_refusal("ip_dont_forward_ra_on_restart", "bad client");
    return 0;
  }
  client->reg_aux8 = 1;
  client->reg_aux32 = interval;
  return 1;
}

uint32_t ip_local_from_remote(uint32_t context_id, uint32_t remote_net) {
  using namespace libip;
  const uint32_t remote = swapped(remote_net);
  if (remote == loopback) return loopback;  // host order, like every answer
  if (ip_address_martian(remote) != 0) return 0;
  uint32_t iod = 0;
  return ip_get_route(context_id, remote_net, &iod);
}

uint32_t ip_l3_encap(void *hdr, uint16_t total_len, uint8_t proto, uint32_t src, uint32_t dst) {
  using namespace libip;
  write_header(hdr, Ipv4Header{.version_and_length = version_4_without_options,
                               .tos = 0,
                               .total_length = total_len,  // in network order already
                               .identification = 0,
                               .flags_and_offset = 0,
                               .ttl = highest_ttl,
                               .protocol = proto,
                               .checksum = 0,
                               .source = swapped(src),
                               .destination = swapped(dst)});
  return 1;
}

uint32_t ip_packet_stats_type(uint32_t addr, uint32_t iod) {
  if (ip_is_addr_multicast(addr) != 0) return IP_PACKET_MULTICAST;
  if (addr == libip::limited_broadcast) return IP_PACKET_BROADCAST;
  return ip_is_addr_directed_broadcast(addr, iod) != 0 ? IP_PACKET_BROADCAST : IP_PACKET_UNICAST;
}

}  // extern "C"
