// SPDX-License-Identifier: Apache-2.0
/* A client of the soak: does what its role is until the board says that it is over, and may be killed or stopped at any
 * point of that.
 *
 *   soak_client BOARD SEAT ROLE SEED
 *
 * Ends with 0 when the board says so, 3 when it cannot begin. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "mts.h"
#include "soak_client.h"

struct soak_board *board;
struct soak_seat *seat;
uint32_t seat_number;
uint32_t left;
uint32_t right;
uint32_t control_queue = NO_QUEUE;
uint32_t data_queue = NO_QUEUE;

static uint32_t state;
static uint32_t registered_in = 1; /* the epoch of ipd in which it was; 1: none */
static char name[32];

/* Relaxed, all words of the board: each stands for itself. */
static void store(uint32_t *word, uint32_t value) {
  __atomic_store_n(word, value, __ATOMIC_RELAXED);
}
static uint32_t load(const uint32_t *word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}

void begin(enum soak_kind kind) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  store(&seat->began, (uint32_t)now.tv_sec * 1000u + (uint32_t)(now.tv_nsec / 1000000));
  store(&seat->in_hand, (uint32_t)kind + 1);
}

void end(enum soak_kind kind, int as_asked) {
  uint32_t *counter = as_asked != 0 ? &seat->done[kind] : &seat->refused[kind];
  store(counter, load(counter) + 1);
  store(&seat->in_hand, 0);
}

void tell_wrong(const char *what, uint32_t about, uint32_t value) {
  if (__atomic_fetch_add(&seat->wrong, 1, __ATOMIC_RELAXED) != 0) return;
  (void)snprintf(seat->wrong_text, sizeof seat->wrong_text, "%s (%08x, %u)", what, about, value);
}

uint32_t random_word(void) {
  uint32_t now = load(&state);
  now = now * 1664525u + 1013904223u;
  store(&state, now);
  return now >> 16 | now << 16;
}

void rest(uint32_t microseconds) {
  const struct timespec pause = {0, (long)microseconds * 1000};
  nanosleep(&pause, NULL);
}

uint32_t ipd_epoch(void) {
  return load(&board->ipd_epoch);
}

int undisturbed_since(uint32_t epoch) {
  return epoch % 2 == 0 && ipd_epoch() == epoch;
}

int spoils_packets(void) {
  return load(&board->spoil) != 0;
}

static int is_over(void) {
  return load(&board->stop) != 0;
}

/* The database outlives ipd, so it is there from the first time on that ipd was live. */
static int attach(void) {
  begin(SOAK_ATTACH);
  const int attached = ip_api_init() != NULL;
  end(SOAK_ATTACH, attached);
  if (attached == 0) return 0;
  if (ip_init_mts(&control_queue, -1) == 0 || ip_init_mts(&data_queue, -1) == 0) return 0;
  return ip_client_set_ctrl_q(control_queue) != 0 && know_the_interfaces();
}

/* What a dead process had is free at once, and one who is registered may register again: so an ipd that is live and
 * undisturbed takes it. A crowded queue may cost a try. */
static int register_client(void) {
  const uint32_t epoch = ipd_epoch();
  uint32_t registered = 0;
  for (int tries = 0; registered == 0; ++tries) {
    begin(SOAK_REGISTER);
    registered = ip_register(name, data_queue, control_queue, (uint8_t)SOAK_PROTOCOL, 0, &ip_client, 0, 0);
    end(SOAK_REGISTER, registered == 1);
    if (registered == 1 || is_over() || !undisturbed_since(epoch)) break;
    if (tries == 20) tell_wrong("a registration that a live ipd refuses", seat_number, (uint32_t)errno);
    rest(50000);
  }
  if (registered == 1) registered_in = epoch;
  return registered == 1;
}

static void join(int joins, uint32_t group, uint32_t iod) {
  const enum soak_kind kind = joins ? SOAK_JOIN : SOAK_LEAVE;
  begin(kind);
  end(kind, (joins ? ip_join_group(group, iod) : ip_leave_group(group, iod)) == 1);
}

static void deregister(void) {
  begin(SOAK_DEREGISTER);
  end(SOAK_DEREGISTER, ip_deregister(name, (uint8_t)SOAK_PROTOCOL, &ip_client) == 1);
  /* A deregistered client has no queues. */
  (void)ip_client_set_ctrl_q(control_queue);
  registered_in = 1;
}

static void configure(void) {
  const uint32_t epoch = ipd_epoch();
  const uint32_t address = SOAK_CONFIGURED + (seat_number << 8) + 1 + random_word() % 20;
  uint32_t more = 0;
  begin(SOAK_CONFIGURE);
  const uint32_t status = ip_configure_address(right, address, 24, &more, 0, 5);
  const int done = status == IP_CONFIG_STATUS_DONE;
  if (!done && status != IP_CONFIG_STATUS_NO_REPLY && status != IP_CONFIG_STATUS_NOT_SENT &&
      status != IP_CONFIG_STATUS_BUSY) {
    tell_wrong("an address that ipd does not configure", address, status << 16 | more);
  }
  const uint32_t found = done ? ip_get_iod_for_local_address("default", address) : right;
  if (found != right && undisturbed_since(epoch)) tell_wrong("a configured address is not published", address, found);
  end(SOAK_CONFIGURE, done);
  /* A reply that comes later would be taken for that of the next request: so the next one has another queue. */
  if (status == IP_CONFIG_STATUS_NO_REPLY) {
    (void)mts_unbind(control_queue, 0);
    if (ip_init_mts(&control_queue, -1) == 0) tell_wrong("no queue is to be had", (uint32_t)errno, 0);
    (void)ip_client_set_ctrl_q(control_queue);
    registered_in = 1;
  }
}

static void ask_for_statistics(void) {
  struct ip_msg_if_stats_request request;
  memset(&request, 0, sizeof request);
  request.iod = left;
  void *answer = NULL;
  begin(SOAK_STATISTICS);
  const uint32_t asked = ip_get_interface_stats(control_queue, &request, sizeof request, &answer);
  if (asked == 1) {
    struct ip_msg_if_stats_reply reply;
    memcpy(&reply, answer, sizeof reply);
    if (reply.iod != left) tell_wrong("statistics of another interface", reply.iod, left);
    free(answer);
  }
  end(SOAK_STATISTICS, asked == 1);
}

static uint32_t interfaces_told;

static void learn(ip_if_info_msg *record) {
  interfaces_told += record->count;
}

/* On a queue of its own, which goes with what is still on its way there. */
static void download(void) {
  uint32_t queue = NO_QUEUE;
  interfaces_told = 0;
  begin(SOAK_DOWNLOAD);
  if (ip_init_mts(&queue, -1) == 1) {
    struct mts_recv_opts options = {{1, 0, 1}};
    mts_msg_ref_t msg = NULL;
    if (ip_download_if_info(queue, 1, IP_DOWNLOAD_ONCE) == 1 && mts_recv(queue, &msg, &options) == 0) {
      if (mts_opc_get(msg) == IP_OPCODE_IF_INFO) ip_parse_if_info_notification(msg, learn);
      (void)mts_drop(queue, msg);
    }
    (void)mts_unbind(queue, 0);
  }
  end(SOAK_DOWNLOAD, interfaces_told != 0);
}

static void act_as_one_who_asks(void) {
  const uint32_t choice = random_word() % 64;
  if (choice == 0) {
    ask_in_a_thread();
  } else if (choice < 16) {
    walk();
  } else {
    ask();
  }
  if (choice % 4 == 0) rest(500);
}

static void act_as_one_who_sends(void) {
  static const enum soak_kind kinds[] = {SOAK_SEND_REFERENCE, SOAK_SEND_REFERENCE, SOAK_SEND_SEGMENTS, SOAK_HAND_IN};
  if (registered_in != ipd_epoch() && ipd_epoch() % 2 == 0) (void)register_client();
  send_packet(kinds[random_word() % 4]);
  rest(random_word() % 64 == 0 ? 20000 : 1000);
}

static void act_as_one_who_receives(void) {
  if (registered_in != ipd_epoch() || random_word() % 256 == 0) {
    /* Even seats by reference. */
    (void)(seat_number % 2 == 0 ? ip_client_set_recv_fn("soak") : ip_client_set_recv_fn_with_tx_mts("soak"));
    if (register_client()) {
      join(1, SOAK_GROUP, left);
    } else {
      rest(20000);
    }
  }
  receive_packet();
}

static void act_as_one_who_requests(void) {
  if (registered_in == 1 && !register_client()) rest(5000);
  switch (random_word() % 16) {
    case 0:
      deregister();
      break;
    case 1:
    case 2:
      configure();
      break;
    case 3:
    case 4:
    case 5:
      ask_for_statistics();
      break;
    case 6:
    case 7:
      download();
      break;
    case 8:
    case 9:
    case 10:
    case 11:
      join(1, SOAK_GROUP + 256 + random_word() % 40, random_word() % 2 == 0 ? left : right);
      break;
    case 12:
    case 13:
    case 14:
      join(0, SOAK_GROUP + 256 + random_word() % 40, random_word() % 2 == 0 ? left : right);
      break;
    default:
      walk();
      break;
  }
  rest(2000);
}

static int map_board(const char *path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return 0;
  void *mapped = mmap(NULL, sizeof *board, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped == MAP_FAILED || seat_number >= SOAK_SEATS) return 0;
  board = mapped;
  seat = &board->seats[seat_number];
  return 1;
}

int main(int argc, char **argv) {
  static void (*const acts[SOAK_ROLES])(void) = {act_as_one_who_asks, act_as_one_who_sends, act_as_one_who_receives,
                                                 act_as_one_who_requests};
  if (argc != 5) return 2;
  seat_number = (uint32_t)strtoul(argv[2], NULL, 10);
  const uint32_t role = (uint32_t)strtoul(argv[3], NULL, 10);
  state = (uint32_t)strtoul(argv[4], NULL, 10);
  if (role >= SOAK_ROLES || !map_board(argv[1])) return 2;
  (void)snprintf(name, sizeof name, "soak-%u", seat_number);
  if (!attach()) {
    fprintf(stderr, "cannot begin: %s\n", ip_api_get_error());
    return 3;
  }
  while (!is_over()) acts[role]();
  ip_api_close();
  return 0;
}
