// SPDX-License-Identifier: Apache-2.0
/* A client that lacks something, or whose IP process does: it lives a whole life, from its attachment to its end, and
 * begins anew until all of one life went well. What did not is said on a line each.
 *
 *   fault_client GROUP ADDRESS     what it joins, and what it configures on the interface that has 10.0.0.1
 *
 * Ends with 0, having said how many descriptors it had open at the end of the good life; with 1 when a call gave a
 * result that it does not have. */
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "mbuf.h"
#include "mts.h"

#define NO_QUEUE 0xffffffffu
#define OWN_ADDRESS 0x0a000001u
#define PROTOCOL 253
#define LENGTH 3000u
#define FIRST_BYTE 0xa0u
#define FROM_MAIN 0u
#define FROM_WORKERS 1u
#define WORKERS 2u
#define KINDS (FROM_WORKERS + WORKERS)

enum way { BY_REFERENCE, BY_SEGMENTS };

static uint32_t control = NO_QUEUE;
static uint32_t data = NO_QUEUE;
static uint32_t group;
static uint32_t address;

/* Without the C library's memory. */
static void say(const char *what, uint32_t number) {
  char line[96];
  const int length = snprintf(line, sizeof line, "%s %u\n", what, number);
  if (write(STDOUT_FILENO, line, (size_t)length) != length) _exit(4);
}

/* Of a call that answers 1 or 0. */
static int good(const char *call, uint32_t result) {
  if (result <= 1) return result == 1;
  say(call, result);
  _exit(1);
}

static int configured(uint32_t iod) {
  uint32_t more = 0;
  const uint32_t status = ip_configure_address(iod, address, 32, &more, 0, 20);
  switch (status) {
    case IP_CONFIG_STATUS_DONE:
      return 1;
    case IP_CONFIG_STATUS_NO_REPLY:
    case IP_CONFIG_STATUS_NOT_SENT:
    case IP_CONFIG_STATUS_BUSY:
    case IP_CONFIG_STATUS_KERNEL:
      return 0;
    default:
      say("configure", status);
      _exit(1);
  }
}

static int asked(uint32_t iod) {
  struct ip_msg_if_stats_request request;
  memset(&request, 0, sizeof request);
  request.iod = iod;
  void *answer = NULL;
  const int got = good("statistics", ip_get_interface_stats(control, &request, sizeof request, &answer));
  if (got) free(answer);
  return got;
}

/* Null: none came. */
static mts_msg_ref_t next_message(uint32_t queue) {
  struct mts_recv_opts options = {{1, 0, 1, 0}};
  mts_msg_ref_t message = NULL;
  int32_t status;
  do {
    status = mts_recv(queue, &message, &options);
  } while (status != 0 && (errno == EINTR || errno == ENOMEM));
  return status == 0 ? message : NULL;
}

static uint32_t interfaces_told;

static void learn(ip_if_info_msg *record) {
  interfaces_told += record->count;
}

/* What ipd tells in answer to one request comes in messages of its own. */
static int downloaded(void) {
  interfaces_told = 0;
  if (!good("download", ip_download_if_info(data, 1, IP_DOWNLOAD_ONCE))) return 0;
  const mts_msg_ref_t message = next_message(data);
  if (message == NULL) return 0;
  if (mts_opc_get(message) == IP_OPCODE_IF_INFO) {
    (void)good("parse", ip_parse_if_info_notification(message, learn));
  }
  mts_drop(data, message);
  return interfaces_told != 0;
}

/* From us to us, of the protocol that is registered for: so it comes back from the kernel. Those of one kind differ
 * from the others in each byte; each takes two buffers, and two fragments. */
static void write_packet(uint8_t *bytes, uint8_t kind) {
  static const uint8_t header[20] = {0x45, 0, LENGTH >> 8, LENGTH & 255, 0, 0, 0, 0, 5, PROTOCOL, 0, 0, 10,
                                     0,    0, 1,           10,           0, 0, 1};
  memset(bytes, (int)FIRST_BYTE + kind, LENGTH);
  memcpy(bytes, header, sizeof header);
}

static int sent(uint32_t iod, uint8_t kind) {
  uint8_t bytes[LENGTH];
  write_packet(bytes, kind);
  struct mbuf *made = m_gethdr();
  if (made == NULL) return 0;
  if (m_append(made, bytes, sizeof bytes) != 1) {
    m_freem(made);
    return 0;
  }
  return good("output", ip_cl_output(iod, made, 0, 0, 0, &ip_client));
}

/* Everything behind the header is as it was sent, or the client ends with 1. A bit for each kind. */
static uint32_t kind_of(const uint8_t *bytes, uint32_t length) {
  uint8_t expected[LENGTH];
  const uint8_t kind = length == LENGTH ? (uint8_t)(bytes[20] - FIRST_BYTE) : KINDS;
  write_packet(expected, kind);
  if (kind < KINDS && memcmp(bytes + 20, expected + 20, LENGTH - 20) == 0) return 1u << kind;
  say("packet", length);
  _exit(1);
}

static uint32_t kind_of_reference(uint32_t reference) {
  uint8_t bytes[LENGTH];
  struct mbuf *arrived = m_packet_at(reference);
  if (arrived == NULL) return 0;
  const uint32_t length = m_length(arrived);
  const int is_read = length == LENGTH && (m_copydata(arrived, 0, LENGTH, bytes) & 0xffff) == 0;
  m_freem(arrived);
  return kind_of(bytes, is_read ? length : 0);
}

/* The kind of the next packet, which comes by the way that was registered; 0: none came. */
static uint32_t received(enum way way) {
  const mts_msg_ref_t message = next_message(data);
  if (message == NULL) return 0;
  struct ip_msg_input record;
  memset(&record, 0, sizeof record);
  const uint32_t size = mts_payload_size(message);
  const uint8_t *payload = mts_payload_get(message);
  if (size >= sizeof record) memcpy(&record, payload, sizeof record);
  uint32_t kind = 0;
  if (way == BY_SEGMENTS && record.packet_ref == 0 && size > sizeof record) {
    kind = kind_of(payload + sizeof record, size - (uint32_t)sizeof record);
  } else if (way == BY_REFERENCE && record.packet_ref != 0) {
    kind = kind_of_reference(record.packet_ref);
  }
  mts_drop(data, message);
  return kind;
}

/* There and back by one way. */
static const char *exchange(enum way way, uint32_t iod) {
  const uint32_t set =
      way == BY_SEGMENTS ? ip_client_set_recv_fn_with_tx_mts("faults") : ip_client_set_recv_fn("faults");
  if (!good("set", set)) return "set";
  if (!good("register", ip_register("faults", data, control, PROTOCOL, 0, &ip_client, 0, 0))) return "register";
  if (!sent(iod, FROM_MAIN)) return "send";
  if (received(way) != 1u << FROM_MAIN) return "receive";
  return NULL;
}

struct worker {
  pthread_t thread;
  uint32_t iod;
  uint8_t kind;
  int went_well;
};

/* Has a slot of the reader lock and buffers of its own while it lives. */
static void *work(void *argument) {
  struct worker *own = argument;
  own->went_well = ip_get_iod_for_local_address("default", OWN_ADDRESS) == own->iod && sent(own->iod, own->kind);
  return NULL;
}

/* At the same time; their packets come in any order. */
static const char *serve_threads(uint32_t iod) {
  struct worker workers[WORKERS];
  uint32_t begun = 0;
  while (begun < WORKERS) {
    struct worker *next = &workers[begun];
    *next = (struct worker){.iod = iod, .kind = (uint8_t)(FROM_WORKERS + begun)};
    if (pthread_create(&next->thread, NULL, work, next) != 0) break;
    ++begun;
  }
  uint32_t well = 0;
  for (uint32_t i = 0; i < begun; ++i) {
    (void)pthread_join(workers[i].thread, NULL);
    if (workers[i].went_well) ++well;
  }
  if (well != WORKERS) return "threads";
  uint32_t kinds = 0;
  for (uint32_t i = 0; i < WORKERS; ++i) {
    const uint32_t kind = received(BY_REFERENCE);
    if (kind == 0) return "receive";
    kinds |= kind;
  }
  return kinds == ((1u << WORKERS) - 1) << FROM_WORKERS ? NULL : "packets of threads";
}

static uint32_t open_descriptors(void) {
  DIR *directory = opendir("/proc/self/fd");
  if (directory == NULL) return 0;
  uint32_t count = 0;
  for (const struct dirent *entry = readdir(directory); entry != NULL; entry = readdir(directory)) ++count;
  closedir(directory);
  return count - 3; /* two directories, and this one */
}

/* What did not go well; null: nothing. */
static const char *serve(void) {
  if (!good("bind", ip_init_mts(&control, -1)) || !good("bind", ip_init_mts(&data, -1))) return "bind";
  const uint32_t iod = ip_get_iod_for_local_address("default", OWN_ADDRESS);
  if (iod == 0) return "ask";
  const char *missing = exchange(BY_SEGMENTS, iod);
  if (missing == NULL && !good("deregister", (uint32_t)ip_deregister("faults", PROTOCOL, &ip_client))) {
    missing = "deregister";
  }
  if (missing == NULL) missing = exchange(BY_REFERENCE, iod);
  if (missing == NULL) missing = serve_threads(iod);
  if (missing != NULL) return missing;
  if (!good("join", ip_join_group(group, iod))) return "join";
  if (!configured(iod)) return "configure";
  if (!asked(iod)) return "statistics";
  if (!downloaded()) return "download";
  if (!good("leave", ip_leave_group(group, iod))) return "leave";
  if (!good("deregister", (uint32_t)ip_deregister("faults", PROTOCOL, &ip_client))) return "deregister";
  const uint32_t open = open_descriptors();
  if (open == 0) return "count";
  say("descriptors", open);
  return NULL;
}

static void unbind(uint32_t *queue) {
  if (*queue != NO_QUEUE) mts_unbind(*queue, 0);
  *queue = NO_QUEUE;
}

static const char *live(void) {
  if (ip_api_init() == NULL) return "attach";
  const char *missing = serve();
  unbind(&control);
  unbind(&data);
  ip_api_close();
  return missing;
}

int main(int argc, char **argv) {
  struct in_addr word;
  if (argc != 3 || inet_pton(AF_INET, argv[1], &word) != 1) return 2;
  group = ntohl(word.s_addr);
  if (inet_pton(AF_INET, argv[2], &word) != 1) return 2;
  address = ntohl(word.s_addr);
  for (uint32_t life = 1;; ++life) {
    const char *missing = live();
    if (missing == NULL) return 0;
    say(missing, life);
    const struct timespec a_moment = {0, 20000000};
    nanosleep(&a_moment, NULL);
  }
}
