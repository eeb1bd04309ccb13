// SPDX-License-Identifier: Apache-2.0
// OSPF hellos (RFC 2328, 9.5 and 10.5) on one broadcast network, in area 0: says in which state each neighbor is, up to
// 2-Way, where both have heard of each other.
//
//   ospf_hello INTERFACE ROUTER-ID [HELLO DEAD]    intervals in seconds, 10 and 40 unless given; ends on ^C
//
// Its priority is 0: it never becomes a designated router, and with neighbors that are none either 2-Way is as far as
// OSPF goes. One that is wants more (an exchange of databases), which this program does not answer.
//
// All that it takes is libip: it registers with ipd for protocol 89, joins 224.0.0.5, hands its packets to ipd, and
// receives on a queue of its own. Packets travel by reference, which copies none: who receives one owns its buffers.
// When ipd is started again it registers and joins again.
#include <errno.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "im.h"
#include "ip_api.h"
#include "mbuf.h"
#include "mts.h"

enum { OSPF = 89, IP_HEADER = 20, HELLO = 44, MOST_NEIGHBORS = 64, LONGEST_HELLO = HELLO + 4 * 1024 };
enum { VERSION = 2, TYPE_HELLO = 1, OPTION_EXTERNAL = 2 };
static const uint32_t all_ospf_routers = 0xe0000005;

struct neighbor {
  uint32_t address;  // 0: a free place
  uint32_t router_id;
  uint32_t designated, backup;  // as it says
  bool is_two_way;
  int64_t heard;
};

static volatile sig_atomic_t stopped;
static const char *interface_name;
static uint32_t router_id, hello_interval = 10, dead_interval = 40;
static uint32_t iod, control_queue, data_queue;
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

// We take no part in the election of the two: they are who says so of itself and knows us.
static void find_designated(uint32_t *designated, uint32_t *backup) {
  *designated = *backup = 0;
  for (const struct neighbor *each = neighbors; each < neighbors + MOST_NEIGHBORS; ++each) {
    if (!each->is_two_way) continue;
    if (each->designated == each->address) *designated = each->address;
    if (each->backup == each->address) *backup = each->address;
  }
}

static uint32_t write_hello(uint8_t *bytes) {
  uint32_t designated;
  uint32_t backup;
  find_designated(&designated, &backup);
  memset(bytes, 0, HELLO);
  bytes[0] = VERSION;
  bytes[1] = TYPE_HELLO;
  put32(bytes + 4, router_id);  // area, checksum and authentication stay zero
  uint8_t *at = put16(put32(bytes + 24, ip_get_local_mask(iod)), hello_interval);
  *at = OPTION_EXTERNAL;  // priority 0 behind it
  at = put32(put32(put32(at + 2, dead_interval), designated), backup);
  for (const struct neighbor *each = neighbors; each < neighbors + MOST_NEIGHBORS; ++each) {
    if (each->address != 0) at = put32(at, each->router_id);
  }
  put16(bytes + 2, (uint32_t)(at - bytes));
  return (uint32_t)(at - bytes);
}

// False: ipd did not take it. What became of those that it took is shown by `ipsh show packets`.
static bool send_hello(void) {
  // An interface that was made anew has another iod. The membership needs no care: ipd keeps it by the name.
  iod = find_interface();
  const uint32_t source = ip_get_local_addr(iod);
  if (source == 0) return true;  // no address yet, or no interface: there is nothing to send from
  uint8_t bytes[HELLO + 4 * MOST_NEIGHBORS];
  const uint32_t length = write_hello(bytes);
  struct mbuf *packet = m_gethdr();
  if (packet == NULL || m_append(packet, bytes, length) == 0) return m_freem(packet), false;
  const uint16_t checksum = in_cksum(packet, 0, (int32_t)length);
  memcpy(m_bytes(packet) + 12, &checksum, sizeof checksum);
  // The precedence of network control, and a TTL of 1: it stays on the link.
  packet = ip_build_header(packet, 0xc0, (uint16_t)(IP_HEADER + length), 1, OSPF, source, all_ospf_routers);
  return packet != NULL && ip_cl_output(iod, packet, 0, 0, 0, &ip_client) == 1;
}

// ---------------------------------------------------------------------------------------------------------- receiving

// Why a neighbor's hello is none that counts; null: it counts.
static const char *objection(const uint8_t *bytes) {
  if (get32(bytes + 8) != 0) return "it is in another area";
  if (get32(bytes + 24) != ip_get_local_mask(iod)) return "its network mask differs";
  if (get16(bytes + 28) != hello_interval) return "its hello interval differs";
  if (get32(bytes + 32) != dead_interval) return "its dead interval differs";
  if ((bytes[30] & OPTION_EXTERNAL) == 0) return "its area is a stub";
  if (get32(bytes + 4) == router_id) return "it has our router id";
  return NULL;
}

static bool names_us(const uint8_t *bytes) {
  for (uint32_t at = HELLO; at + 4 <= get16(bytes + 2); at += 4) {
    if (get32(bytes + at) == router_id) return true;
  }
  return false;
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

static void print_state(const struct neighbor *of, const char *state) {
  printf("neighbor %s at %s: %s\n", ip_print_addr(of->router_id), ip_print_addr(of->address), state);
}

static void hear(uint32_t source, const uint8_t *bytes) {
  struct neighbor *from = find_neighbor(source);
  if (from == NULL) return;
  const struct neighbor before = *from;
  *from = (struct neighbor){.address = source,
                            .router_id = get32(bytes + 4),
                            .designated = get32(bytes + 36),
                            .backup = get32(bytes + 40),
                            .is_two_way = names_us(bytes),
                            .heard = seconds()};
  const bool is_known = before.address != 0 && before.router_id == from->router_id;
  if (is_known && before.is_two_way == from->is_two_way) return;
  print_state(from, from->is_two_way ? "2-Way" : "Init");
  if (!is_known) next_hello = seconds();  // it is to hear soon that it was heard
}

static void forget_silent_neighbors(void) {
  for (struct neighbor *each = neighbors; each < neighbors + MOST_NEIGHBORS; ++each) {
    if (each->address == 0 || seconds() - each->heard <= dead_interval) continue;
    print_state(each, "Down");
    *each = (struct neighbor){0};
  }
}

// Copies the OSPF part of a packet if it is a hello, without authentication, that is whole and as its sender made it.
// What stands behind that part, as some routers have it, is no part of the hello.
static bool read_hello(struct mbuf *packet, int32_t header, uint8_t *bytes) {
  if ((m_copydata(packet, header, HELLO, bytes) & 0xffff) != 0) return false;
  const int32_t length = (int32_t)get16(bytes + 2);
  if (bytes[0] != VERSION || bytes[1] != TYPE_HELLO || get16(bytes + 14) != 0) return false;
  if (length < HELLO || length > LONGEST_HELLO || (m_copydata(packet, header, length, bytes) & 0xffff) != 0)
    return false;
  return in_cksum(packet, header, length) == 0;
}

static void take_packet(struct mbuf *packet) {
  static uint32_t last_refused;
  uint8_t ip[IP_HEADER];
  uint8_t bytes[LONGEST_HELLO];
  if ((m_copydata(packet, 0, IP_HEADER, ip) & 0xffff) != 0 || !read_hello(packet, (ip[0] & 15) * 4, bytes)) return;
  const uint32_t source = get32(ip + 12);
  if (ip_is_address_on_interface(source, iod) != 0 || ip_check_target_addr_for_local_subnet(iod, source) == 0) return;
  const char *why = objection(bytes);
  if (why == NULL) {
    hear(source, bytes);
  } else if (source != last_refused) {
    printf("no neighbor of ours: %s: %s\n", ip_print_addr(source), why);
    last_refused = source;
  }
}

// The packet that a message of ipd's brings: by reference, or as bytes behind the record when there is no room for
// that. Null: none, or from another interface.
static struct mbuf *packet_of(const uint8_t *message, uint32_t size) {
  struct ip_msg_input record;
  if (message == NULL || size < sizeof record) return NULL;
  memcpy(&record, message, sizeof record);
  struct mbuf *packet = record.packet_ref != 0 ? m_packet_at(record.packet_ref) : m_gethdr();
  if (packet == NULL) return NULL;
  const bool is_there =
      record.packet_ref != 0 || m_append(packet, message + sizeof record, size - (uint32_t)sizeof record) == 1;
  if (is_there && record.iod == iod) return packet;
  m_freem(packet);
  return NULL;
}

// Receives for a second at most. False: ipd is gone, and what it did for us with it.
static bool receive(void) {
  mts_msg_ref_t message;
  struct mts_recv_opts one_second = {{1, 0, 1}};
  if (mts_recv(data_queue, &message, &one_second) != 0) return errno != ECONNRESET;
  if (mts_opc_get(message) == IP_OPCODE_PACKET) {
    struct mbuf *packet = packet_of(mts_payload_get(message), mts_payload_size(message));
    if (packet != NULL) take_packet(packet);
    m_freem(packet);
  }
  mts_drop(data_queue, message);
  return true;
}

// --------------------------------------------------------------------------------------------------------------- life

static bool enter(const char *name) {
  if (ip_register(name, data_queue, control_queue, OSPF, 0, &ip_client, 0, 0) == 0) return false;
  iod = find_interface();
  next_hello = seconds();
  return ip_join_group(all_ospf_routers, iod) == 1;
}

static int fail(const char *why) {
  fprintf(stderr, "ospf_hello: %s\n", why);
  return 1;
}

static int run(void) {
  char name[64];  // it is ours alone in the whole system
  snprintf(name, sizeof name, "ospf_hello %s", interface_name);
  if (ip_api_init() == NULL) return fail("no ipd to ask: start it, or set RSW_RUN_DIR");
  if (find_interface() == 0) return fail("ipd knows no such interface");
  if (ip_client_set_recv_fn("take_packet") == 0 || ip_init_mts(&control_queue, -1) == 0 ||
      ip_init_mts(&data_queue, -1) == 0) {
    return fail("no queues to talk to ipd");
  }
  bool entered = enter(name);
  if (!entered) return fail("ipd refuses: not the right to configure, another ospf_hello there, or no ipd");
  printf("hello as %s on %s every %u s, dead after %u s\n", ip_print_addr(router_id), interface_name, hello_interval,
         dead_interval);
  while (!stopped) {
    if (!entered && (entered = enter(name))) printf("ipd is back\n");
    if (entered && seconds() >= next_hello) {
      next_hello = seconds() + hello_interval;
      entered = send_hello();
    }
    if (!receive() && entered) {
      printf("ipd is gone\n");
      entered = false;
    }
    forget_silent_neighbors();
  }
  ip_leave_group(all_ospf_routers, iod);
  ip_deregister(name, OSPF, &ip_client);
  ip_api_close();
  return 0;
}

static bool read_words(int count, char **words) {
  unsigned octets[4];
  char end;
  if (count != 2 && count != 4) return false;
  interface_name = words[0];
  if (sscanf(words[1], "%3u.%3u.%3u.%3u%c", octets, octets + 1, octets + 2, octets + 3, &end) != 4) return false;
  for (int i = 0; i < 4; ++i) {
    if (octets[i] > 255) return false;
    router_id = router_id << 8 | octets[i];
  }
  if (count == 4) {
    hello_interval = (uint32_t)strtoul(words[2], NULL, 10);
    dead_interval = (uint32_t)strtoul(words[3], NULL, 10);
  }
  return router_id != 0 && hello_interval >= 1 && hello_interval <= 65535 && dead_interval > hello_interval;
}

int main(int argc, char **argv) {
  if (!read_words(argc - 1, argv + 1)) {
    fprintf(stderr, "usage: ospf_hello INTERFACE ROUTER-ID [HELLO DEAD]    intervals in seconds, 10 and 40\n");
    return 2;
  }
  setvbuf(stdout, NULL, _IOLBF, 0);
  const struct sigaction action = {.sa_handler = stop};  // without SA_RESTART: the wait for a message ends
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);
  return run();
}
