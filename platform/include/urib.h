// SPDX-License-Identifier: Apache-2.0
// The unicast routing information base: questions about routes, answered from shared memory under URIB's own read lock.
//
// A caller opens it once, takes the read lock, looks a route up, copies the value that it wants out of it, and releases
// the lock. A route handle is null for "no route", is good only under the lock, and may be passed on unchecked: every
// call that takes a route answers 0 for null. Addresses are in host order, lengths in bits, tables as
// l3vm_if_get_table_id and the context records give them.
//
// On librsw the routes stand in the segment "/rsw/shm/urib", which the IP process publishes. A process that opens URIB
// before there is a segment finds no routes until there is, and then finds them without opening it again.
//
// For all calls, unless they say otherwise: Threads: any. Blocks: no. Owns: nothing.
#ifndef RSW_URIB_H
#define RSW_URIB_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Where packets to a destination go, everything resolved.
struct urib_path {
  uint32_t iod;           // outgoing interface
  uint32_t table_id;      // the table in which the path ended; another one than asked when the route was leaked
  uint32_t next_hop;      // host order; 0: the destination itself
  uint32_t reserved[13];  // 0
};
RSW_SIZE(struct urib_path, 64);
RSW_OFFSET(struct urib_path, table_id, 4);
RSW_OFFSET(struct urib_path, next_hop, 8);

// Opens URIB for this process. Several threads may do so at once; it is open once.
// Results: nonzero: open. 0: not to be had now (the log says why); questions may be asked all the same and find no
// route.
uint32_t urib_api_init(void);

// Closes it. A lock that a thread still holds can be released afterwards. Closing hands back what opening counted, not
// the tables: questions are answered afterwards as before, since a library above is closed and opened again without
// opening URIB a second time.
void urib_api_close(void);

// Take and release the read lock of the routes, which a thread may take again while it holds it. It is taken after the
// database's lock, never before it. Releasing what is not held is nothing.
void urib_acquire_rdlock(void);
void urib_release_rdlock(void);

// The longest match of any kind for an address.
//   table         the table; 0 is none
//   addr          the address
// Owns: nothing; the route is good until the lock is released. Results: the route. Null: no route.
void *urib_get_best_route(uint32_t table, uint32_t addr, uint32_t zero1, uint32_t zero2);

// The longest match among attached and local routes only. Otherwise as urib_get_best_route.
void *urib_get_best_direct_route(uint32_t table, uint32_t addr);

// The route of exactly this prefix.
//   addr, len     the prefix; with bits of addr beyond len it is no route's
// Otherwise as urib_get_best_route.
void *urib_get_route(uint32_t table, uint32_t addr, uint32_t len);

// The best route that covers a whole prefix, in the view that multicast reverse-path checks use: unicast routes and
// static routes for multicast, one of which wins at equal length.
//   addr, len     the prefix; bits of addr beyond len do not count
// Otherwise as urib_get_best_route.
void *urib_get_mbest_route_for_prefix(uint32_t table, uint32_t addr, uint32_t len, uint32_t zero1, uint32_t zero2);

// Whether a route is the subnet of an interface; a host route to one of the system's own addresses; a static route for
// multicast.
// Results: nonzero: it is. 0: it is not, or null.
uint32_t urib_is_route_attached(void *route);
uint32_t urib_is_route_local(void *route);
uint32_t urib_is_route_mstatic(void *route);

// The interface of a route's first best next hop. Results: its iod. 0: none, or null.
uint32_t urib_route_first_bnh_iod_get(void *route);

// The data word of a route's first best next hop. Results: the word; 0xdeadbeef marks a next hop that is no longer
// live. 0 for null.
uint32_t urib_route_first_bnh_nib_data_get(void *route);

// Interface and address of one of a route's multicast next hops.
//   selector      any word: the same one picks the same next hop while the route stays as it is
// Results: the iod; the address in host order. 0: none, or null.
uint32_t urib_route_mbnh_iod_get(void *route, uint32_t selector);
uint32_t urib_route_mbnh_addr_get(void *route, uint32_t selector);

// Resolves the whole forwarding path of a destination, through other routes and tables where it leads there. Takes the
// read lock itself.
//   table, addr   the destination
//   path          out: the path; cleared by the caller
//   r1, r2        out, when resolved: the number of routes on the way, and the kind of the last; not null
// Results: nonzero: resolved. 0: the destination is not reachable; *path is not to be used.
uint32_t urib_get_path_v2(uint32_t table, uint32_t addr, uint32_t z1, uint32_t z2, uint32_t z3, struct urib_path *path,
                          uint32_t *r1, uint32_t *r2, uint32_t one);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
