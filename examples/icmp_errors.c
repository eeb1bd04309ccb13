// SPDX-License-Identifier: Apache-2.0
/* A driver that has ipd send ICMP errors: the near end of a tunnel to nowhere.
 *
 *   icmp_errors --tun NAME [--mtu N]      until it is interrupted; says on one line what it did about each packet
 *
 * It makes the tun device NAME and reads the packets that the kernel routes into it. None of them can be forwarded, and
 * whoever sent them is told why, as by any router: at the end of its TTL, longer than N bytes and not to be fragmented,
 * or else that nobody is there. The driver does not make the errors: it asks ipd, which knows about whom none may be
 * sent, how many are enough, and by which way and from which address they leave. Try it:
 *
 *   icmp_errors --tun far & ip link set far up; ip route add 192.0.2.0/24 dev far; ipsh ping 192.0.2.7
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "mbuf.h"
#include "mts.h"

/* RFC 792. */
enum { UNREACHABLE = 3, HOST = 1, FRAGMENTATION_NEEDED = 4, TIME_EXCEEDED = 11, IN_TRANSIT = 0 };
enum { SHORTEST_HEADER = 20, LONGEST_PACKET = 65535 };
#define DONT_FRAGMENT 0x40u /* in the byte with the fragment's offset */

static const char *device;
static uint32_t mtu = 1280;
static volatile sig_atomic_t stopped;

static void stop(int signal_number) {
  stopped = signal_number;
}

/* ------------------------------------------------------------------------------------------------ asking for an error
 */

/* As a driver that has the packet's bytes and nothing else: it hands over as many as an error quotes at least. No
 * buffer and no interface are needed. */
static uint32_t ask_with_first_bytes(uint32_t type, uint32_t code, const uint8_t *packet, uint32_t size) {
  const uint32_t header = 4u * (packet[0] & 15u);
  const uint32_t quoted = size < header + 8 ? size : header + 8;
  return ip_driver_send_icmp_packet(type, code, quoted, packet);
}

/* With the whole packet and all that ipd can be told: here the MTU, which the route does not know. What is not sent
 * stays ours. */
static uint32_t ask_with_packet(uint32_t iod, const uint8_t *packet, uint32_t size) {
  struct mbuf *chain = m_gethdr();
  if (chain == NULL) return 0;
  const uint32_t sent = m_append(chain, packet, size) != 0 &&
                        ip_icmp_error(iod, chain, UNREACHABLE, FRAGMENTATION_NEEDED, &ip_client, 0, mtu) != 0;
  if (!sent) m_freem(chain);
  return sent;
}

static uint32_t interface_of(const char *name) {
  for (uint32_t iod = 0; (iod = im_get_next_ext_if(iod, IP_COMPONENT)) != 0;) {
    const char *found = im_get_if_name(iod);
    if (found != NULL && strcmp(found, name) == 0) return iod;
  }
  return 0;
}

/* What a forwarding driver would do with it, if there were somewhere to forward it to. */
static void handle(const uint8_t *packet, uint32_t size) {
  if (size < IP_QUOTED_MIN || packet[0] >> 4 != 4 || (packet[0] & 15u) * 4u < SHORTEST_HEADER) return; /* IPv6 */
  const char *why = "nobody is there";
  uint32_t asked = 0;
  if (packet[8] <= 1) {
    why = "its TTL ends here";
    asked = ask_with_first_bytes(TIME_EXCEEDED, IN_TRANSIT, packet, size);
  } else if (size > mtu && (packet[6] & DONT_FRAGMENT) != 0) {
    why = "too long, and not to be fragmented";
    asked = ask_with_packet(interface_of(device), packet, size);
  } else {
    asked = ask_with_first_bytes(UNREACHABLE, HOST, packet, size);
  }
  uint32_t source, destination;
  memcpy(&source, packet + 12, sizeof source);
  memcpy(&destination, packet + 16, sizeof destination);
  printf("%s > %s, %u bytes: %s%s\n", ip_print_addr(ntohl(source)), ip_print_addr(ntohl(destination)), size, why,
         asked != 0 ? "" : "; ipd was not reached");
  fflush(stdout);
}

/* --------------------------------------------------------------------------------------------------------- the device
 */

static int open_device(void) {
  struct ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, device, sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI; /* packets, and nothing in front of them */
  const int tun = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (tun < 0 || ioctl(tun, TUNSETIFF, &request) != 0) {
    fprintf(stderr, "icmp_errors: cannot make the tun device %s: %s\n", device, strerror(errno));
    exit(1);
  }
  return tun;
}

static int run(int tun, const sigset_t *signals_while_waiting) {
  static uint8_t packet[LONGEST_PACKET];
  struct pollfd waiting = {.fd = tun, .events = POLLIN};
  while (stopped == 0) {
    if (ppoll(&waiting, 1, NULL, signals_while_waiting) < 0 && errno != EINTR) break;
    const ssize_t size = read(tun, packet, sizeof packet);
    if (size > 0) handle(packet, (uint32_t)size);
    if (size < 0 && errno != EAGAIN && errno != EINTR) {
      fprintf(stderr, "icmp_errors: cannot read from %s: %s\n", device, strerror(errno));
      return 1;
    }
  }
  return 0;
}

/* ---------------------------------------------------------------------------------------------------------- the client
 */

static void usage(FILE *out) {
  fprintf(out,
          "usage: icmp_errors --tun NAME [--mtu N]\n"
          "  --tun NAME   the device to make\n"
          "  --mtu N      of the tunnel behind it, 68 to 65535 bytes; 1280\n");
}

static void read_options(int argc, char **argv) {
  static const struct option options[] = {{"tun", required_argument, NULL, 't'},
                                          {"mtu", required_argument, NULL, 'm'},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
  for (int option; (option = getopt_long(argc, argv, "", options, NULL)) != -1;) {
    if (option == 'h') exit((usage(stdout), 0));
    if (option == '?') exit((usage(stderr), 2));
    if (option == 't') device = optarg;
    if (option != 'm') continue;
    char *end = NULL;
    mtu = (uint32_t)strtoul(optarg, &end, 10);
    if (*end == '\0' && mtu >= 68 && mtu <= LONGEST_PACKET) continue;
    fprintf(stderr, "icmp_errors: %s is no MTU from 68 to 65535\n", optarg);
    exit(2);
  }
  if (device == NULL || optind != argc) exit((usage(stderr), 2));
}

int main(int argc, char **argv) {
  read_options(argc, argv);
  sigset_t blocked, before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, &before); /* they arrive while it waits, and at no other time */
  const struct sigaction action = {.sa_handler = stop};
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);

  uint32_t data = 0;
  if (ip_api_init() == NULL || ip_init_mts(&data, -1) == 0) {
    fprintf(stderr, "icmp_errors: no ipd to ask: start it, or set RSW_RUN_DIR\n");
    return 1;
  }
  /* Key 0: no protocol's packets are wanted. The registration makes `data` the queue that the calls send from. */
  (void)ip_client_set_recv_fn_with_tx_mts("icmp_errors"); /* packets travel inside the messages */
  int result = 1;
  if (ip_register("icmp_errors", data, 0xffffffffu, 0, 0, &ip_client, 0, 0) == 0) {
    fprintf(stderr, "icmp_errors: ipd does not take us as a client: see its log\n");
  } else {
    const int tun = open_device();
    printf("%s is there\n", device);
    fflush(stdout);
    result = run(tun, &before);
    close(tun);
    (void)ip_deregister("icmp_errors", 0, &ip_client);
  }
  mts_unbind(data, 0);
  ip_api_close();
  return result;
}
