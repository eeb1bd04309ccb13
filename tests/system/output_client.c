// SPDX-License-Identifier: Apache-2.0
// A client of the IP process that hands it packets, step by step, and says on one line each what came of it.
//
//   attach CARRIAGE                   becomes a client, with a queue for packets; "segments": they travel inside the
//                                     messages, else by reference
//   packet HEX                        the packet of what follows
//   ah SPI SEQUENCE KEY SRC DST HEX   the same: these data behind an authentication header (HMAC-MD5)
//   output IF HOP CONTEXT FLAGS
//   from MAC IF HOP CONTEXT FLAGS     the same, with a source of the frame
//   l2 IF HOP VLAN MAC FLAGS          - for a MAC that is not given
//   mvr IF HOP VLAN MAC FLAGS
//   dce IF HOP VLAN MAC FLAGS MAC     with the source of the frame last
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "mbuf.h"
#include "step_packet.h"
#include "steps.h"

#define NO_QUEUE 0xffffffffu

static void say(const char *what, uint32_t result) {
  printf("%s %u\n", what, result);
  fflush(stdout);
}

static uint32_t number_of(const char *text) {
  return (uint32_t)strtoul(text, NULL, 0);
}

static const uint8_t *mac_of(const char *text, uint8_t *room) {
  unsigned words[6];
  if (strcmp(text, "-") == 0) return NULL;
  if (sscanf(text, "%x:%x:%x:%x:%x:%x", words, words + 1, words + 2, words + 3, words + 4, words + 5) != 6) exit(2);
  for (int i = 0; i < 6; ++i) room[i] = (uint8_t)words[i];
  return room;
}

/* Data of the same length and on the same place as the library's callers have them: behind the header, in one buffer.
 */
static void read_authenticated(char **words) {
  read_packet(words[5]);
  uint8_t room[28 + 512];
  const uint32_t data_len = length;
  if (data_len > 512 || strlen(words[2]) != 16) exit(2);
  memcpy(room + 28, bytes, data_len);
  ip_build_ah_header(room, 253, number_of(words[0]), number_of(words[1]), data_len, words[2], 1);
  memcpy(bytes, room, 28 + data_len);
  length = 28 + data_len;
  struct mbuf *whole =
      ip_build_header(packet(), 0, (uint16_t)(20 + length), 64, 51, address_of(words[3]), address_of(words[4]));
  if (whole == NULL) exit(3);
  length = m_length(whole);
  if ((m_copydata(whole, 0, (int32_t)length, bytes) & 0xffff) != 0) exit(3);
  m_freem(whole);
}

static uint32_t attach(const char *carriage) {
  uint32_t queue = NO_QUEUE;
  if (ip_api_init() == NULL || ip_init_mts(&queue, -1) == 0) return 0;
  const uint32_t chosen =
      strcmp(carriage, "segments") == 0 ? ip_client_set_recv_fn_with_tx_mts("output") : ip_client_set_recv_fn("output");
  if (chosen == 0) return 0;
  return ip_register("output", queue, NO_QUEUE, 253, 0, &ip_client, 0, 0);
}

static uint32_t output(char **words) {
  return ip_cl_output(interface_of(words[0]), packet(), address_of(words[1]), (int32_t)number_of(words[2]),
                      number_of(words[3]), &ip_client);
}

static uint32_t output_from(char **words) {
  uint8_t source[6];
  return ip_cl_output_src_l2_addr(interface_of(words[1]), packet(), address_of(words[2]), (int32_t)number_of(words[3]),
                                  number_of(words[4]), &ip_client, mac_of(words[0], source));
}

static uint32_t output_l2(const char *verb, char **words) {
  uint8_t destination[6];
  uint8_t source[6];
  const uint32_t iod = interface_of(words[0]);
  const uint32_t next_hop = address_of(words[1]);
  const uint32_t vlan = number_of(words[2]);
  const uint8_t *to = mac_of(words[3], destination);
  const uint32_t flags = number_of(words[4]);
  if (strcmp(verb, "l2") == 0) return ip_cl_output_l2(packet(), iod, next_hop, vlan, 0, 1, to, flags);
  if (strcmp(verb, "mvr") == 0) return ip_cl_output_l2_mvr(packet(), iod, next_hop, vlan, 0, 1, to, flags);
  return ip_cl_output_l2_dce(packet(), iod, next_hop, vlan, 1, to, 7, 8, 9, 10, 11, 12, 13, 14,
                             mac_of(words[5], source), 112, 108);
}

static int step(char **words, int count) {
  const char *verb = words[0];
  if (strcmp(verb, "attach") == 0 && count >= 2) {
    say(verb, attach(words[1]));
    return 2;
  }
  if (strcmp(verb, "packet") == 0 && count >= 2) {
    read_packet(words[1]);
    return 2;
  }
  if (strcmp(verb, "ah") == 0 && count >= 7) {
    read_authenticated(words + 1);
    return 7;
  }
  if (strcmp(verb, "output") == 0 && count >= 5) {
    say(verb, output(words + 1));
    return 5;
  }
  if (strcmp(verb, "from") == 0 && count >= 6) {
    say(verb, output_from(words + 1));
    return 6;
  }
  if ((strcmp(verb, "l2") == 0 || strcmp(verb, "mvr") == 0) && count >= 6) {
    say(verb, output_l2(verb, words + 1));
    return 6;
  }
  if (strcmp(verb, "dce") == 0 && count >= 7) {
    say(verb, output_l2(verb, words + 1));
    return 7;
  }
  return 0;
}

int main(int argc, char **argv) {
  return take_steps(argc, argv, step);
}
