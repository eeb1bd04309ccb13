// SPDX-License-Identifier: Apache-2.0
/* A client that hands packets over as fast as the IP process takes them, and one that lies about them.
 *
 *   packet_flood send reference|segments IOD GROUP SIZE COUNT
 *       hands over COUNT packets to a multicast group; 0: until it is killed. Says "sending" after the first, and
 *       "sent N", how many of the calls said so
 *   packet_flood keep COUNT
 *       takes COUNT packets from the pool, says "kept N" and holds them until it is killed
 *   packet_flood lie UID SEED COUNT [ADDRESS ...]
 *       becomes that user and sends COUNT packet messages that are wrong in any way, among them references to these
 *       addresses; says "lied N", how many were sent. What it had from the pool it gives back.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "mbuf.h"
#include "mts.h"

static void say(const char *what, uint32_t number) {
  char line[64];
  const int length = snprintf(line, sizeof line, "%s %u\n", what, number);
  if (write(STDOUT_FILENO, line, (size_t)length) != length) _exit(4);
}

static uint32_t number_of(const char *text) {
  return (uint32_t)strtoul(text, NULL, 0);
}

/* Protocol 253 is for experiments (RFC 3692). Length, source and checksum are for the IP process to fill in. */
static struct mbuf *make_packet(uint32_t group, uint32_t size) {
  struct mbuf *packet = m_gethdr();
  if (packet == NULL) return NULL;
  uint8_t bytes[1500];
  memset(bytes, 0x5a, sizeof bytes);
  memset(bytes, 0, 20);
  bytes[0] = 0x45;
  bytes[8] = 1;
  bytes[9] = 253;
  const uint32_t group_net = htonl(group);
  memcpy(bytes + 16, &group_net, sizeof group_net);
  if (m_append(packet, bytes, size) == 1) return packet;
  m_freem(packet);
  return NULL;
}

static int send_packets(char **arguments) {
  if (ip_init_mts(&ip_client.data_q, -1) == 0) return 2;
  const uint32_t by_segments = strcmp(arguments[0], "segments") == 0;
  const uint32_t iod = number_of(arguments[1]);
  const uint32_t group = number_of(arguments[2]);
  const uint32_t size = number_of(arguments[3]);
  const uint32_t count = number_of(arguments[4]);
  ip_client.flags = by_segments ? IP_CLIENT_RECV_MTS : 0;
  uint32_t sent = 0;
  for (uint32_t i = 0; count == 0 || i < count; ++i) {
    struct mbuf *packet = make_packet(group, size);
    if (packet == NULL) return 3;
    sent += ip_cl_output(iod, packet, 0, 0, 0, &ip_client);
    if (i == 0) say("sending", 1);
  }
  say("sent", sent);
  return 0;
}

static int keep(char **arguments) {
  const uint32_t count = number_of(arguments[0]);
  uint32_t kept = 0;
  while (kept < count && m_gethdr() != NULL) ++kept;
  say("kept", kept);
  while (1) pause();
  return 0;
}

static uint32_t state;

static uint32_t random_word(void) {
  state = state * 1664525u + 1013904223u;
  return (state >> 16) | (state << 16);
}

/* A message that is good, but for what the next random number says. */
static uint32_t lie_once(const uint32_t *targets, uint32_t target_count) {
  static const uint16_t minors[] = {3, 4, 6, 11, 12, 18, 20, 25, 26, 30, 0, 5, 40, 0xffff};
  uint8_t message[IP_MSG_SIZE + 64];
  for (uint32_t i = 0; i < sizeof message; ++i) message[i] = (uint8_t)random_word();
  const uint16_t major = random_word() % 16 == 0 ? (uint16_t)random_word() : IP_MAJOR_CLIENT;
  const uint16_t minor = minors[random_word() % (sizeof minors / sizeof minors[0])];
  memcpy(message, &major, sizeof major);
  memcpy(message + 2, &minor, sizeof minor);
  struct mbuf *own = m_gethdr();
  uint32_t reference = random_word();
  switch (random_word() % 6) {
    case 0:
      break;
    case 1:
      reference = 0x74000000u + random_word() % (160u << 20);
      break;
    case 2:
      reference = target_count == 0 ? 0 : targets[random_word() % target_count];
      break;
    case 3:
      reference = (uint32_t)(uintptr_t)own + random_word() % 64;
      break;
    case 4: /* its own, damaged */
      reference = (uint32_t)(uintptr_t)own;
      if (own != NULL) {
        own->m_len = random_word();
        const uint32_t next = random_word() % 2 == 0 ? reference : random_word();
        memcpy(&own->next, &next, sizeof next);
      }
      break;
    default:
      reference = 0;
      break;
  }
  memcpy(message + 32, &reference, sizeof reference);
  struct mts_send_opts options = {{1}};
  const uint32_t size = random_word() % 3 == 0 ? random_word() % (uint32_t)sizeof message + 1 : IP_MSG_SIZE;
  const uint32_t opcode = random_word() % 16 == 0 ? random_word() : IP_OPCODE_PACKET;
  return mts_send(ip_client.data_q, IP_NODE_LOCAL, IP_SAP_PACKET, opcode, message, size, NULL, 0, &options) == 0;
}

static int lie(int count, char **arguments) {
  if (setgid(number_of(arguments[0])) != 0 || setuid(number_of(arguments[0])) != 0) return 2;
  /* Bound by that user: messages from another one's SAP do not arrive at all. */
  if (ip_init_mts(&ip_client.data_q, -1) == 0) return 2;
  state = number_of(arguments[1]);
  uint32_t targets[16];
  uint32_t target_count = 0;
  for (int i = 3; i < count && target_count < 16; ++i) targets[target_count++] = number_of(arguments[i]);
  uint32_t lied = 0;
  for (uint32_t i = number_of(arguments[2]); i > 0; --i) lied += lie_once(targets, target_count);
  say("lied", lied);
  return 0;
}

int main(int argc, char **argv) {
  if (ip_api_init() == NULL) return 2;
  int result = 2;
  if (argc == 7 && strcmp(argv[1], "send") == 0) result = send_packets(argv + 2);
  if (argc == 3 && strcmp(argv[1], "keep") == 0) result = keep(argv + 2);
  if (argc >= 5 && strcmp(argv[1], "lie") == 0) result = lie(argc - 2, argv + 2);
  ip_api_close();
  return result;
}
