// SPDX-License-Identifier: Apache-2.0
// What the publisher remembers, in its own memory, of all that it published: the segment itself is never read back (but
// once, at a take-over), so that a damaged segment cannot mislead its writer and every change finds its place in O(log
// n).
#ifndef IPD_PUBLISH_PICTURE_H
#define IPD_PUBLISH_PICTURE_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "ipd/publish/publisher.h"
#include "ipd/publish/records.h"
#include "pt/pt_writer.h"

namespace ipd {

struct Context;
struct Interface;
struct Prefix;

// A prefix in one number: order and equality are those of (network, length).
constexpr uint64_t prefix_key(uint32_t network, uint8_t len) {
  return (uint64_t{network} << 8) | len;
}
constexpr uint32_t key_network(uint64_t key) {
  return static_cast<uint32_t>(key >> 8);
}
constexpr uint8_t key_len(uint64_t key) {
  return static_cast<uint8_t>(key);
}
constexpr uint32_t network_of(uint32_t addr, uint8_t len) {
  return len == 0 ? 0 : addr & (0xffffffffu << (32u - len));
}

// One interface's hold on one prefix: any number of its addresses, at most one virtual address.
struct Claim {
  Prefix *prefix;
  Interface *holder;
  uint32_t addresses;
  uint32_t vips;
  IodElement *element;  // in the shared list
  Claim *previous, *next;
};

// A node of a context's tree: there as long as somebody holds it, and without an info and claims for as long as there
// was no storage to take it out. Claims stand in order of arrival, as the shared list.
struct Prefix {
  uint64_t key;
  PrefixRecord *record;
  PrefixInfo *info;  // what the node points to now: its own, or one that was built since, or null
  Claim *first, *last;
  uint32_t vips;                 // claims with a virtual address
  uint32_t configured;           // claims with addresses
  uint32_t configured_loopback;  // of these, on loopback interfaces
};

struct Address {
  AddressState state;
  uint64_t place;  // sort key in the interface's list
  ip_addrtype *record;
};

struct Group {
  GroupState state;
  ip_maddrtype *record;
};

struct Interface {
  InterfaceState state;
  Context *context;
  uint32_t iod;
  ip_iftype *record;
  bool published;  // the interface table's extension word points to the record

  std::map<uint64_t, Address> addresses;  // by prefix_key(addr, mask_len)
  std::map<uint64_t, Address *> list;     // by place: the order of the shared list
  std::map<uint64_t, Claim> claims;       // by prefix_key
  std::set<uint32_t> vips;
  std::vector<Group> groups;    // in the order of the shared list
  StatisticsBlock *statistics;  // null: none
  MulticastCounters counters;   // what the block says
  uint32_t pim_asserts;

  uint32_t lender_ifindex;  // 0: the interface is numbered
  std::string lender_name;
  LenderName *lender_record;
};

struct Context {
  ContextState state;
  ip_api_context_type *record;
  std::unique_ptr<rsw::PtWriter> tree;
  std::unordered_map<uint64_t, Prefix> prefixes;
  std::set<uint64_t> abandoned;   // prefixes that nobody holds and that could not be taken out yet
  std::set<uint32_t> interfaces;  // ifindexes
  // What a router id may be taken from: never an address in 127/8, never a virtual one.
  std::set<uint32_t> addresses;
  std::set<uint32_t> loopback_addresses;
};

}  // namespace ipd

#endif
