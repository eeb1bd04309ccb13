// SPDX-License-Identifier: Apache-2.0
// The records of the shared database, segment "/rsw/shm/ip".
//
// The IP process writes them, every client maps them read-only at the same address and reads them in its own thread.
// Writer and readers are different programs, of either width, so the layouts below are a format: words of fixed width
// only, and each pointer inside a record is one 32-bit word (IP_SHM_PTR, sm.h). A change here changes
// RSW_LAYOUT_IP_DB in sm.h as well: the build fails until it does, and a client of another layout is refused.
//
// How the records hang together:
//
//   root --contexts--> context -> context -> ...      one per VRF
//                         |
//                         +--local_pt--> Patricia tree of local_addr_nodes --info--> local_addr_info --iod_list--> iod
//
//   interface manager, slot IP_COMPONENT of an iod --> iftype --addr_list---> addrtype -> addrtype -> ...
//                                                             --group_list--> maddrtype -> ...
//                                                             --stats-------> if_stats
//
// Reading them: under the reader lock, and a pointer is not used after the lock was released. In C, IP_SHM_GET(T, word)
// turns a pointer word into a T *; in C++ the word converts by itself. Fields named `owner` are the IP process's: no
// client reads them.
#ifndef IP_DB_H
#define IP_DB_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "sm.h"

#ifdef __cplusplus
extern "C" {
#endif

// The IP component's number: its slot in the interface manager and its name at the memory tracker.
#define IP_COMPONENT 267u

// Bytes of a context name, with its terminating NUL.
#define IP_CONTEXT_NAME_SIZE 36

// An address of an interface. The first of a list is the primary address, all others are secondaries.
struct ip_addrtype {
  IP_SHM_PTR(struct ip_addrtype) next;
  uint32_t addr;     // host order
  uint8_t mask_len;  // 0 .. 32
  uint8_t reserved9[3];
};
static_assert(sizeof(struct ip_addrtype) == 12, "a list walk of another build steps by this");
static_assert(offsetof(struct ip_addrtype, addr) == 4, "");
static_assert(offsetof(struct ip_addrtype, mask_len) == 8, "");

// A multicast group that is joined on an interface.
struct ip_maddrtype {
  IP_SHM_PTR(struct ip_maddrtype) next;
  uint32_t group;       // host order
  uint32_t group_data;  // handed on with the group; 0 for a group that the kernel's sockets have joined
};
static_assert(sizeof(struct ip_maddrtype) == 12, "");
static_assert(offsetof(struct ip_maddrtype, group) == 4, "");
static_assert(offsetof(struct ip_maddrtype, group_data) == 8, "");

// What an unnumbered interface knows about the one whose address it borrows.
struct ip_unnumbered {
  char name[1];  // NUL-terminated, longer in memory
};
static_assert(offsetof(struct ip_unnumbered, name) == 0, "");

// A 64-bit counter as two words, in the order in which a 64-bit integer of the machine has them: no record asks for
// more than 4 bytes of alignment, in any build.
struct ip_counter64 {
  uint32_t words[2];
};
static_assert(sizeof(struct ip_counter64) == 8, "");

// The statistics block of an interface; longer in memory. It begins at a multiple of 8. The numbers are those of the
// arguments of ip_get_mcast_pkt_stats_orig and ip_get_mcast_byte_stats_orig; the traffic that they count:
//
//   packets 1           multicast packets received, as the link counts them
//   packets 2, bytes 1  multicast packets that came in by the interface to be forwarded
//   packets 3, bytes 2  multicast packets that were forwarded out of the interface
//   packets 4, 5        nothing yet: 0
//
// They only grow, modulo their width, as long as the interface lives.
struct ip_if_stats {
  uint32_t owner0[146];
  uint32_t mcast_packets1;
  uint32_t owner588[3];
  uint32_t mcast_packets2;
  uint32_t owner604;
  struct ip_counter64 mcast_bytes1;
  uint32_t mcast_packets3;
  uint32_t owner620;
  struct ip_counter64 mcast_bytes2;
  uint32_t owner632[12];
  uint32_t mcast_packets5;
  uint32_t owner684[3];
  uint32_t mcast_packets4;  // the fourth lies after the fifth
};
static_assert(sizeof(struct ip_if_stats) == 700, "");
static_assert(offsetof(struct ip_if_stats, mcast_packets1) == 584, "");
static_assert(offsetof(struct ip_if_stats, mcast_packets2) == 600, "");
static_assert(offsetof(struct ip_if_stats, mcast_bytes1) == 608, "");
static_assert(offsetof(struct ip_if_stats, mcast_packets3) == 616, "");
static_assert(offsetof(struct ip_if_stats, mcast_bytes2) == 624, "");
static_assert(offsetof(struct ip_if_stats, mcast_packets5) == 680, "");
static_assert(offsetof(struct ip_if_stats, mcast_packets4) == 696, "");

// An interface with IP state, "ip_if".
struct ip_iftype {
  uint32_t owner0;
  IP_SHM_PTR(struct ip_addrtype) addr_list;     // null: no address
  uint32_t unnum_src_iod;                       // of the interface whose address is borrowed
  IP_SHM_PTR(struct ip_unnumbered) unnum_data;  // non-null exactly when the interface is unnumbered
  IP_SHM_PTR(struct ip_maddrtype) group_list;
  uint32_t owner20;
  uint32_t directed_bcast;  // nonzero: directed broadcasts are allowed
  uint32_t mcast_enabled;   // nonzero: multicast is enabled
  uint32_t owner32[5];
  uint32_t pim_assert_sent;   // count
  IP_SHM_PTR(uint8_t) stats;  // the interface's statistics block, struct ip_if_stats; null: none
  uint32_t owner60;
  uint32_t vaddr_count;  // number of virtual addresses
  uint32_t fwd_enabled;  // nonzero: forwarding is enabled
};
static_assert(sizeof(struct ip_iftype) == 72, "");
static_assert(offsetof(struct ip_iftype, addr_list) == 4, "");
static_assert(offsetof(struct ip_iftype, unnum_src_iod) == 8, "");
static_assert(offsetof(struct ip_iftype, unnum_data) == 12, "");
static_assert(offsetof(struct ip_iftype, group_list) == 16, "");
static_assert(offsetof(struct ip_iftype, directed_bcast) == 24, "");
static_assert(offsetof(struct ip_iftype, mcast_enabled) == 28, "");
static_assert(offsetof(struct ip_iftype, pim_assert_sent) == 52, "");
static_assert(offsetof(struct ip_iftype, stats) == 56, "");
static_assert(offsetof(struct ip_iftype, vaddr_count) == 64, "");
static_assert(offsetof(struct ip_iftype, fwd_enabled) == 68, "");

// A context, that is, a VRF.
struct ip_api_context_type {
  IP_SHM_PTR(struct ip_api_context_type) next;
  uint32_t context_id;              // never 0
  char name[IP_CONTEXT_NAME_SIZE];  // NUL-terminated; letter case counts
  uint32_t table_id;                // the URIB table of this context
  IP_SHM_PTR(void) local_pt;        // handle of the tree of local addresses, or null
  uint32_t router_id;               // host order
  uint32_t router_id_iod;           // the interface that router_id was taken from
};
static_assert(sizeof(struct ip_api_context_type) == 60, "");
static_assert(offsetof(struct ip_api_context_type, context_id) == 4, "");
static_assert(offsetof(struct ip_api_context_type, name) == 8, "");
static_assert(offsetof(struct ip_api_context_type, table_id) == 44, "");
static_assert(offsetof(struct ip_api_context_type, local_pt) == 48, "");
static_assert(offsetof(struct ip_api_context_type, router_id) == 52, "");
static_assert(offsetof(struct ip_api_context_type, router_id_iod) == 56, "");

// The root record; ip_api_data points to it, ip_api_mpib to its second part.
struct ip_root {
  IP_SHM_PTR(struct ip_api_context_type) contexts;
  uint32_t owner4[4];
  uint32_t second_part;         // where ip_api_mpib points to
  uint8_t ecmp_loadshare_mode;  // how equal-cost paths share the load
  uint8_t reserved25[3];
  uint32_t ecmp_loadshare_value;  // network order
};
static_assert(sizeof(struct ip_root) == 32, "");
static_assert(offsetof(struct ip_root, contexts) == 0, "ip_api_contexts_queue is the address of the root");
static_assert(offsetof(struct ip_root, second_part) == 20, "");
static_assert(offsetof(struct ip_root, ecmp_loadshare_mode) == 24, "");
static_assert(offsetof(struct ip_root, ecmp_loadshare_value) == 28, "");

// An interface that holds a local address; longer in memory.
struct ip_iod_elem {
  uint32_t iod;
};
static_assert(offsetof(struct ip_iod_elem, iod) == 0, "");

// What is known about a local address.
struct ip_local_addr_info {
  IP_SHM_PTR(struct ip_iod_elem) iod_list;  // first element; null: none
  uint32_t vip;                             // nonzero: a virtual address
};
static_assert(sizeof(struct ip_local_addr_info) == 8, "");
static_assert(offsetof(struct ip_local_addr_info, iod_list) == 0, "");
static_assert(offsetof(struct ip_local_addr_info, vip) == 4, "");

// A node of a context's tree. Its key is the address in network order, 32 bits long.
struct ip_local_addr_node {
  uint32_t pt_links[3];  // the tree library's
  IP_SHM_PTR(struct ip_local_addr_info) info;
};
static_assert(sizeof(struct ip_local_addr_node) == 16, "");
static_assert(offsetof(struct ip_local_addr_node, info) == 12, "");

#ifdef __cplusplus
}
#endif
#endif
