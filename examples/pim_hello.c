// SPDX-License-Identifier: Apache-2.0
// PIM hellos (RFC 7761, 4.3) on one interface: tells the link's PIM routers that it is there, and says who they are.
//
//   pim_hello INTERFACE [PERIOD]    a hello every PERIOD seconds, 30 unless given; ends on ^C, with a goodbye
//
// All that it takes is libip: it registers with ipd for protocol 103, joins 224.0.0.13, hands its packets to ipd, and
// receives on a queue of its own. It chooses to have packets inside the messages: bytes, and no buffers to give back.
// When ipd is started again it registers and joins again.
#include <errno.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>

#include "im.h"
#include "ip_api.h"
#include "mbuf.h"
#include "mts.h"

enum { PIM = 103, IP_HEADER = 20, PIM_HEADER = 4, MOST_NEIGHBORS = 64 };
enum { VERSION_2_HELLO = 0x20, OPTION_HOLDTIME = 1, OPTION_DR_PRIORITY = 19, OPTION_GENERATION = 20 };
enum { DEFAULT_HOLDTIME = 105, HOLD_FOREVER = 0xffff };
static const uint32_t all_pim_routers = 0xe000000d;

struct hello {
  uint32_t holdtime;    // seconds that it holds for; 0: a goodbye
  uint32_t generation;  // another one than before: the router was started again
  uint32_t dr_priority;
};

struct neighbor {
  uint32_t address;  // 0: a free place
  struct hello hello;
  int64_t heard;
};

static volatile sig_atomic_t stopped;
static const char *interface_name;
static uint32_t iod, control_queue, data_queue;
static struct hello ours = {.dr_priority = 1};
static int64_t next_hello;
static struct neighbor neighbors[MOST_NEIGHBORS];

static void stop(int signal_number) {
  (void)signal_number;
  stopped = 1;
}

static int64_t seconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

static uint32_t get16(const uint8_t *at) {
  return (uint32_t)at[0] << 8 | at[1];
}

static uint32_t get32(const uint8_t *at) {
  return get16(at) << 16 | get16(at + 2);
}

static uint8_t *put16(uint8_t *at, uint32_t value) {
  at[0] = (uint8_t)(value >> 8);
  at[1] = (uint8_t)value;
  return at + 2;
}

static uint8_t *put32(uint8_t *at, uint32_t value) {
  return put16(put16(at, value >> 16), value & 0xffff);
}

// ------------------------------------------------------------------------------------------------------------ sending

static uint32_t find_interface(void) {
  for (uint32_t each = 0; (each = im_get_next_ext_if(each, IP_COMPONENT)) != 0;) {
    const char *name = im_get_if_name(each);
    if (name != NULL && strcmp(name, interface_name) == 0) return each;
  }
  return 0;
}

// False: ipd did not take it. What became of those that it took is shown by `ipsh show packets`.
static bool send_hello(uint32_t holdtime) {
  // An interface that was made anew has another iod. The membership needs no care: ipd keeps it by the name.
  iod = find_interface();
  const uint32_t source = ip_get_local_addr(iod);
  if (source == 0) return true;  // no address yet, or no interface: there is nothing to send from
  uint8_t bytes[26] = {VERSION_2_HELLO};
  uint8_t *at = bytes + PIM_HEADER;
  at = put16(put16(put16(at, OPTION_HOLDTIME), 2), holdtime);
  at = put32(put16(put16(at, OPTION_DR_PRIORITY), 4), ours.dr_priority);
  put32(put16(put16(at, OPTION_GENERATION), 4), ours.generation);
  struct mbuf *packet = m_gethdr();
  if (packet == NULL || m_append(packet, bytes, sizeof bytes) == 0) return m_freem(packet), false;
  const uint16_t checksum = in_cksum(packet, 0, sizeof bytes);
  memcpy(m_bytes(packet) + 2, &checksum, sizeof checksum);
  // The precedence of network control, and a TTL of 1: it stays on the link.
  packet = ip_build_header(packet, 0xc0, IP_HEADER + sizeof bytes, 1, PIM, source, all_pim_routers);
  return packet != NULL && ip_cl_output(iod, packet, 0, 0, 0, &ip_client) == 1;
}

// ---------------------------------------------------------------------------------------------------------- receiving

// False: no hello, or one with a part that is cut off.
static bool read_hello(const uint8_t *bytes, uint32_t length, struct hello *hello) {
  if (length < PIM_HEADER || bytes[0] != VERSION_2_HELLO || ip_checksum(bytes, length) != 0) return false;
  *hello = (struct hello){.holdtime = DEFAULT_HOLDTIME, .dr_priority = 1};
  uint32_t at = PIM_HEADER;
  for (uint32_t size; at + 4 <= length; at += 4 + size) {
    size = get16(bytes + at + 2);
    if (size > length - at - 4) return false;
    const uint32_t option = get16(bytes + at);
    if (option == OPTION_HOLDTIME && size == 2) hello->holdtime = get16(bytes + at + 4);
    if (option == OPTION_DR_PRIORITY && size == 4) hello->dr_priority = get32(bytes + at + 4);
    if (option == OPTION_GENERATION && size == 4) hello->generation = get32(bytes + at + 4);
  }
  return at == length;
}

// The neighbor with this address, or a free place when there is none; null: no room.
static struct neighbor *find_neighbor(uint32_t address) {
  struct neighbor *free_place = NULL;
  for (struct neighbor *each = neighbors; each < neighbors + MOST_NEIGHBORS; ++each) {
    if (each->address == address) return each;
    if (each->address == 0) free_place = each;
  }
  return free_place;
}

static void hear(uint32_t source, const struct hello *hello) {
  struct neighbor *from = find_neighbor(source);
  if (from == NULL) return;
  const bool is_known = from->address != 0;
  const bool is_same = is_known && from->hello.generation == hello->generation;
  if (is_known && hello->holdtime == 0) printf("neighbor %s gone: it said goodbye\n", ip_print_addr(source));
  *from = (struct neighbor){.address = hello->holdtime != 0 ? source : 0, .hello = *hello, .heard = seconds()};
  if (is_same || hello->holdtime == 0) return;
  printf("neighbor %s %s: holdtime %u, DR priority %u, generation %08x\n", ip_print_addr(source),
         is_known ? "started again" : "up", hello->holdtime, hello->dr_priority, hello->generation);
  // It does not know us yet. Not everybody is to answer at the same time.
  const int64_t soon = seconds() + ours.generation % 5;
  if (next_hello > soon) next_hello = soon;
}

static void forget_silent_neighbors(void) {
  for (struct neighbor *each = neighbors; each < neighbors + MOST_NEIGHBORS; ++each) {
    if (each->address == 0 || each->hello.holdtime == HOLD_FOREVER) continue;
    if (seconds() - each->heard <= each->hello.holdtime) continue;
    printf("neighbor %s gone: silent for %u s\n", ip_print_addr(each->address), each->hello.holdtime);
    each->address = 0;
  }
}

// A message of ipd's: a record that says where the packet came in, and the packet behind it. ipd gives whole packets
// with a good header.
static void take_packet(const uint8_t *message, uint32_t size) {
  struct ip_msg_input record;
  if (message == NULL || size < sizeof record + IP_HEADER) return;
  memcpy(&record, message, sizeof record);
  const uint8_t *packet = message + sizeof record;
  const uint32_t header = (packet[0] & 15u) * 4;
  const uint32_t source = get32(packet + 12);
  struct hello hello;
  if (record.iod != iod || record.packet_len > size - sizeof record || record.packet_len < header) return;
  if (source == 0 || ip_is_address_on_interface(source, iod) != 0) return;
  if (read_hello(packet + header, record.packet_len - header, &hello)) hear(source, &hello);
}

// Receives for a second at most. False: ipd is gone, and what it did for us with it.
static bool receive(void) {
  mts_msg_ref_t message;
  struct mts_recv_opts one_second = {{1, 0, 1}};
  if (mts_recv(data_queue, &message, &one_second) != 0) return errno != ECONNRESET;
  if (mts_opc_get(message) == IP_OPCODE_PACKET) take_packet(mts_payload_get(message), mts_payload_size(message));
  mts_drop(data_queue, message);
  return true;
}

// --------------------------------------------------------------------------------------------------------------- life

static bool enter(const char *name) {
  if (ip_register(name, data_queue, control_queue, PIM, 0, &ip_client, 0, 0) == 0) return false;
  iod = find_interface();
  next_hello = seconds();
  return ip_join_group(all_pim_routers, iod) == 1;
}

static int fail(const char *why) {
  fprintf(stderr, "pim_hello: %s\n", why);
  return 1;
}

static int run(uint32_t period) {
  char name[64];  // it is ours alone in the whole system
  snprintf(name, sizeof name, "pim_hello %s", interface_name);
  if (ip_api_init() == NULL) return fail("no ipd to ask: start it, or set RSW_RUN_DIR");
  if (find_interface() == 0) return fail("ipd knows no such interface");
  if (ip_client_set_recv_fn_with_tx_mts("take_packet") == 0 || ip_init_mts(&control_queue, -1) == 0 ||
      ip_init_mts(&data_queue, -1) == 0) {
    return fail("no queues to talk to ipd");
  }
  bool entered = enter(name);
  if (!entered) return fail("ipd refuses: not the right to configure, another pim_hello there, or no ipd");
  printf("hello on %s every %u s, generation %08x\n", interface_name, period, ours.generation);
  while (!stopped) {
    if (!entered && (entered = enter(name))) printf("ipd is back\n");
    if (entered && seconds() >= next_hello) {
      next_hello = seconds() + period;
      entered = send_hello(period * 7 / 2);
    }
    if (!receive() && entered) {
      printf("ipd is gone\n");
      entered = false;
    }
    forget_silent_neighbors();
  }
  send_hello(0);
  ip_leave_group(all_pim_routers, iod);
  ip_deregister(name, PIM, &ip_client);
  ip_api_close();
  return 0;
}

int main(int argc, char **argv) {
  const uint32_t period = argc == 3 ? (uint32_t)strtoul(argv[2], NULL, 10) : 30;
  if (argc < 2 || argc > 3 || argv[1][0] == '-' || period < 1 || period > 18000) {
    fprintf(stderr, "usage: pim_hello INTERFACE [PERIOD]    PERIOD: seconds from one hello to the next, 30\n");
    return 2;
  }
  interface_name = argv[1];
  setvbuf(stdout, NULL, _IOLBF, 0);
  const struct sigaction action = {.sa_handler = stop};  // without SA_RESTART: the wait for a message ends
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);
  if (getrandom(&ours.generation, sizeof ours.generation, 0) < 0) return fail("no random number");
  return run(period);
}
