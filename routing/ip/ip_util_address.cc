// SPDX-License-Identifier: Apache-2.0
// Addresses, masks and prefixes: conversions and tests without state.
//
// Host order everywhere. The functions are single expressions, since walks over address trees call them for every node.
// One calls another through its exported entry (ip_address_martian asks ip_prefix_martian), so a program that puts its
// own definition in front changes both. Shift counts are taken modulo 32, as the processor does, so a length beyond 32
// has a result, though no meaning.
#include <bit>

#include "ip_api.h"

namespace {

constexpr uint32_t limited_broadcast = 0xffffffffu;
constexpr uint32_t loopback_octet = 127;

constexpr uint32_t top_octet(uint32_t addr) {
  return addr >> 24;
}

// Bits below the prefix: 0 .. 31 for lengths 1 .. 32.
constexpr uint32_t host_bits(uint8_t len) {
  return (32u - len) & 31u;
}

constexpr uint32_t truth(bool holds) {
  return holds ? 1 : 0;
}

}  // namespace

extern "C" {

uint32_t ip_bits2mask(uint8_t len) {
  return len == 0 ? 0 : ~0u << host_bits(len);
}

uint32_t ip_wildcard_mask(uint8_t len) {
  return len == 0 ? 0 : (1u << host_bits(len)) - 1u;
}

uint8_t ip_mask2bits(uint32_t mask) {
  return mask == 0 ? uint8_t{0} : static_cast<uint8_t>(32 - std::countr_zero(mask));
}

uint32_t ip_bytesinmask(uint32_t mask) {
  if ((mask & 0x000000ffu) != 0) return 4;
  if ((mask & 0x0000ff00u) != 0) return 3;
  return (mask & 0x00ff0000u) != 0 ? 2 : 1;
}

uint32_t ip_natural_mask(uint32_t addr) {
  if ((addr & 0x80000000u) == 0) return 0xff000000u;
  if ((addr & 0x40000000u) == 0) return 0xffff0000u;
  return (addr & 0x20000000u) == 0 ? 0xffffff00u : 0;
}

uint32_t ip_prefix_martian(uint32_t addr) {
  return truth(top_octet(addr) == loopback_octet || addr == limited_broadcast || (top_octet(addr) == 0 && addr != 0));
}

uint32_t ip_address_martian(uint32_t addr) {
  return top_octet(addr) == 0 ? 1 : ip_prefix_martian(addr);
}

uint32_t ip_is_addr_broadcast(uint32_t addr, uint32_t mask) {
  return truth((addr & ~mask) == 0 || (addr | mask) == 0xffffffffu || addr == limited_broadcast);
}

uint32_t ip_is_addr_multicast(uint32_t addr) {
  return truth((addr & 0xf0000000u) == 0xe0000000u);
}

// Contiguous from the top: the inverse is all ones from the bottom, so adding one carries out of all of them.
uint32_t ip_is_mask_contiguous(uint32_t mask) {
  return truth((~mask & (~mask + 1u)) == 0);
}

uint32_t ip_get_broadcast_address(uint32_t addr, uint8_t len) {
  return addr == 0 ? 0 : addr | ~ip_bits2mask(len);
}

uint32_t ip_is_addr_in_prefix(uint32_t addr, uint32_t prefix, uint8_t len) {
  return truth(((addr ^ prefix) & ip_bits2mask(len)) == 0);
}

void ip_get_mac_multicast(uint32_t group, uint8_t *mac) {
  mac[0] = 0x01;
  mac[1] = 0x00;
  mac[2] = 0x5e;
  mac[3] = static_cast<uint8_t>((group >> 16) & 0x7fu);
  mac[4] = static_cast<uint8_t>(group >> 8);
  mac[5] = static_cast<uint8_t>(group);
}

uint32_t ip_match_prefix(const ip_prefixtype *a, const ip_prefixtype *b) {
  return truth(a->mask_len == b->mask_len && a->addr == b->addr);
}

void ip_copy_prefix(const ip_prefixtype *src, ip_prefixtype *dst) {
  dst->addr = src->addr;
  dst->mask_len = src->mask_len;
}

uint32_t ip_is_syslog_svr_address(uint32_t) {
  return 0;
}

}  // extern "C"
