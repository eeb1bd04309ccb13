// SPDX-License-Identifier: Apache-2.0
// A packet shown to a developer: a line for the packet, one per buffer, and its bytes below, 16 per line.
#include <algorithm>
#include <cstdio>

#include "log.h"
#include "mbuf.h"

namespace {

constexpr uint32_t bytes_per_line = 16;

uint32_t as_word(const void *pointer) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
}

void dump_bytes(const uint8_t *bytes, uint32_t length) {
  for (uint32_t at = 0; at < length; at += bytes_per_line) {
    char text[3 * bytes_per_line + 1];
    char *to = text;
    for (uint32_t i = at; i < std::min(length, at + bytes_per_line); i++) {
      to += snprintf(to, static_cast<size_t>(text + sizeof text - to), " %02x", bytes[i]);
    }
    buginf("    %04x:%s\n", at, text);
  }
}

}  // namespace

extern "C" {

void mbuf_dump(const char *title, struct mbuf *m, uint32_t /*zero1*/, uint32_t /*zero2*/) {
  if (m == nullptr) {
    buginf("%s: no packet\n", title);
    return;
  }
  buginf("%s: packet 0x%x, %u bytes\n", title, as_word(m), m_length(m));
  for (; m != nullptr; m = m->next.get()) {
    buginf("  buffer 0x%x: %u bytes, owner %d\n", as_word(m), m->m_len, m->owner);
    dump_bytes(m->data.get(), m->m_len);
  }
}

}  // extern "C"
