// SPDX-License-Identifier: Apache-2.0
// Lists this system's interfaces with their addresses, from the shared database: no message is sent, nobody is waited
// for. What is read inside the lock is copied there: a record may be reused as soon as the lock is released.
#include <stdio.h>

#include "im.h"
#include "ip_api.h"
#include "tsp.h"

static uint32_t copy_addresses(uint32_t iod, ip_prefixtype *copies, uint32_t room) {
  uint32_t count = 0;
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  const struct ip_iftype *record = lcache_im_get_extension1(iod, IP_COMPONENT);
  const struct ip_addrtype *address = record == NULL ? NULL : IP_SHM_GET(struct ip_addrtype, record->addr_list);
  for (; address != NULL && count < room; address = IP_SHM_GET(struct ip_addrtype, address->next)) {
    copies[count++] = (ip_prefixtype){address->addr, address->mask_len};
  }
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
  return count;
}

int main(void) {
  if (ip_api_init() == NULL) return fprintf(stderr, "no ipd to ask: start it, or set RSW_RUN_DIR\n"), 1;
  for (uint32_t iod = 0; (iod = im_get_next_ext_if(iod, IP_COMPONENT)) != 0;) {
    ip_prefixtype addresses[64];
    const uint32_t count = copy_addresses(iod, addresses, 64);
    const char *name = im_get_if_name(iod);
    printf("%s: iod %u, mtu %u\n", name == NULL ? "(gone)" : name, iod, lcache_im_get_if_mtu(iod));
    for (uint32_t i = 0; i < count; ++i)
      printf("  %s %s\n", i == 0 ? "primary" : "secondary", ip_print_prefix(&addresses[i]));
  }
  ip_api_close();
  return 0;
}
