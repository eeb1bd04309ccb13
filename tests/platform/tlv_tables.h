// SPDX-License-Identifier: Apache-2.0
// Description tables of a message with interface entries, and of other records to try.
#ifndef TESTS_PLATFORM_TLV_TABLES_H
#define TESTS_PLATFORM_TLV_TABLES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tlvu.h"

namespace tlv_tables {

struct Entry {
  uint32_t words[8];
  char name[64];
};
static_assert(sizeof(Entry) == 96);

struct Wide {
  uint8_t one;
  uint16_t two;
  uint32_t four[3];
  uint64_t eight;
  Entry inner;
};

inline constexpr uint32_t none = 0xffffffffu;

template <int fields>
struct Table {
  tlv_table_head head;
  tlv_field_desc field[fields + 1];
};

inline tlv_field_desc integer(uint32_t id, uint32_t size, uint32_t offset, uint32_t count = 1) {
  return {id, size, offset, 1, 0, 0, 0, nullptr, 0, size * count, none, nullptr};
}
inline tlv_field_desc text(uint32_t id, uint32_t offset, uint32_t longest) {
  return {id, 1, offset, 3, 0, 0, 0, nullptr, 0, longest, none, nullptr};
}
inline tlv_field_desc records(uint32_t id, uint32_t size, uint32_t offset, uint32_t (*count)(const void *),
                              const void *table) {
  return {id, size, offset, 5, 0, 0, 0, count, 0, 0, none, table};
}
inline tlv_field_desc end() {
  return {none, none, none, 0, 0, 0, 0, nullptr, 0, 0, 0, nullptr};
}

inline uint32_t entries_of(const void *message) {
  uint32_t count = 0;
  memcpy(&count, message, sizeof count);
  return count;
}
inline uint32_t clear_first_word(void *entry) {
  memset(entry, 0, 4);
  return 0;
}
inline uint32_t set_first_word(void *entry) {
  const uint32_t value = 4711;
  memcpy(entry, &value, sizeof value);
  return 0;
}

inline Table<9> entry_fields(uint32_t (*defaults)(void *)) {
  return {{96, "entry", defaults, 0},
          {integer(0, 4, 0), integer(3, 4, 4), integer(7, 4, 8), integer(2, 4, 12), integer(4, 4, 16),
           integer(8, 4, 20), integer(9, 4, 24), integer(10, 4, 28), text(1, 32, 64), end()}};
}

inline const Table<9> entry_table = entry_fields(clear_first_word);
inline const Table<9> defaults_table = entry_fields(set_first_word);
inline const Table<2> message_table = {{4, "message", nullptr, 0},
                                       {integer(5, 4, 0), records(6, 96, 4, entries_of, &entry_table), end()}};
inline const Table<5> wide_table = {
    {sizeof(Wide), "wide", nullptr, 0},
    {integer(1, 1, offsetof(Wide, one)), integer(2, 2, offsetof(Wide, two)), integer(3, 4, offsetof(Wide, four), 3),
     integer(4, 8, offsetof(Wide, eight)), records(5, 96, offsetof(Wide, inner), nullptr, &entry_table), end()}};
// A field that reaches over the record's end, and a record within itself.
inline const Table<1> beyond_table = {{96, "beyond", nullptr, 0}, {integer(1, 4, 94), end()}};
inline const Table<1> endless_table = {{96, "endless", nullptr, 0},
                                       {records(1, 96, 0, nullptr, &endless_table), end()}};

}  // namespace tlv_tables

#endif
