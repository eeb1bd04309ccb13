// SPDX-License-Identifier: Apache-2.0
/* A client that asks everything it can about every interface and prints the answers, one per line, so that two clients'
 * pictures of one database can be compared as text. With --hold it stays attached until it is killed. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "l3vm.h"

static void print_interface(uint32_t iod) {
  const char *name = im_get_if_name(iod);
  const uint32_t context = l3vm_if_get_context_id(iod);
  const char *context_name = ip_get_api_context_name(context);
  uint32_t addr = 0;
  uint8_t len = 0;
  printf("%u %s mtu %u up %u admin %u context %u %s secondaries %u multicast %u broadcast %u unnumbered %u\n", iod,
         name != NULL ? name : "?", ip_get_mtu(iod), im_is_if_up(iod), im_is_adminup(iod), context,
         context_name != NULL ? context_name : "?", ip_get_secondary_count(iod), ip_is_multicast_enabled(iod),
         ip_allow_directed_broadcast(iod), ip_is_iod_unnumbered(iod));
  for (ip_get_next_secondary(iod, &addr, &len); addr != 0; ip_get_next_secondary(iod, &addr, &len)) {
    printf("%u secondary %s/%u held by %u on it %u length %u\n", iod, ip_print_addr(addr), len,
           ip_get_iod_for_local_address(context_name, addr), ip_is_address_on_interface(addr, iod),
           ip_get_local_mask_len(addr, iod));
  }
}

int main(int argc, char **argv) {
  if (ip_shm_api_init() == NULL) {
    fprintf(stderr, "cannot attach\n");
    return 3;
  }
  printf("default is %u, root at %p, client record of %u bytes\n", ip_get_api_context_id("default"), ip_api_data,
         (unsigned)sizeof(struct ip_client));
  for (uint32_t iod = im_get_next_ext_if(0, 267); iod != 0; iod = im_get_next_ext_if(iod, 267)) print_interface(iod);
  printf("end\n");
  fflush(stdout);
  if (argc > 1 && strcmp(argv[1], "--hold") == 0) {
    pause();
  }
  ip_api_close();
  return 0;
}
