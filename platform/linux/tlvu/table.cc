// SPDX-License-Identifier: Apache-2.0
#include "tlvu/table.h"

namespace rsw::tlvu {
namespace {

bool fits(const tlv_field_desc &field, uint64_t bytes, uint32_t record_size) {
  return uint64_t{field.offset} + bytes <= record_size;
}

uint32_t check_records(const tlv_field_desc &field, uint32_t record_size, uint32_t depth) {
  if (field.sub_table == nullptr || head_of(field.sub_table).size != field.size || field.size == 0) return TLVU_TABLE;
  // The array follows the record; a record without a count function is within it.
  if (is_array(field) ? field.offset != record_size || depth > 0 : !fits(field, field.size, record_size)) {
    return TLVU_TABLE;
  }
  return check_table(field.sub_table, depth + 1);
}

uint32_t check_field(const tlv_field_desc &field, uint32_t record_size, uint32_t depth) {
  if (field.id > 0xffff) return TLVU_TABLE;
  switch (field.type) {
    case type_integer: {
      const bool width = field.size == 1 || field.size == 2 || field.size == 4 || field.size == 8;
      if (!width || !fits(field, uint64_t{field.size} * integers_in(field), record_size)) return TLVU_TABLE;
      return field.max_len % field.size == 0 ? TLVU_OK : TLVU_TABLE;
    }
    case type_characters:
      return field.size == 1 && field.max_len > 0 && fits(field, field.max_len, record_size) ? TLVU_OK : TLVU_TABLE;
    case type_records:
      return check_records(field, record_size, depth);
    default:
      return TLVU_TABLE;
  }
}

}  // namespace

uint32_t check_table(const void *table, uint32_t depth) {
  if (table == nullptr) return TLVU_ARGUMENT;
  if (depth >= deepest) return TLVU_TABLE;
  const std::span<const tlv_field_desc> fields = fields_of(table);
  if (fields.size() > most_fields) return TLVU_TABLE;
  uint32_t arrays = 0;
  for (const tlv_field_desc &field : fields) {
    if (const uint32_t error = check_field(field, head_of(table).size, depth); error != TLVU_OK) return error;
    if (is_array(field) && ++arrays > 1) return TLVU_TABLE;
    for (const tlv_field_desc &other : fields.first(static_cast<size_t>(&field - fields.data()))) {
      if (other.id == field.id) return TLVU_TABLE;
    }
  }
  return TLVU_OK;
}

}  // namespace rsw::tlvu
