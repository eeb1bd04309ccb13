// SPDX-License-Identifier: Apache-2.0
// Headers built in front of a packet, and single fields of a header that is there.
//
// What is refused differs on purpose in what becomes of the packet: ip_build_header leaves a refused one to its caller,
// udp_build_header frees it, as its callers hand the packet over with the call. Nothing here recomputes a checksum
// behind a changed field: a caller that changes several pays for one.
#include "byte_order.h"
#include "ip_api.h"
#include "ip_header.h"
#include "log.h"

namespace libip {
namespace {

constexpr uint16_t first_ephemeral_port = 49152;
constexpr uint32_t ephemeral_ports = 16383;  // 65535 is never drawn
constexpr uint16_t dont_fragment = 0x4000;

uint16_t ephemeral_port() {
  return static_cast<uint16_t>(first_ephemeral_port + ksink_trel_rand(0) % ephemeral_ports);
}

// Does the packet's first buffer hold a header without options?
bool holds_header(const struct mbuf *packet) {
  return packet != nullptr && packet->m_len >= ipv4_header_size;
}

// Network order into host order and back: the same exchange of bytes.
void swap_header(void *hdr) {
  if (hdr == nullptr) return;
  auto header = read_header<Ipv4Header>(hdr);
  header.identification = swapped16(header.identification);
  header.flags_and_offset = swapped16(header.flags_and_offset);
  header.total_length = swapped16(header.total_length);
  write_header(hdr, header);
}

}  // namespace
}  // namespace libip

extern "C" {

struct mbuf *ip_build_header(struct mbuf *packet, uint8_t tos, uint16_t total_len, uint8_t ttl, uint8_t proto,
                             uint32_t src, uint32_t dst) {
  using namespace libip;
  if (packet == nullptr || src == 0 || dst == 0) return nullptr;
  packet = m_prepend(packet, ipv4_header_size, 1);
  if (packet == nullptr) return nullptr;
  Ipv4Header header{
      .version_and_length = ipv4_version << 4 | ipv4_header_size / 4,
      .tos = tos,
      .total_length = swapped16(total_len),
      .identification = 0,
      .flags_and_offset = 0,
      .ttl = ttl,
      .protocol = proto,
      .checksum = 0,
      .source = swapped(src),
      .destination = swapped(dst),
  };
  header.checksum = ip_checksum(&header, sizeof header);
  write_header(packet->data.get(), header);
  return packet;
}

struct mbuf *udp_build_header(struct mbuf *packet, uint16_t sport, uint16_t dport, uint16_t payload_len,
                              uint32_t /*src*/, uint32_t /*dst*/, uint32_t reserved, uint32_t *hdr_len) {
  using namespace libip;
  if (packet == nullptr) return nullptr;
  if (dport == 0 || payload_len == 0 || reserved != 0) {
    m_freem(packet);
    return nullptr;
  }
  *hdr_len = 0;
  packet = m_prepend(packet, sizeof(UdpHeader), 1);
  if (packet == nullptr) return nullptr;
  write_header(packet->data.get(), UdpHeader{
                                       .source_port = swapped16(sport == 0 ? ephemeral_port() : sport),
                                       .destination_port = swapped16(dport),
                                       .length = swapped16(static_cast<uint16_t>(payload_len + sizeof(UdpHeader))),
                                       .checksum = 0,
                                   });
  *hdr_len = sizeof(UdpHeader);
  return packet;
}

void ip_hton_header(void *hdr) {
  libip::swap_header(hdr);
}

void ip_ntoh_header(void *hdr) {
  libip::swap_header(hdr);
}

uint32_t ip_get_ttl_from_packet(struct mbuf *packet, uint8_t *ttl) {
  using namespace libip;
  if (ttl == nullptr || !holds_header(packet)) return 0;
  *ttl = packet->data.get()[offsetof(Ipv4Header, ttl)];
  return 1;
}

uint32_t ip_set_ttl_in_packet(struct mbuf *packet, uint8_t ttl) {
  using namespace libip;
  if (ttl == 0 || !holds_header(packet)) return 0;
  packet->data.get()[offsetof(Ipv4Header, ttl)] = ttl;
  return 1;
}

uint32_t ip_set_df_in_packet(struct mbuf *packet) {
  using namespace libip;
  if (!holds_header(packet)) return 0;
  auto header = read_header<Ipv4Header>(packet->data.get());
  header.flags_and_offset |= dont_fragment;
  write_header(packet->data.get(), header);
  return 1;
}

uint32_t ip_packet_hdr_total_len(struct mbuf *packet) {
  using namespace libip;
  const uint8_t *bytes = packet == nullptr ? nullptr : packet->data.get();
  if (bytes == nullptr || version_of(bytes[0]) != ipv4_version) return 0;
  return swapped16(read_header<uint16_t>(bytes + offsetof(Ipv4Header, total_length)));
}

}  // extern "C"
