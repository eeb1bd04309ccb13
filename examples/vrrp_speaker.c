// SPDX-License-Identifier: Apache-2.0
/* Shares addresses with other routers on a link: a VRRP speaker (RFC 5798, version 3, IPv4).
 *
 *   vrrp_speaker INTERFACE VRID PRIORITY INTERVAL ADDRESS ...      until it is interrupted
 *
 * The routers elect a master by priority. While this one is it, ipd has the addresses on the interface; else they are
 * withdrawn. Everything goes through libip: it registers for IP protocol 112, joins 224.0.0.18, hands its
 * advertisements to ipd and gets those of others from it. Where ipd.conf names the addresses, as
 *
 *   "vips": [{"interface": "eth0", "address": "10.0.0.100"}]
 *
 * clients can tell that they are virtual (ip_is_addr_local_vip) and whether they are here (ip_is_addr_local_active).
 *
 * An ipd that ends and comes back knows of nobody: then it registers and joins again, and begins as a backup.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "mts.h"
#include "vrrp_advertisement.h"

#define NO_QUEUE 0xffffffffu

enum { MOST_ADDRESSES = 16, REPLY_SECONDS = 10 };

static enum { OUTSIDE, BACKUP, MASTER } state; /* OUTSIDE: ipd does not know of us */
static const char *interface;
static uint32_t iod, control = NO_QUEUE, data = NO_QUEUE;
static uint32_t addresses[MOST_ADDRESSES], address_count; /* host order */
static uint32_t vrid, priority, interval;                 /* interval: ours, in hundredths of a second */
static uint32_t masters_interval;
static int64_t timer; /* of the state, in microseconds of the monotonic clock */
static volatile sig_atomic_t stopped;

static void stop(int signal_number) {
  stopped = signal_number;
}

static int64_t now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (int64_t)time.tv_sec * 1000000 + time.tv_nsec / 1000;
}

static int64_t skew(void) {
  return (int64_t)(256 - priority) * masters_interval * 10000 / 256;
}

static int64_t master_down(void) {
  return (int64_t)3 * masters_interval * 10000 + skew();
}

/* ---- advertisements */

static uint32_t send_advertisement(uint32_t with_priority) {
  struct advertisement out;
  const uint32_t source = ip_get_local_addr(iod);
  if (source == 0 || im_is_if_up(iod) == 0) return 0;
  out.vrid = (uint8_t)vrid;
  out.priority = (uint8_t)with_priority;
  out.interval = htons((uint16_t)interval);
  out.count = (uint8_t)address_count;
  for (uint32_t i = 0; i < address_count; ++i) out.addresses[i] = htonl(addresses[i]);
  struct mbuf *packet = make_advertisement(&out, source);
  return packet == NULL ? 0 : ip_cl_output(iod, packet, 0, 0, 0, &ip_client);
}

/* Another list is a mistake in somebody's configuration, but no reason for two masters: it is told once. */
static void compare_addresses(const struct advertisement *in) {
  static uint32_t told_of;
  uint32_t found = 0;
  for (uint32_t i = 0; i < address_count; ++i) {
    for (uint32_t k = 0; k < in->count; ++k) found += ntohl(in->addresses[k]) == addresses[i];
  }
  if ((in->count == address_count && found == address_count) || told_of == in->source) return;
  told_of = in->source;
  fprintf(stderr, "%s advertises other addresses\n", ip_print_addr(ntohl(in->source)));
}

/* ---- the states */

/* Puts the addresses on the interface, or takes them away, and waits until that is published. */
static int configure(uint32_t flags) {
  int done = 1;
  for (uint32_t i = 0; i < address_count; ++i) {
    uint32_t more = 0;
    const uint32_t status = ip_configure_address(iod, addresses[i], 32, &more, flags, REPLY_SECONDS);
    if (status == IP_CONFIG_STATUS_DONE) continue;
    fprintf(stderr, "cannot %s %s: status %u (%u)\n", flags == 0 ? "publish" : "withdraw", ip_print_addr(addresses[i]),
            status, more);
    done = 0;
  }
  return done;
}

static void say(const char *what, const char *why) {
  printf("%s%s\n", what, why);
  fflush(stdout);
}

/* Something is missing, ipd perhaps: after a second everything from the start. */
static void begin_anew(const char *why) {
  state = OUTSIDE;
  timer = now() + 1000000;
  say("outside: ", why);
}

static void become_backup(const char *why) {
  if (configure(IP_CONFIG_REMOVE) == 0) {
    begin_anew("cannot withdraw the addresses");
    return;
  }
  state = BACKUP;
  timer = now() + master_down();
  say("backup: ", why);
}

static void advertise(void) {
  timer = now() + (int64_t)interval * 10000;
  if (send_advertisement(priority) != 0) return;
  (void)configure(IP_CONFIG_REMOVE);
  begin_anew("cannot advertise");
}

static void become_master(void) {
  state = MASTER;
  advertise();
  if (state == MASTER && configure(0) == 0) {
    (void)send_advertisement(0);
    begin_anew("cannot publish the addresses");
  }
  if (state == MASTER) say("master", "");
}

static void hear(const struct advertisement *in) {
  const uint32_t source = ntohl(in->source);
  compare_addresses(in);
  if (state == MASTER && in->priority == 0) {
    timer = now();
  } else if (state == MASTER) {
    const int wins = in->priority > priority || (in->priority == priority && source > ip_get_local_addr(iod));
    if (!wins) return;
    masters_interval = ntohs(in->interval) & 0xfffu;
    become_backup(ip_print_addr(source));
  } else if (in->priority == 0) {
    timer = now() + skew();
  } else if (in->priority >= priority) {
    masters_interval = ntohs(in->interval) & 0xfffu;
    timer = now() + master_down();
  }
}

/* ---- ipd's client */

static const char *client_name(void) {
  static char name[64];
  snprintf(name, sizeof name, "vrrp_speaker %s %u", interface, vrid);
  return name;
}

/* What is missing; null: nothing. */
static const char *enter(void) {
  for (uint32_t next = iod = 0; (next = im_get_next_ext_if(next, IP_COMPONENT)) != 0;) {
    const char *name = im_get_if_name(next);
    if (name != NULL && strcmp(name, interface) == 0) iod = next;
  }
  timer = now() + 1000000;
  if (iod == 0) return "there is no such interface";
  if (im_is_if_up(iod) == 0) return "the interface is down";
  if (ip_get_local_addr(iod) == 0) return "the interface has no address";
  if (ip_register(client_name(), data, control, VRRP_PROTOCOL, 0, &ip_client, 0, 0) == 0) return "ipd does not take us";
  if (ip_join_group(VRRP_ROUTERS, iod) == 0) return "ipd was not reached";
  masters_interval = interval;
  become_backup("just begun");
  return state == BACKUP ? NULL : "ipd does not withdraw the addresses";
}

static void leave(void) {
  if (state == MASTER) (void)send_advertisement(0); /* the next one need not wait */
  (void)configure(IP_CONFIG_REMOVE);
  (void)ip_leave_group(VRRP_ROUTERS, iod);
  (void)ip_deregister(client_name(), VRRP_PROTOCOL, &ip_client);
  mts_unbind(data, 0);
  mts_unbind(control, 0);
  ip_api_close();
}

static void read_packet(const uint8_t *message, uint32_t size) {
  static const char *told;
  struct ip_msg_input record;
  struct advertisement in;
  if (size <= sizeof record || state == OUTSIDE) return;
  memcpy(&record, message, sizeof record);
  const char *fault = read_advertisement(message + sizeof record, size - (uint32_t)sizeof record, &in);
  if (fault != NULL && fault != told) fprintf(stderr, "dropped a packet: %s\n", told = fault);
  if (fault == NULL && record.iod == iod && in.vrid == vrid) hear(&in);
}

static void receive(uint32_t queue) {
  mts_msg_ref_t message = NULL;
  while (mts_recv_now(queue, &message) == 0) {
    if (mts_opc_get(message) == IP_OPCODE_PACKET) read_packet(mts_payload_get(message), mts_payload_size(message));
    mts_drop(queue, message);
  }
  if (errno == ECONNRESET && state != OUTSIDE) begin_anew("ipd is gone");
}

static void run(const sigset_t *signals_while_waiting) {
  struct pollfd queues[2] = {{.fd = mts_queue_fd(data), .events = POLLIN},
                             {.fd = mts_queue_fd(control), .events = POLLIN}};
  while (stopped == 0) {
    const int64_t left = timer > now() ? timer - now() : 0;
    const struct timespec wait = {.tv_sec = (time_t)(left / 1000000), .tv_nsec = (long)(left % 1000000) * 1000};
    (void)ppoll(queues, 2, &wait, signals_while_waiting);
    receive(data);
    receive(control);
    if (now() < timer) continue;
    if (state == OUTSIDE)
      (void)enter();
    else if (state == BACKUP)
      become_master();
    else
      advertise();
  }
}

/* ---- the command line */

static void usage(FILE *out) {
  fprintf(out,
          "usage: vrrp_speaker INTERFACE VRID PRIORITY INTERVAL ADDRESS ...\n"
          "  VRID      the virtual router's number, 1 to 255\n"
          "  PRIORITY  1 to 254; the router with the greatest is the master\n"
          "  INTERVAL  between advertisements, 1 to 4095 hundredths of a second\n"
          "  ADDRESS   of the virtual router; at most %d of them\n",
          MOST_ADDRESSES);
}

static uint32_t number(const char *text, unsigned long highest) {
  char *end = NULL;
  const unsigned long value = strtoul(text, &end, 10);
  if (*text >= '0' && *text <= '9' && *end == '\0' && value >= 1 && value <= highest) return (uint32_t)value;
  fprintf(stderr, "vrrp_speaker: %s is not a number from 1 to %lu\n", text, highest);
  exit(2);
}

static void read_arguments(int argc, char **argv) {
  if (argc == 2 && strcmp(argv[1], "--help") == 0) exit((usage(stdout), 0));
  if (argc < 6 || argc > 5 + MOST_ADDRESSES) exit((usage(stderr), 2));
  interface = argv[1];
  vrid = number(argv[2], 255);
  priority = number(argv[3], 254);
  interval = number(argv[4], 4095);
  for (int i = 5; i < argc; ++i) {
    struct in_addr address;
    if (inet_pton(AF_INET, argv[i], &address) != 1) {
      fprintf(stderr, "vrrp_speaker: %s is not an IPv4 address\n", argv[i]);
      exit(2);
    }
    addresses[address_count++] = ntohl(address.s_addr);
  }
}

int main(int argc, char **argv) {
  read_arguments(argc, argv);
  sigset_t blocked, before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, &before); /* they arrive while it waits, and at no other time */
  const struct sigaction action = {.sa_handler = stop};
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);

  if (ip_api_init() == NULL || ip_init_mts(&control, -1) == 0 || ip_init_mts(&data, -1) == 0) {
    fprintf(stderr, "vrrp_speaker: no ipd to ask: start it, or set RSW_RUN_DIR\n");
    return 1;
  }
  (void)ip_client_set_recv_fn_with_tx_mts("vrrp_speaker"); /* packets travel inside the messages */
  const char *missing = enter();
  if (missing != NULL) {
    fprintf(stderr, "vrrp_speaker: %s\n", missing);
    return 1;
  }
  run(&before);
  leave();
  return 0;
}
