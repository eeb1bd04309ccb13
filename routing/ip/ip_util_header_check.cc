// SPDX-License-Identifier: Apache-2.0
// Received headers: brought into one buffer, checked, recognised.
//
// Nothing of a received packet is believed before it lies in the first buffer. A pull-up may exchange that buffer, and
// frees the packet when it fails, so after each one there is another packet to go on with, or none. A check that fails
// frees the packet itself: who gets null has nothing left to free.
#include "byte_order.h"
#include "ip_api.h"
#include "ip_header.h"

namespace libip {
namespace {

constexpr uint8_t loopback_octet = 127;
constexpr uint8_t udp_protocol = 17;
constexpr uint16_t mpls_echo_port = 3503;  // RFC 8029

uint32_t header_length_in(const struct mbuf *packet) {
  return header_length_of(packet->data.get()[0]);
}

// Of a header that is all in the first buffer.
bool header_is_good(struct mbuf *packet, uint32_t header_length) {
  uint8_t *bytes = packet->data.get();
  if (ip_checksum(bytes, header_length) != 0) return false;
  ip_ntoh_header(bytes);
  if (read_header<Ipv4Header>(bytes).total_length < header_length) return false;
  ip_hton_header(bytes);
  return true;
}

}  // namespace
}  // namespace libip

extern "C" {

struct mbuf *ip_pullup_header(struct mbuf *packet, uint32_t whole) {
  using namespace libip;
  if (packet == nullptr) return nullptr;
  packet = with_contiguous(packet, ipv4_header_size);
  if (whole == 0 || packet == nullptr) return packet;
  return with_contiguous(packet, header_length_in(packet));
}

struct mbuf *ip_packet_is_valid(struct mbuf *packet) {
  using namespace libip;
  if (packet == nullptr) return nullptr;
  packet = with_contiguous(packet, ipv4_header_size);
  if (packet == nullptr) return nullptr;
  const uint32_t header_length = header_length_in(packet);
  if (version_of(packet->data.get()[0]) != ipv4_version || header_length < ipv4_header_size) {
    m_freem(packet);
    return nullptr;
  }
  packet = with_contiguous(packet, header_length);
  if (packet == nullptr) return nullptr;
  if (!header_is_good(packet, header_length)) {
    m_freem(packet);
    return nullptr;
  }
  return packet;
}

uint32_t ip_is_mpls_oam_echo_request_packet(struct mbuf **packet) {
  using namespace libip;
  if (packet == nullptr || *packet == nullptr) return 0;
  *packet = with_contiguous(*packet, ipv4_header_size);
  if (*packet == nullptr) return 0;
  const uint8_t *bytes = (*packet)->data.get();
  if (bytes[offsetof(Ipv4Header, destination)] != loopback_octet ||
      bytes[offsetof(Ipv4Header, protocol)] != udp_protocol)
    return 0;
  const uint32_t header_length = header_length_in(*packet);
  *packet = with_contiguous(*packet, header_length + static_cast<uint32_t>(sizeof(UdpHeader)));
  if (*packet == nullptr) return 0;
  const auto udp = read_header<UdpHeader>((*packet)->data.get() + header_length);
  return swapped16(udp.destination_port) == mpls_echo_port ? 1 : 0;
}

}  // extern "C"
