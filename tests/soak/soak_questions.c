// SPDX-License-Identifier: Apache-2.0
/* Questions about a system of which the client knows what can be true; see soak_board.h. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "soak_client.h"
#include "tsp.h"

#define COMPONENT 267u
#define LONGEST_LIST 400u

static uint32_t interface_of(const char *name) {
  for (uint32_t iod = im_get_next_ext_if(0, COMPONENT); iod != 0; iod = im_get_next_ext_if(iod, COMPONENT)) {
    const char *found = im_get_if_name(iod);
    if (found != NULL && strcmp(found, name) == 0) return iod;
  }
  return 0;
}

int know_the_interfaces(void) {
  left = interface_of("left");
  right = interface_of("right");
  return left != 0 && right != 0;
}

static void ask_about_addresses(void) {
  const uint32_t fixed = SOAK_FIXED + 1 + random_word() % SOAK_FIXED_COUNT;
  const uint32_t flips = SOAK_FLIPPING + 1 + random_word() % SOAK_FLIPPING_COUNT;
  const uint32_t absent = SOAK_ABSENT + 1 + random_word() % 1024;
  uint32_t answer = ip_get_iod_for_local_address("default", fixed);
  if (answer != left) tell_wrong("an address that is always there is not on its interface", fixed, answer);
  answer = ip_get_local_mask_len(fixed, left);
  if (answer != 24) tell_wrong("an address that is always there has another mask", fixed, answer);
  answer = ip_get_local_addr(left);
  if (answer != SOAK_FIXED + 1) tell_wrong("another primary address", answer, left);
  answer = ip_get_iod_for_local_address("default", flips);
  if (answer != 0 && answer != right) tell_wrong("an address that comes and goes is elsewhere", flips, answer);
  answer = ip_get_local_mask_len(flips, right);
  if (answer != 0 && answer != 32) tell_wrong("an address that comes and goes has another mask", flips, answer);
  answer = ip_get_iod_for_local_address("default", absent);
  if (answer != 0) tell_wrong("an address that never was", absent, answer);
  if (ip_is_address_on_interface(flips, left) != 0) tell_wrong("an address on the other interface", flips, left);
  if (ip_is_addr_local("default", fixed) == 0) tell_wrong("an address that is always there is not local", fixed, 0);
}

static void ask_about_routes(void) {
  const uint32_t comes = SOAK_ROUTES + (random_word() % SOAK_ROUTE_COUNT << 8) + 1 + random_word() % 254;
  uint32_t answer = ip_get_iod_from_addr("default", SOAK_FIXED_ROUTE + 1 + random_word() % 254);
  if (answer != left) tell_wrong("a route that is always there leads elsewhere", SOAK_FIXED_ROUTE, answer);
  answer = ip_get_iod_from_addr("default", comes);
  if (answer != 0 && answer != left && answer != right)
    tell_wrong("a route that comes and goes leads elsewhere", comes, answer);
  answer = ip_get_iod_from_addr("default", SOAK_ABSENT + 1);
  if (answer != 0) tell_wrong("a route that never was", SOAK_ABSENT, answer);
}

void ask(void) {
  begin(SOAK_QUERY);
  for (int i = 0; i < 9; ++i) {
    ask_about_addresses();
    ask_about_routes();
  }
  end(SOAK_QUERY, 1);
}

/* The interface that may have this address, and its mask's length; empty: none may. */
static uint32_t place_of(uint32_t addr, char *name, size_t room) {
  const uint32_t net = addr & 0xffff0000u;
  const uint32_t third = addr >> 8 & 255;
  name[0] = '\0';
  if (addr >> 24 == 127) return (void)snprintf(name, room, "lo"), 8;
  if (net == SOAK_FIXED && third == 0) return (void)snprintf(name, room, "left"), 24;
  if (net == SOAK_FLIPPING && third == 0) return (void)snprintf(name, room, "right"), 32;
  if (net == SOAK_TRANSIENT && third < SOAK_TRANSIENT_COUNT) return (void)snprintf(name, room, "soak%u", third), 24;
  if (net == SOAK_CONFIGURED && third < SOAK_SEATS) return (void)snprintf(name, room, "right"), 24;
  return 0;
}

struct copy {
  uint32_t addr;
  uint32_t mask_len;
};

/* One lock, one list: none of its records may be half of one and half of another. */
static uint32_t copy_addresses(uint32_t iod, struct copy *copies) {
  uint32_t count = 0;
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  const struct ip_iftype *record = lcache_im_get_extension1(iod, IP_COMPONENT);
  const struct ip_addrtype *address = record == NULL ? NULL : IP_SHM_GET(struct ip_addrtype, record->addr_list);
  for (; address != NULL && count < LONGEST_LIST; address = IP_SHM_GET(struct ip_addrtype, address->next)) {
    copies[count].addr = address->addr;
    copies[count++].mask_len = address->mask_len;
  }
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
  return count;
}

static void name_of(uint32_t iod, char *name, size_t room) {
  const char *found = im_get_if_name(iod);
  (void)snprintf(name, room, "%s", found == NULL ? "" : found);
}

static void check_interface(uint32_t iod) {
  char before[32];
  char after[32];
  char expected[32];
  struct copy copies[LONGEST_LIST];
  name_of(iod, before, sizeof before);
  const uint32_t mtu = lcache_im_get_if_mtu(iod);
  const uint32_t count = copy_addresses(iod, copies);
  name_of(iod, after, sizeof after);
  /* It may be gone meanwhile, and its iod another one's. */
  if (before[0] == '\0' || strcmp(before, after) != 0) return;
  if (count == LONGEST_LIST) tell_wrong("a list of addresses without end", iod, count);
  unsigned number = 0;
  if (sscanf(before, "soak%u", &number) == 1 && mtu != 0 && mtu != SOAK_MTU + number) {
    tell_wrong("an interface has the MTU of another", number, mtu);
  }
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t mask_len = place_of(copies[i].addr, expected, sizeof expected);
    if (strcmp(expected, before) != 0) tell_wrong("an address on an interface that never had it", copies[i].addr, iod);
    if (copies[i].mask_len != mask_len)
      tell_wrong("an address with another's mask", copies[i].addr, copies[i].mask_len);
  }
}

void walk(void) {
  begin(SOAK_WALK);
  uint32_t count = 0;
  for (uint32_t iod = im_get_next_ext_if(0, COMPONENT); iod != 0; iod = im_get_next_ext_if(iod, COMPONENT)) {
    check_interface(iod);
    if (++count > 1000) {
      tell_wrong("interfaces without end", iod, count);
      break;
    }
  }
  (void)ip_get_router_id(1);
  (void)ip_get_loopback_addr();
  end(SOAK_WALK, 1);
}

static void *ask_once(void *unused) {
  ask_about_addresses();
  ask_about_routes();
  return unused;
}

/* Its slot of the reader lock comes and goes. */
void ask_in_a_thread(void) {
  pthread_t thread;
  begin(SOAK_THREAD);
  const int made = pthread_create(&thread, NULL, ask_once, NULL) == 0;
  if (made != 0) (void)pthread_join(thread, NULL);
  end(SOAK_THREAD, made);
}
