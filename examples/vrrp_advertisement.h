// SPDX-License-Identifier: Apache-2.0
/* The one message of VRRP version 3 (RFC 5798, 5), for IPv4: making a packet of it, and reading one. */
#ifndef EXAMPLES_VRRP_ADVERTISEMENT_H
#define EXAMPLES_VRRP_ADVERTISEMENT_H

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "mbuf.h"

#define VRRP_ROUTERS 0xe0000012u /* 224.0.0.18 */

enum { VRRP_PROTOCOL = 112, VRRP_TTL = 255, VERSION_3_ADVERTISEMENT = 0x31, INTERNETWORK_CONTROL = 0xc0 };
enum { IP_HEADER = 20, PSEUDO_HEADER = 12, FIXED_PART = 8 };

/* Behind the pseudo-header that its checksum covers. In network order. */
struct advertisement {
  uint32_t source, destination;
  uint8_t zero, protocol;
  uint16_t length; /* of what follows */
  uint8_t version_type, vrid, priority, count;
  uint16_t interval; /* 12 bits: hundredths of a second */
  uint16_t checksum;
  uint32_t addresses[255];
};

/* The packet: from `source`, with what `out` says of vrid, priority, interval, count and addresses. Null: no buffer. */
static inline struct mbuf *make_advertisement(struct advertisement *out, uint32_t source) {
  const uint32_t length = FIXED_PART + 4u * out->count;
  out->source = htonl(source);
  out->destination = htonl(VRRP_ROUTERS);
  out->zero = 0;
  out->protocol = VRRP_PROTOCOL;
  out->length = htons((uint16_t)length);
  out->version_type = VERSION_3_ADVERTISEMENT;
  out->checksum = 0;
  out->checksum = ip_checksum(out, PSEUDO_HEADER + length);
  struct mbuf *packet = m_gethdr();
  if (packet != NULL && m_append(packet, &out->version_type, length) == 0) {
    m_freem(packet);
    packet = NULL;
  }
  return ip_build_header(packet, INTERNETWORK_CONTROL, (uint16_t)(IP_HEADER + length), VRRP_TTL, VRRP_PROTOCOL, source,
                         VRRP_ROUTERS);
}

/* Reads a packet and checks it (RFC 5798, 7.1). What is wrong with it; null: nothing. */
static inline const char *read_advertisement(const uint8_t *packet, uint32_t size, struct advertisement *in) {
  const uint32_t header = size == 0 ? 0 : 4u * (packet[0] & 15u);
  if (header < IP_HEADER || size < header + FIXED_PART) return "it is too short";
  const uint8_t *message = packet + header;
  const uint32_t length = FIXED_PART + 4u * message[3];
  if (packet[8] != VRRP_TTL) return "its TTL is not 255: it was forwarded";
  if (message[0] != VERSION_3_ADVERTISEMENT) return "it is no advertisement of version 3";
  if (message[3] == 0 || size != header + length) return "it is not as long as its addresses are many";
  memcpy(&in->source, packet + 12, sizeof in->source);
  memcpy(&in->destination, packet + 16, sizeof in->destination);
  in->zero = 0;
  in->protocol = VRRP_PROTOCOL;
  in->length = htons((uint16_t)length);
  memcpy(&in->version_type, message, length);
  return ip_checksum(in, PSEUDO_HEADER + length) == 0 ? NULL : "its checksum is wrong";
}

#endif
