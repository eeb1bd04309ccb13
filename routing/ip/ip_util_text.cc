// SPDX-License-Identifier: Apache-2.0
// Addresses as text.
//
// A ring of eight slots of 20 bytes, exported, for ip_print_addr and ip_print_prefix: eight results can stand in one
// debug or syslog call. The text is written first, then the counter moves on. inet_ntoa has a buffer of its own, so
// that a program's calls of the C library's function by that name do not use the ring up. Nothing is locked and nothing
// is allocated: two threads that format at once may get the same slot.
//
// Formatting is by table, four bytes per octet, since address text is made in inner loops: an entry holds the digits
// and the dot behind them, all four bytes are stored, and the next octet goes on behind the dot. The last store begins
// at most 12 bytes into an address and 16 bytes into a prefix, so 16 and 20 bytes of room are enough for any value of
// the octets and of the length.
#include <array>
#include <bit>
#include <cstring>

#include "ip_api.h"

extern "C" {

char ip_address_string[8][20];
int32_t ip_address_string_next;

}  // extern "C"

namespace {

struct OctetText {
  char digits_and_dot[4];  // "7.", "42." or "255."
};

using OctetTexts = std::array<OctetText, 256>;

constexpr OctetTexts make_octet_texts() {
  OctetTexts texts{};
  for (unsigned value = 0; value < texts.size(); value++) {
    char *to = texts[value].digits_and_dot;
    if (value >= 100) *to++ = static_cast<char>('0' + value / 100);
    if (value >= 10) *to++ = static_cast<char>('0' + value / 10 % 10);
    *to++ = static_cast<char>('0' + value % 10);
    *to = '.';
  }
  return texts;
}
constexpr OctetTexts octet_texts = make_octet_texts();

constexpr size_t digits(uint32_t octet) {
  return 1u + (octet >= 10 ? 1u : 0u) + (octet >= 100 ? 1u : 0u);
}

// Writes the octet's digits and a dot; four bytes of room. The place behind the dot.
char *put_octet(char *to, uint32_t octet) {
  std::memcpy(to, octet_texts[octet].digits_and_dot, sizeof(OctetText));
  return to + digits(octet) + 1;
}

// Writes "a.b.c.d." without a terminating NUL; 16 bytes of room. The place behind the last dot.
char *put_address(char *to, uint32_t addr) {
  to = put_octet(to, addr >> 24);
  to = put_octet(to, addr >> 16 & 0xffu);
  to = put_octet(to, addr >> 8 & 0xffu);
  return put_octet(to, addr & 0xffu);
}

// The slot whose turn it is.
char *ring_slot() {
  return ip_address_string[static_cast<uint32_t>(ip_address_string_next) & 7u];
}

// Unsigned, so that a process that formats for years goes on where the counter wraps.
void advance_ring() {
  ip_address_string_next = static_cast<int32_t>(static_cast<uint32_t>(ip_address_string_next) + 1u);
}

}  // namespace

extern "C" {

char *inet_ntoa(uint32_t addr_net) {
  static char text[16];
  const auto octets = std::bit_cast<std::array<uint8_t, 4>>(addr_net);
  char *to = text;
  for (const uint8_t octet : octets) to = put_octet(to, octet);
  to[-1] = '\0';
  return text;
}

char *ip_print_addr(uint32_t addr) {
  char *slot = ring_slot();
  put_address(slot, addr)[-1] = '\0';
  advance_ring();
  return slot;
}

char *ip_print_prefix(const ip_prefixtype *p) {
  char *slot = ring_slot();
  char *to = put_address(slot, p->addr);
  to[-1] = '/';
  put_octet(to, p->mask_len)[-1] = '\0';
  advance_ring();
  return slot;
}

}  // extern "C"
