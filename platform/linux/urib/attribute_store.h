// SPDX-License-Identifier: Apache-2.0
// What routes say beside their prefix, each kept once for all routes that say the same: the writer's side.
#ifndef RSW_URIB_ATTRIBUTE_STORE_H
#define RSW_URIB_ATTRIBUTE_STORE_H

#include <array>
#include <cstdint>
#include <unordered_map>

#include "sm/arena.h"
#include "urib/urib_records.h"
#include "urib/urib_routes.h"

namespace rsw::urib {

class AttributeStore {
 public:
  explicit AttributeStore(Arena &arena) : arena_(arena) {}

  // The address of these attributes, with one more user. 0: no room.
  [[nodiscard]] uint32_t take(const Route &route);
  // One more user of attributes that have one already.
  void hold(uint32_t attributes);
  // One user less; after the last one they are retired. The route that led to them is unlinked.
  void drop(uint32_t attributes);

 private:
  struct Entry {
    uint32_t address;
    uint32_t users;
  };
  using Entries = std::unordered_multimap<uint64_t, Entry>;  // by the hash of the contents

  // By metric and first next hop: the attributes that were taken last. A table's routes say few different things, and
  // one look here saves two in the maps.
  std::array<Entry *, 2048> recent_{};
  static uint32_t recent_slot(const Attributes &attributes, uint32_t first_addr);

  uint32_t take_next_hops(const Route &route);
  void drop_next_hops(uint32_t next_hops);
  [[nodiscard]] static Entries::iterator find(Entries &entries, uint64_t hash, uint32_t address);

  Arena &arena_;
  Entries attributes_, next_hops_;
};

}  // namespace rsw::urib

#endif
