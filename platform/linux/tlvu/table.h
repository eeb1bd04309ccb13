// SPDX-License-Identifier: Apache-2.0
// A description table as its users go through it, and the shape of a buffer.
//
// A buffer is a head and fields. Head: 16 bits 0x544c, 16 bits of version, 32 bits of bytes in all. Field: 16 bits of
// id, 8 of type, 8 of zeros, 32 of bytes in its value, the value. An array's value: 32 bits of elements, then each
// element as 32 bits of bytes and its fields. A record within a record is an array of one. All in network order,
// nothing is padded. An array without elements is left out; characters end with the last one that is not zero.
#ifndef RSW_TLVU_TABLE_H
#define RSW_TLVU_TABLE_H

#include <cstdint>
#include <cstring>
#include <span>

#include "tlvu.h"

namespace rsw::tlvu {

inline constexpr uint16_t buffer_magic = 0x544c;
inline constexpr uint16_t buffer_version = 1;
inline constexpr uint32_t head_bytes = 8;
inline constexpr uint32_t field_head_bytes = 8;
inline constexpr uint32_t count_bytes = 4;           // in front of an array's elements
inline constexpr uint32_t element_length_bytes = 4;  // in front of each element
inline constexpr uint32_t deepest = 8;
inline constexpr uint32_t most_fields = 64;

inline constexpr uint32_t type_integer = 1;
inline constexpr uint32_t type_characters = 3;
inline constexpr uint32_t type_records = 5;

inline const tlv_table_head &head_of(const void *table) {
  return *static_cast<const tlv_table_head *>(table);
}

// The descriptors follow the head directly, up to the one of -1s. A table has been checked before anybody walks it.
inline std::span<const tlv_field_desc> fields_of(const void *table) {
  const auto *first =
      reinterpret_cast<const tlv_field_desc *>(static_cast<const uint8_t *>(table) + sizeof(tlv_table_head));
  uint32_t count = 0;
  while (first[count].id != 0xffffffffu && count <= most_fields) ++count;
  return {first, count};
}

// Integers in a field: it may be an array of a fixed length.
inline uint32_t integers_in(const tlv_field_desc &field) {
  return field.max_len > field.size ? field.max_len / field.size : 1;
}

inline bool is_array(const tlv_field_desc &field) {
  return field.type == type_records && field.count != nullptr;
}

// TLVU_OK, or TLVU_TABLE: it reaches over its record, nests too deep, has two arrays or fields of one id.
uint32_t check_table(const void *table, uint32_t depth = 0);

inline uint16_t load16(const uint8_t *from) {
  return static_cast<uint16_t>(from[0] << 8 | from[1]);
}
inline uint32_t load32(const uint8_t *from) {
  return uint32_t{from[0]} << 24 | uint32_t{from[1]} << 16 | uint32_t{from[2]} << 8 | from[3];
}
inline void store16(uint8_t *to, uint16_t value) {
  to[0] = static_cast<uint8_t>(value >> 8);
  to[1] = static_cast<uint8_t>(value);
}
inline void store32(uint8_t *to, uint32_t value) {
  for (int i = 0; i < 4; ++i) to[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}
// One integer of 1, 2, 4 or 8 bytes between host and network order, either way.
inline void swap_integer(uint8_t *to, const uint8_t *from, uint32_t size) {
  for (uint32_t i = 0; i < size; ++i) to[i] = from[size - 1 - i];
}

// A field of a run of fields.
struct Field {
  uint16_t id;
  uint8_t type;
  std::span<const uint8_t> value;
};

// Takes the first field off a run. TLVU_END: the run is empty.
uint32_t take_field(std::span<const uint8_t> *run, Field *field);
// The fields of a whole buffer. `bytes` is what the caller holds.
uint32_t open_buffer(const uint8_t *buffer, uint64_t bytes, std::span<const uint8_t> *run);
// An array's value: the number of its elements, and the elements.
uint32_t open_array(std::span<const uint8_t> value, uint32_t *count, std::span<const uint8_t> *elements);
// Takes the first element off an array's elements: its fields.
uint32_t take_element(std::span<const uint8_t> *elements, std::span<const uint8_t> *run);
// Whether a value's length can be what a descriptor says.
uint32_t check_value(const tlv_field_desc &field, const Field &found);

// Bytes of a record as a buffer, 0 for one that cannot be encoded.
uint32_t encoded_size(const void *table, const void *record);
// Writes that many bytes.
void encode(const void *table, const void *record, uint8_t *out, uint32_t size);
// Elements of the array in a run of fields; 0 for none.
uint32_t array_count(const void *table, std::span<const uint8_t> run, uint32_t *count);
// Fills a record that has room for the elements of its array.
uint32_t decode(const void *table, std::span<const uint8_t> run, uint8_t *record, uint32_t elements);

}  // namespace rsw::tlvu

#endif
