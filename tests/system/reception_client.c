// SPDX-License-Identifier: Apache-2.0
/* A client of the IP process that receives packets and hands packets in, step by step, and says on one line each what
 * came of it.
 *
 *   reference           packets travel by reference from now on; else inside the messages
 *   become UID
 *   attach              becomes a client, with a queue for packets and one for requests
 *   register NAME PROTOCOL
 *   deregister NAME PROTOCOL
 *   join|leave GROUP IF
 *   channel GROUP SOURCE IF
 *   packet HEX          the packet of what follows
 *   input|consume IF    consume: in a frame from 02:03:04:05:06:07
 *   replicate IF FLAG
 *   receive             until it is killed: says of each packet where it came in, how, its addresses, and its bytes
 *                       from the 21st to the 28th
 *   wait                for a USR1
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "mbuf.h"
#include "mts.h"
#include "step_packet.h"
#include "steps.h"

#define NO_QUEUE 0xffffffffu

static uint32_t control = NO_QUEUE;
static uint32_t data = NO_QUEUE;

static void say(const char *what, uint32_t result) {
  printf("%s %u\n", what, result);
  fflush(stdout);
}

static uint32_t attach(void) {
  if (ip_api_init() == NULL || ip_init_mts(&control, -1) == 0 || ip_init_mts(&data, -1) == 0) return 0;
  return 1;
}

static uint32_t consume(const char *interface) {
  const uint8_t source[6] = {2, 3, 4, 5, 6, 7};
  return ip_cl_consume(interface_of(interface), packet(), 0, source, &ip_client);
}

static void print_bytes(const uint8_t *from, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) printf("%02x", from[i]);
}

static void print_address(const uint8_t *from) {
  printf(" %u.%u.%u.%u", from[0], from[1], from[2], from[3]);
}

static uint32_t read_message(mts_msg_ref_t msg, struct ip_msg_input *record) {
  const uint32_t size = mts_payload_size(msg);
  const uint8_t *payload = mts_payload_get(msg);
  if (mts_opc_get(msg) != IP_OPCODE_PACKET || payload == NULL || size < sizeof *record) return 0;
  memcpy(record, payload, sizeof *record);
  length = size - (uint32_t)sizeof *record;
  if (record->packet_ref != 0) {
    struct mbuf *m = m_packet_at(record->packet_ref);
    if (m == NULL) return 0;
    length = m_length(m);
    if (length > sizeof bytes) return 0;
    (void)m_copydata(m, 0, (int32_t)length, bytes);
    m_freem(m);
  } else if (length <= sizeof bytes) {
    memcpy(bytes, payload + sizeof *record, length);
  }
  return length >= 20 && length <= sizeof bytes;
}

static void show(const struct ip_msg_input *record) {
  printf("packet iod %u context %u %s", record->iod, record->context_id,
         record->packet_ref != 0 ? "reference" : "segments");
  print_address(bytes + 12);
  print_address(bytes + 16);
  printf(" protocol %u length %u of %u from ", bytes[9], length, record->packet_len);
  print_bytes(record->src_l2_addr, 6);
  printf(" ");
  print_bytes(bytes + 20, length < 28 ? length - 20 : 8);
  printf("\n");
  fflush(stdout);
}

static void receive(void) {
  struct mts_recv_opts options = {{1}};
  say("receives", 1);
  while (1) {
    mts_msg_ref_t msg = NULL;
    if (mts_recv(data, &msg, &options) != 0) {
      if (errno == EINTR || errno == ECONNRESET) continue;
      say("lost the queue", (uint32_t)errno);
      exit(1);
    }
    struct ip_msg_input record;
    if (read_message(msg, &record) != 0) {
      show(&record);
    } else {
      say("no packet", mts_payload_size(msg));
    }
    mts_drop(data, msg);
  }
}

static void wait_for_signal(void) {
  sigset_t set;
  int number;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  sigwait(&set, &number);
}

static int step(char **words, int count) {
  const char *verb = words[0];
  if (strcmp(verb, "reference") == 0) {
    say(verb, ip_client_set_recv_fn("receive"));
  } else if (strcmp(verb, "attach") == 0) {
    say(verb, attach() != 0 ? ip_client_set_recv_fn_with_tx_mts("receive") : 0u);
  } else if (strcmp(verb, "receive") == 0) {
    receive();
  } else if (strcmp(verb, "wait") == 0) {
    say("waits", 1);
    wait_for_signal();
  } else if (count < 2) {
    return 0;
  } else if (strcmp(verb, "become") == 0) {
    const uid_t uid = (uid_t)atoi(words[1]);
    say(verb, setgid(uid) == 0 && setuid(uid) == 0 ? 1u : 0u);
    return 2;
  } else if (strcmp(verb, "packet") == 0) {
    read_packet(words[1]);
    return 2;
  } else if (strcmp(verb, "input") == 0) {
    say(verb, ip_cl_input(interface_of(words[1]), packet(), 0, &ip_client));
    return 2;
  } else if (strcmp(verb, "consume") == 0) {
    say(verb, consume(words[1]));
    return 2;
  } else if (count < 3) {
    return 0;
  } else if (strcmp(verb, "register") == 0) {
    say(verb, ip_register(words[1], data, control, (uint8_t)atoi(words[2]), 0, &ip_client, 0, 0));
    return 3;
  } else if (strcmp(verb, "deregister") == 0) {
    say(verb, (uint32_t)ip_deregister(words[1], (uint8_t)atoi(words[2]), &ip_client));
    return 3;
  } else if (strcmp(verb, "join") == 0) {
    say(verb, ip_join_group(address_of(words[1]), interface_of(words[2])));
    return 3;
  } else if (strcmp(verb, "leave") == 0) {
    say(verb, ip_leave_group(address_of(words[1]), interface_of(words[2])));
    return 3;
  } else if (strcmp(verb, "replicate") == 0) {
    say(verb, ip_send_replicate(packet(), interface_of(words[1]), 0, (uint8_t)atoi(words[2])));
    return 3;
  } else if (strcmp(verb, "channel") == 0 && count >= 4) {
    say(verb, ip_join_channel(address_of(words[1]), address_of(words[2]), interface_of(words[3])));
    return 4;
  } else {
    return 0;
  }
  return 1;
}

int main(int argc, char **argv) {
  /* Taken by sigwait only. */
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  sigprocmask(SIG_BLOCK, &set, NULL);
  return take_steps(argc, argv, step);
}
