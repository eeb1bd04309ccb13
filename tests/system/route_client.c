// SPDX-License-Identifier: Apache-2.0
/* A client that reads addresses from its input, one per line, and prints what it finds about the way to each in context
 * "default": one line per address, so that two clients' answers can be compared as text. */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"

int main(void) {
  if (ip_api_init() == NULL) {
    fprintf(stderr, "cannot attach\n");
    return 3;
  }
  char line[64];
  while (fgets(line, sizeof line, stdin) != NULL) {
    struct in_addr address;
    line[strcspn(line, "\n")] = '\0';
    if (inet_pton(AF_INET, line, &address) != 1) return 2;
    const uint32_t addr = ntohl(address.s_addr);
    uint32_t iod = 0;
    const uint32_t source = ip_get_route(1, address.s_addr, &iod);
    printf("%s iod %u source %08x direct %u attached %u local %u subnet %u\n", line, iod, source,
           ip_get_iod_from_addr("default", addr), ip_is_addr_attached("default", addr),
           ip_is_addr_local_in_urib("default", addr), ip_get_iod_for_subnet("default", addr & 0xffffff00u, 24));
  }
  ip_api_close();
  return 0;
}
