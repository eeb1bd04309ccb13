// SPDX-License-Identifier: Apache-2.0
// The TLV utilities as their callers see them: arguments and tables are checked here, once per call.
#include "tlvu.h"

#include <cstdarg>
#include <cstdlib>

#include "log/channels.h"
#include "tlvu/table.h"

using namespace rsw::tlvu;

namespace {

// Bytes of the record in a run of fields, its array included.
uint32_t decoded_size(const void *table, std::span<const uint8_t> run, uint32_t *elements, uint32_t *size) {
  if (const uint32_t error = array_count(table, run, elements); error != TLVU_OK) return error;
  uint64_t bytes = head_of(table).size;
  for (const tlv_field_desc &field : fields_of(table)) {
    if (is_array(field)) bytes += uint64_t{*elements} * field.size;
  }
  if (bytes > INT32_MAX) return TLVU_TOO_LARGE;
  *size = static_cast<uint32_t>(bytes);
  return TLVU_OK;
}

void show(const struct tlv_field_desc &field, const Field &found, tlvu_field *out) {
  const auto length = static_cast<uint32_t>(found.value.size());
  out->id = found.id;
  out->type = found.type;
  out->length = length;
  out->count = field.type == type_records ? load32(found.value.data()) : length / field.size;
  out->value = found.value.data();
}

uint32_t next_field(tlvu_iterator *iterator, tlvu_field *out) {
  std::span<const uint8_t> run(iterator->next, iterator->end);
  Field found{};
  uint32_t error = TLVU_OK;
  while ((error = take_field(&run, &found)) == TLVU_OK) {
    for (const tlv_field_desc &field : fields_of(iterator->table)) {
      if (field.id != found.id) continue;
      if (error = check_value(field, found); error != TLVU_OK) break;
      iterator->next = run.data();
      show(field, found, out);
      return TLVU_OK;
    }
    if (error != TLVU_OK) break;
  }
  iterator->next = iterator->end;
  return error;
}

uint32_t open_element(std::span<const uint8_t> value, uintptr_t index, std::span<const uint8_t> *run) {
  uint32_t count = 0;
  std::span<const uint8_t> elements;
  if (const uint32_t error = open_array(value, &count, &elements); error != TLVU_OK) return error;
  if (index >= count) return TLVU_END;
  for (uintptr_t i = 0; i <= index; ++i) {
    if (const uint32_t error = take_element(&elements, run); error != TLVU_OK) return error;
  }
  return TLVU_OK;
}

}  // namespace

extern "C" {

uint32_t tlvu_field_itr_init(uintptr_t a, uintptr_t b, uintptr_t c, const void *table, uintptr_t d, uint16_t e) {
  auto *iterator = reinterpret_cast<tlvu_iterator *>(a);
  const auto *buffer = reinterpret_cast<const uint8_t *>(b);
  if (iterator == nullptr) return TLVU_ARGUMENT;
  *iterator = {};
  if (buffer == nullptr || (e == 0 ? d != 0 : e != type_records)) return TLVU_ARGUMENT;
  if (const uint32_t error = check_table(table); error != TLVU_OK) return error;
  std::span<const uint8_t> run;
  const uint32_t error = e == 0 ? open_buffer(buffer, c, &run) : open_element({buffer, c}, d, &run);
  if (error == TLVU_OK) *iterator = {run.data(), run.data() + run.size(), table};
  return error;
}

uint32_t tlvu_field_itr_get_next(void *iterator, void *out) {
  auto *walk = static_cast<tlvu_iterator *>(iterator);
  if (walk == nullptr || out == nullptr || walk->table == nullptr) return TLVU_ARGUMENT;
  return next_field(walk, static_cast<tlvu_field *>(out));
}

uint32_t tlvu_get_field(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, const void *table) {
  auto *out = reinterpret_cast<tlvu_field *>(a);
  if (out == nullptr || e != 0) return TLVU_ARGUMENT;
  tlvu_iterator iterator;
  uint32_t error = tlvu_field_itr_init(reinterpret_cast<uintptr_t>(&iterator), b, c, table, 0, 0);
  tlvu_field found{};
  while (error == TLVU_OK && (error = next_field(&iterator, &found)) == TLVU_OK) {
    if (found.id != d) continue;
    *out = found;
    return TLVU_OK;
  }
  return error;
}

uint32_t tlvu_table_size(const void *table, const void *record) {
  return record != nullptr && check_table(table) == TLVU_OK ? encoded_size(table, record) : 0;
}

uint32_t tlvu_table_get_struct_size_from_tlv(uint32_t *size, const void *tlv, uint32_t, const void *table) {
  if (size == nullptr || tlv == nullptr) return TLVU_ARGUMENT;
  if (const uint32_t error = check_table(table); error != TLVU_OK) return error;
  const auto *buffer = static_cast<const uint8_t *>(tlv);
  std::span<const uint8_t> run;
  if (const uint32_t error = open_buffer(buffer, load32(buffer + 4), &run); error != TLVU_OK) return error;
  uint32_t elements = 0;
  return decoded_size(table, run, &elements, size);
}

uint32_t tlvu_table_convert_struct_to_tlv(void **out, uint32_t *out_size, const void *table, const void *record,
                                          uintptr_t, uintptr_t, uintptr_t) {
  if (out == nullptr || out_size == nullptr || record == nullptr) return TLVU_ARGUMENT;
  *out = nullptr;
  *out_size = 0;
  if (const uint32_t error = check_table(table); error != TLVU_OK) return error;
  const uint32_t size = encoded_size(table, record);
  if (size == 0) return TLVU_TOO_LARGE;
  auto *buffer = static_cast<uint8_t *>(calloc(1, size));
  if (buffer == nullptr) return TLVU_MEMORY;
  encode(table, record, buffer, size);
  *out = buffer;
  *out_size = size;
  return TLVU_OK;
}

uint32_t tlvu_table_convert_tlv_to_struct(void **out, const void *tlv, uint32_t tlv_size, const void *table,
                                          uintptr_t) {
  if (out == nullptr) return TLVU_ARGUMENT;
  *out = nullptr;
  if (tlv == nullptr) return TLVU_ARGUMENT;
  if (const uint32_t error = check_table(table); error != TLVU_OK) return error;
  std::span<const uint8_t> run;
  if (const uint32_t error = open_buffer(static_cast<const uint8_t *>(tlv), tlv_size, &run); error != TLVU_OK) {
    return error;
  }
  uint32_t elements = 0;
  uint32_t size = 0;
  if (const uint32_t error = decoded_size(table, run, &elements, &size); error != TLVU_OK) return error;
  auto *record = static_cast<uint8_t *>(calloc(1, size > 0 ? size : 1));
  if (record == nullptr) return TLVU_MEMORY;
  const uint32_t error = decode(table, run, record, elements);
  if (error != TLVU_OK) {
    free(record);
    return error;
  }
  *out = record;
  return TLVU_OK;
}

void tlvu_free(void *buffer, uint32_t) {
  free(buffer);
}

void tlvu_error_print(const char *format, ...) {
  if (format == nullptr) return;
  const rsw::channels::ErrnoKept kept;
  va_list arguments;
  va_start(arguments, format);
  rsw::channels::debug_vline("", format, arguments);
  va_end(arguments);
}

}  // extern "C"
