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

/* From us to us, of the protocol that is registered for: so it comes back from the kernel. */
static struct mbuf *packet(void) {
  static const uint8_t bytes[28] = {0x45, 0, 0, 28, 0, 0, 0, 0, 5, PROTOCOL, 0xa0, 0xe4, 10, 0, 0, 1, 10, 0, 0, 1};
  struct mbuf *made = m_gethdr();
  if (made == NULL) return NULL;
  if (m_append(made, bytes, sizeof bytes) == 1) return made;
  m_freem(made);
  return NULL;
}

static int sent(uint32_t iod) {
  struct mbuf *made = packet();
  return made != NULL && good("output", ip_cl_output(iod, made, 0, 0, 0, &ip_client));
}

static int received(void) {
  struct mts_recv_opts options = {{1, 0, 1, 0}};
  mts_msg_ref_t message = NULL;
  int32_t status;
  do {
    status = mts_recv(data, &message, &options);
  } while (status != 0 && (errno == EINTR || errno == ENOMEM));
  if (status != 0) return 0;
  struct ip_msg_input record;
  memset(&record, 0, sizeof record);
  if (mts_payload_size(message) >= sizeof record) memcpy(&record, mts_payload_get(message), sizeof record);
  mts_drop(data, message);
  struct mbuf *arrived = record.packet_ref != 0 ? m_packet_at(record.packet_ref) : NULL;
  if (arrived == NULL) return 0;
  const int whole = m_length(arrived) == 28;
  m_freem(arrived);
  return whole;
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
  if (!good("set", ip_client_set_recv_fn("faults"))) return "set";
  if (!good("register", ip_register("faults", data, control, PROTOCOL, 0, &ip_client, 0, 0))) return "register";
  const uint32_t iod = ip_get_iod_for_local_address("default", OWN_ADDRESS);
  if (iod == 0) return "ask";
  if (!good("join", ip_join_group(group, iod))) return "join";
  if (!configured(iod)) return "configure";
  if (!asked(iod)) return "statistics";
  if (!sent(iod)) return "send";
  if (!received()) return "receive";
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
