// SPDX-License-Identifier: Apache-2.0
#include "urib/attribute_store.h"

#include <cstring>

#include "pt/word_index.h"
#include "urib/urib_types.h"

namespace rsw::urib {
namespace {

uint64_t mix(uint64_t hash, uint64_t word) {
  hash = (hash ^ word) * 0x9e3779b97f4a7c15u;
  return hash ^ hash >> 29;
}

NextHop packed(const RouteNextHop &hop) {
  return {.iod = hop.iod,
          .addr = hop.addr,
          .data = hop.data,
          .table = hop.table,
          .weight = hop.weight,
          .flags = hop.via_ipv6 ? next_hop_via_ipv6 : uint16_t{0}};
}

uint64_t hash_hop(uint64_t hash, const NextHop &hop) {
  hash = mix(hash, uint64_t{hop.iod} << 32 | hop.addr);
  hash = mix(hash, uint64_t{hop.data} << 32 | hop.table);
  return mix(hash, uint64_t{hop.weight} << 16 | hop.flags);
}

uint64_t hash_of(const NextHops &hops) {
  uint64_t hash = hops.count;
  for (uint32_t i = 0; i < hops.count; ++i) hash = hash_hop(hash, hops.hop[i]);
  return hash;
}
uint64_t hash_of(const std::vector<RouteNextHop> &hops) {
  uint64_t hash = hops.size();
  for (const RouteNextHop &hop : hops) hash = hash_hop(hash, packed(hop));
  return hash;
}

uint64_t hash_of(const Attributes &attributes) {
  uint64_t hash = uint64_t{attributes.kind} << 16 | uint64_t{attributes.action} << 8 | attributes.protocol;
  hash = mix(hash, uint64_t{attributes.metric} << 32 | attributes.origin);
  return mix(hash, uint64_t{attributes.pref_src} << 32 | attributes.next_hops);
}

bool same(const NextHops &hops, const std::vector<RouteNextHop> &wanted) {
  if (hops.count != wanted.size()) return false;
  for (uint32_t i = 0; i < hops.count; ++i) {
    const NextHop hop = packed(wanted[i]);
    if (memcmp(&hops.hop[i], &hop, sizeof hop) != 0) return false;
  }
  return true;
}

}  // namespace

AttributeStore::Entries::iterator AttributeStore::find(Entries &entries, uint64_t hash, uint32_t address) {
  auto [entry, end] = entries.equal_range(hash);
  while (entry != end && entry->second.address != address) ++entry;
  return entry;
}

uint32_t AttributeStore::take_next_hops(const Route &route) {
  const uint64_t hash = hash_of(route.next_hops);
  for (auto [entry, end] = next_hops_.equal_range(hash); entry != end; ++entry) {
    if (!same(*at_address<NextHops>(entry->second.address), route.next_hops)) continue;
    ++entry->second.users;
    return entry->second.address;
  }
  const auto count = static_cast<uint32_t>(route.next_hops.size());
  auto *hops = static_cast<NextHops *>(arena_.allocate(next_hops_type(count)));
  if (hops == nullptr) return 0;
  hops->count = count;
  for (uint32_t i = 0; i < count; ++i) {
    hops->hop[i] = packed(route.next_hops[i]);
    hops->weight += hops->hop[i].weight;
  }
  next_hops_.emplace(hash, Entry{address_of(hops), 1});
  return address_of(hops);
}

void AttributeStore::drop_next_hops(uint32_t next_hops) {
  auto *hops = at_address<NextHops>(next_hops);
  const auto entry = find(next_hops_, hash_of(*hops), next_hops);
  if (--entry->second.users != 0) return;
  next_hops_.erase(entry);
  arena_.retire(next_hops_type(hops->count), hops);
}

uint32_t AttributeStore::recent_slot(const Attributes &attributes, uint32_t first_addr) {
  return static_cast<uint32_t>(mix(uint64_t{attributes.metric} << 32 | attributes.first_iod, first_addr) >> 53);
}

uint32_t AttributeStore::take(const Route &route) {
  Attributes wanted{};
  wanted.kind = static_cast<uint8_t>(route.kind);
  wanted.action = static_cast<uint8_t>(route.action);
  wanted.protocol = route.protocol;
  wanted.metric = route.metric;
  wanted.origin = route.origin;
  wanted.pref_src = route.pref_src;
  uint32_t first_addr = 0;
  if (!route.next_hops.empty()) {
    wanted.first_iod = route.next_hops.front().iod;
    wanted.first_data = route.next_hops.front().data;
    first_addr = route.next_hops.front().addr;
  }
  Entry *&recent = recent_[recent_slot(wanted, first_addr)];
  if (recent != nullptr) {
    const auto *attributes = at_address<Attributes>(recent->address);
    wanted.next_hops = attributes->next_hops;
    const bool same_hops = wanted.next_hops == 0 ? route.next_hops.empty()
                                                 : same(*at_address<NextHops>(wanted.next_hops), route.next_hops);
    if (same_hops && memcmp(attributes, &wanted, sizeof wanted) == 0) {
      ++recent->users;
      return recent->address;
    }
    wanted.next_hops = 0;
  }
  if (!route.next_hops.empty()) {
    wanted.next_hops = take_next_hops(route);
    if (wanted.next_hops == 0) return 0;
  }
  const uint64_t hash = hash_of(wanted);
  for (auto [entry, end] = attributes_.equal_range(hash); entry != end; ++entry) {
    if (memcmp(at_address<Attributes>(entry->second.address), &wanted, sizeof wanted) != 0) continue;
    ++entry->second.users;
    recent = &entry->second;
    if (wanted.next_hops != 0) drop_next_hops(wanted.next_hops);
    return entry->second.address;
  }
  auto *attributes = static_cast<Attributes *>(arena_.allocate(attributes_type));
  if (attributes == nullptr) {
    if (wanted.next_hops != 0) drop_next_hops(wanted.next_hops);
    return 0;
  }
  *attributes = wanted;
  recent = &attributes_.emplace(hash, Entry{address_of(attributes), 1})->second;
  return address_of(attributes);
}

void AttributeStore::hold(uint32_t attributes) {
  ++find(attributes_, hash_of(*at_address<Attributes>(attributes)), attributes)->second.users;
}

void AttributeStore::drop(uint32_t attributes) {
  auto *record = at_address<Attributes>(attributes);
  const uint32_t first_addr = record->next_hops == 0 ? 0 : at_address<NextHops>(record->next_hops)->hop[0].addr;
  Entry *&recent = recent_[recent_slot(*record, first_addr)];
  if (recent != nullptr && recent->address == attributes && recent->users > 1) {
    --recent->users;
    return;
  }
  const auto entry = find(attributes_, hash_of(*record), attributes);
  if (--entry->second.users != 0) return;
  if (recent == &entry->second) recent = nullptr;
  if (record->next_hops != 0) drop_next_hops(record->next_hops);
  attributes_.erase(entry);
  arena_.retire(attributes_type, record);
}

}  // namespace rsw::urib
