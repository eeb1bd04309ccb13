// SPDX-License-Identifier: Apache-2.0
// A buffer into a record. The bytes are another process's: a field is taken only if its type and length are what the
// table says, and an array only if the record's own count agrees with it, since that count is what readers go by.
#include <bitset>

#include "tlvu/table.h"

namespace rsw::tlvu {
namespace {

uint32_t decode_record(const void *table, std::span<const uint8_t> run, uint8_t *record, uint32_t elements);

uint32_t decode_records(const tlv_field_desc &field, const Field &found, uint8_t *to, uint32_t expected) {
  uint32_t count = 0;
  std::span<const uint8_t> elements;
  if (const uint32_t error = open_array(found.value, &count, &elements); error != TLVU_OK) return error;
  if (count != expected) return TLVU_COUNT;
  for (uint32_t i = 0; i < count; ++i) {
    std::span<const uint8_t> run;
    if (const uint32_t error = take_element(&elements, &run); error != TLVU_OK) return error;
    const uint32_t error = decode_record(field.sub_table, run, to + size_t{i} * field.size, 0);
    if (error != TLVU_OK) return error;
  }
  return elements.empty() ? TLVU_OK : TLVU_LENGTH;
}

uint32_t decode_value(const tlv_field_desc &field, const Field &found, uint8_t *record, uint32_t elements) {
  if (const uint32_t error = check_value(field, found); error != TLVU_OK) return error;
  uint8_t *to = record + field.offset;
  if (field.type == type_records) return decode_records(field, found, to, is_array(field) ? elements : 1);
  if (field.type == type_characters) {
    // What the default initialiser left behind the text must not stay.
    memset(to, 0, field.max_len);
    if (!found.value.empty()) memcpy(to, found.value.data(), found.value.size());
    return TLVU_OK;
  }
  for (uint32_t at = 0; at < found.value.size(); at += field.size) {
    swap_integer(to + at, found.value.data() + at, field.size);
  }
  return TLVU_OK;
}

const tlv_field_desc *field_by_id(std::span<const tlv_field_desc> fields, uint16_t id) {
  for (const tlv_field_desc &field : fields) {
    if (field.id == id) return &field;
  }
  return nullptr;
}

// The defaults of a record and of the records within it; where both have one, the inner one's holds.
uint32_t initialise(const void *table, uint8_t *record) {
  if (head_of(table).default_init != nullptr && head_of(table).default_init(record) != 0) return TLVU_INIT;
  for (const tlv_field_desc &field : fields_of(table)) {
    if (field.type != type_records || is_array(field)) continue;
    const uint32_t error = initialise(field.sub_table, record + field.offset);
    if (error != TLVU_OK) return error;
  }
  return TLVU_OK;
}

uint32_t decode_record(const void *table, std::span<const uint8_t> run, uint8_t *record, uint32_t elements) {
  if (const uint32_t error = initialise(table, record); error != TLVU_OK) return error;
  const std::span<const tlv_field_desc> fields = fields_of(table);
  std::bitset<most_fields> seen;
  Field found{};
  uint32_t error = TLVU_OK;
  while ((error = take_field(&run, &found)) == TLVU_OK) {
    const tlv_field_desc *field = field_by_id(fields, found.id);
    if (field == nullptr) continue;
    const auto number = static_cast<size_t>(field - fields.data());
    if (seen[number]) return TLVU_DUPLICATE;
    seen[number] = true;
    error = decode_value(*field, found, record, elements);
    if (error != TLVU_OK) return error;
  }
  if (error != TLVU_END) return error;
  for (const tlv_field_desc &field : fields) {
    if (is_array(field) && field.count(record) != elements) return TLVU_COUNT;
  }
  return TLVU_OK;
}

}  // namespace

uint32_t array_count(const void *table, std::span<const uint8_t> run, uint32_t *count) {
  *count = 0;
  const std::span<const tlv_field_desc> fields = fields_of(table);
  Field found{};
  uint32_t error = TLVU_OK;
  while ((error = take_field(&run, &found)) == TLVU_OK) {
    const tlv_field_desc *field = field_by_id(fields, found.id);
    if (field == nullptr || !is_array(*field)) continue;
    if (found.type != type_records) return TLVU_TYPE;
    std::span<const uint8_t> elements;
    if (error = open_array(found.value, count, &elements); error != TLVU_OK) return error;
  }
  return error == TLVU_END ? uint32_t{TLVU_OK} : error;
}

uint32_t decode(const void *table, std::span<const uint8_t> run, uint8_t *record, uint32_t elements) {
  return decode_record(table, run, record, elements);
}

}  // namespace rsw::tlvu
