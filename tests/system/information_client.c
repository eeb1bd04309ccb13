// SPDX-License-Identifier: Apache-2.0
/* A client of the control service that prints what it is told, one line per entry or counter, so that what two clients
 * were told can be compared as text.
 *
 *   information_client once          the full set, and ends
 *   information_client follow        the full set and the changes, until it is killed
 *   information_client stats NAME    the counters of an interface */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "ip_msg.h"
#include "mts.h"

static int ended;

static void print_entries(ip_if_info_msg *record) {
  const ip_if_info_msg_entry *entry = (const ip_if_info_msg_entry *)(record + 1);
  if (record->count == 0) ended = 1;
  for (uint32_t i = 0; i < record->count; ++i, ++entry) {
    printf("%u %.64s ifindex %u context %u flags %u address %u/%u mtu %u borrows from %u\n", entry->f0, entry->f1,
           entry->f3, entry->f7, entry->f2, entry->f4, entry->f8, entry->f9, entry->f10);
    if ((entry->f2 & IP_IF_INFO_LAST) != 0) ended = 1;
  }
  if (ended) printf("end\n");
  fflush(stdout);
}

static int download(uint32_t queue, int follow) {
  struct mts_recv_opts options = {{1, 0, 30}};
  if (ip_download_if_info(queue, 1, follow ? IP_DOWNLOAD_FOLLOW : IP_DOWNLOAD_ONCE) == 0) return 4;
  if (follow) options.w[2] = 0;
  while (follow || !ended) {
    mts_msg_ref_t message;
    if (mts_recv(queue, &message, &options) != 0) return 5;
    if (mts_opc_get(message) == IP_OPCODE_IF_INFO && ip_parse_if_info_notification(message, print_entries) == 0) {
      return 6;
    }
    mts_drop(queue, message);
  }
  return 0;
}

static uint32_t iod_of(const char *name) {
  for (uint32_t iod = 0; (iod = im_get_next_ext_if(iod, IP_COMPONENT)) != 0;) {
    const char *its_name = im_get_if_name(iod);
    if (its_name != NULL && strcmp(its_name, name) == 0) return iod;
  }
  return 0;
}

static int print_statistics(uint32_t queue, const char *name) {
  struct ip_msg_if_stats_request request;
  void *answer = NULL;
  struct ip_msg_if_stats_reply reply;
  memset(&request, 0, sizeof request);
  request.iod = iod_of(name);
  if (ip_get_interface_stats(queue, &request, sizeof request, &answer) == 0) return 4;
  memcpy(&reply, answer, sizeof reply);
  free(answer);
  for (uint32_t i = 0; i < reply.count; ++i) {
    printf("%u %llu\n", i, (unsigned long long)reply.counters[i][1] << 32 | reply.counters[i][0]);
  }
  return 0;
}

int main(int argc, char **argv) {
  uint32_t queue;
  if (argc < 2) return 2;
  if (ip_api_init() == NULL || ip_init_mts(&queue, -1) == 0) {
    fprintf(stderr, "cannot attach\n");
    return 3;
  }
  if (strcmp(argv[1], "stats") == 0 && argc == 3) return print_statistics(queue, argv[2]);
  return download(queue, strcmp(argv[1], "follow") == 0);
}
