// SPDX-License-Identifier: Apache-2.0
// The records that ipd allocates in the segment "/rsw/shm/ip", and how a word of them that readers may be looking at is
// changed. Internal to ipd/publish.
#ifndef IPD_PUBLISH_RECORDS_H
#define IPD_PUBLISH_RECORDS_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "ip_db.h"
#include "sm/arena.h"
#include "sm/segment.h"

namespace ipd {

// The root record has a fixed place, right behind the header page; the arena begins behind it.
inline constexpr uint32_t root_offset = rsw::segment_page;
inline constexpr uint32_t arena_offset = root_offset + 64;
static_assert(sizeof(ip_root) <= 64);

// One interface that holds a prefix; what the readers know of it is the iod in front.
struct IodElement {
  ip_iod_elem element;
  ip_shm_ptr<IodElement> next;
};
static_assert(sizeof(IodElement) == 8);
static_assert(offsetof(IodElement, element) == 0);
static_assert(offsetof(IodElement, next) == 4);

struct PrefixInfo {
  ip_local_addr_info info;
  IodElement first;  // what info.iod_list points to as long as this is the node's info
};
static_assert(sizeof(PrefixInfo) == 16);
static_assert(offsetof(PrefixInfo, info) == 0);
static_assert(offsetof(PrefixInfo, first) == 8);

// A node of a local-address tree with its first info and that one's first element: an exact-match query that has found
// the node has its whole answer in the same cache line.
struct PrefixRecord {
  ip_local_addr_node node;
  PrefixInfo own;
};
static_assert(sizeof(PrefixRecord) == 32);
static_assert(offsetof(PrefixRecord, node) == 0);
static_assert(offsetof(PrefixRecord, own) == 16);

// Name of a lending interface: what ip_unnumbered is in memory.
struct LenderName {
  char name[40];
};
static_assert(sizeof(LenderName) == 40);

// The statistics block of an interface, up to the last word that the database knows of. It begins at a multiple of 8,
// as its record type says, and so do its 64-bit counters.
struct StatisticsBlock {
  ip_if_stats counters;
  uint32_t reserved700;
};
static_assert(sizeof(StatisticsBlock) == 704);
static_assert(offsetof(StatisticsBlock, counters) == 0);
static_assert(offsetof(ip_if_stats, mcast_bytes1) % 8 == 0 && offsetof(ip_if_stats, mcast_bytes2) % 8 == 0,
              "a 64-bit counter is stored by one store");

inline constexpr rsw::RecordType context_record = 1;
inline constexpr rsw::RecordType interface_record = 2;
inline constexpr rsw::RecordType address_record = 3;
inline constexpr rsw::RecordType host_record = 4;
inline constexpr rsw::RecordType info_record = 5;
inline constexpr rsw::RecordType iod_record = 6;
inline constexpr rsw::RecordType lender_record = 7;
inline constexpr rsw::RecordType subnet_record = 8;
inline constexpr rsw::RecordType group_record = 9;
inline constexpr rsw::RecordType statistics_record = 10;

// Nodes of addresses, which are asked for all the time, do not share cache lines with those of subnets, which are not.
constexpr rsw::RecordType prefix_record(uint8_t len) {
  return len == 32 ? host_record : subnet_record;
}

// Numbers of the shared memory types of the IP component, as the library registers their names.
inline constexpr uint32_t memory_context = 1;
inline constexpr uint32_t memory_group = 2;
inline constexpr uint32_t memory_component_data = 3;
inline constexpr uint32_t memory_iod = 4;
inline constexpr uint32_t memory_address = 5;
inline constexpr uint32_t memory_interface = 6;
inline constexpr uint32_t memory_unnumbered = 8;
inline constexpr uint32_t memory_local_address = 9;
inline constexpr uint32_t memory_types = 11;

inline constexpr std::array<rsw::RecordTypeInfo, 10> record_types{{
    {context_record, 64, 64, memory_context, "context"},
    {interface_record, sizeof(ip_iftype), 8, memory_interface, "interface"},
    {address_record, 16, 16, memory_address, "address"},
    {host_record, sizeof(PrefixRecord), 32, memory_local_address, "local address"},
    {subnet_record, sizeof(PrefixRecord), 32, memory_local_address, "local subnet"},
    {info_record, sizeof(PrefixInfo), 16, memory_local_address, "local prefix info"},
    {iod_record, sizeof(IodElement), 8, memory_iod, "iod element"},
    {lender_record, sizeof(LenderName), 8, memory_unnumbered, "lender name"},
    {group_record, 16, 16, memory_group, "multicast group"},
    {statistics_record, sizeof(StatisticsBlock), 64, memory_component_data, "interface statistics"},
}};
static_assert(sizeof(ip_api_context_type) <= 64);
static_assert(sizeof(ip_addrtype) <= 16);
static_assert(sizeof(ip_maddrtype) <= 16);

// Changes a number that readers may be looking at. Release, so that a reader that acts on the new value finds all that
// was stored before it; the partners are the readers' loads of the word.
inline void store_shared(uint32_t &word, uint32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// The same for two neighbouring words that change together; the first is at a multiple of 8. One store of 64 bits in
// either width, so that a reader of both never finds halves of two values; the partners are the readers' loads of the
// one word and the other.
inline void store_shared_pair(void *words, uint64_t value) {
  using Pair = uint64_t __attribute__((may_alias, aligned(8)));
  __atomic_store_n(static_cast<Pair *>(words), value, __ATOMIC_RELEASE);
}

}  // namespace ipd

#endif
