// SPDX-License-Identifier: Apache-2.0
// The interface table as it lies in segment "/rsw/shm/im": who changes a record here changes the segment's version in
// sm/segments.cc.
//
// Arrays of one word per iod, so that the words of neighbouring iods share cache lines; behind them the arena with the
// interface records and the ifindex index.
#ifndef RSW_IM_IM_TABLE_H
#define RSW_IM_IM_TABLE_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "pt/word_index.h"

namespace rsw::im {

inline constexpr uint32_t iod_limit = 65536;  // iods are 1 to 65535
inline constexpr uint32_t extension_slots = 8;
inline constexpr uint32_t name_size = 40;

inline constexpr uint32_t flag_up = 1;
inline constexpr uint32_t flag_admin_up = 2;
inline constexpr uint32_t flag_loopback = 4;

// What is known of one interface; never changed once readers can reach it.
struct Record {
  uint32_t ifindex;
  uint32_t flags;
  uint32_t mtu;
  uint32_t context_id;
  uint32_t table_id;
  uint32_t name[name_size / 4];  // characters, NUL-terminated
  uint32_t reserved;
};
static_assert(sizeof(Record) == 64);
static_assert(offsetof(Record, context_id) == 12);
static_assert(offsetof(Record, name) == 20);
static_assert(std::is_trivially_copyable_v<Record>);

struct Table {
  uint32_t index;      // the ifindex index's publishing word: ifindex -> iod * 4
  uint32_t iods_used;  // every iod at or above this one is fresh
  uint32_t reserved[6];
  uint32_t components[extension_slots];  // the component whose extension a slot holds; 0: nobody's yet
  uint32_t record[iod_limit];            // address of the Record, 0: no such interface
  // The next iod in order; that of iod 0 is the first. An iod that was removed keeps it.
  uint32_t next[iod_limit];
  // Place in the order: the ifindex, with the top bit set unless it is a loopback. Kept by a removed iod, 0 for a fresh
  // one.
  uint32_t order[iod_limit];
  uint32_t extension[extension_slots][iod_limit];  // address of the component's own record, or 0
};
static_assert(offsetof(Table, components) == 32);
static_assert(offsetof(Table, record) == 64);
static_assert(offsetof(Table, extension) == 64 + 3 * 4 * iod_limit);
static_assert(sizeof(Table) == 64 + 11 * 4 * iod_limit);
static_assert(std::is_trivially_copyable_v<Table>);

inline constexpr uint32_t order_not_loopback = 0x80000000u;
[[nodiscard]] constexpr uint32_t order_of(uint32_t ifindex, bool loopback) {
  return (ifindex & ~order_not_loopback) | (loopback ? 0 : order_not_loopback);
}

// The table stands right behind the segment's header.
inline constexpr uint32_t table_offset = segment_page;
inline constexpr uint32_t arena_offset = (table_offset + static_cast<uint32_t>(sizeof(Table)) + 0xffffu) & ~0xffffu;

// Component numbers find their slot by their low bits, the next free one behind it when two meet. extension_slots:
// none.
[[nodiscard]] inline uint32_t slot_of(const Table &table, uint32_t component) {
  for (uint32_t i = 0; i < extension_slots; ++i) {
    const uint32_t slot = (component + i) % extension_slots;
    // Acquire: a slot's words are those of its component; partner: the writer's store when it gives the slot away.
    const uint32_t holder = observe_word(table.components[slot]);
    if (holder == component) return slot;
    if (holder == 0) break;
  }
  return extension_slots;
}

// The record of an iod, or null.
[[nodiscard]] inline const Record *record_of(const Table *table, uint32_t iod) {
  if (table == nullptr || iod - 1 >= iod_limit - 1) return nullptr;
  // Acquire: the record's words; partner: the writer's store of the record word.
  const uint32_t address = observe_word(table->record[iod]);
  if (!is_readable(address) || (address & 63) != 0) return nullptr;
  return at_address<const Record>(address);
}

}  // namespace rsw::im

#endif
