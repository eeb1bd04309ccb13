// SPDX-License-Identifier: Apache-2.0
// The packet that a client's steps are about.
#ifndef TESTS_SYSTEM_STEP_PACKET_H
#define TESTS_SYSTEM_STEP_PACKET_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "mbuf.h"

static uint8_t bytes[65535];
static uint32_t length;

static inline void read_packet(const char *hex) {
  length = 0;
  for (; hex[0] != '\0' && hex[1] != '\0' && length < sizeof bytes; hex += 2) {
    const char pair[3] = {hex[0], hex[1], '\0'};
    bytes[length++] = (uint8_t)strtoul(pair, NULL, 16);
  }
}

static inline struct mbuf *packet(void) {
  struct mbuf *made = m_gethdr();
  if (made != NULL && m_append(made, bytes, length) == 1) return made;
  m_freem(made);
  fprintf(stderr, "no buffers\n");
  exit(3);
}

#endif
