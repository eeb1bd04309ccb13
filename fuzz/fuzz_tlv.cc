// SPDX-License-Identifier: Apache-2.0
// Buffers of any bytes as TLV: decoded, measured and walked. What is decoded has the size that was announced, no more
// than the bytes account for, and is the same after another way there and back. What a walk finds lies in the buffer,
// and is found by its id too.
#include <stdlib.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "platform/tlv_tables.h"

namespace {

void check_record(const void *table, const void *record, uint64_t largest) {
  void *again = nullptr;
  uint32_t size = 0;
  if (tlvu_table_convert_struct_to_tlv(&again, &size, table, record, 0, 0, 0) != TLVU_OK) abort();
  if (size != tlvu_table_size(table, record)) abort();
  uint32_t bytes = 0;
  if (tlvu_table_get_struct_size_from_tlv(&bytes, again, 0, table) != TLVU_OK || bytes > largest) abort();
  void *back = nullptr;
  if (tlvu_table_convert_tlv_to_struct(&back, again, size, table, 0) != TLVU_OK) abort();
  if (memcmp(back, record, bytes) != 0) abort();
  tlvu_free(back, 0);
  tlvu_free(again, 0);
}

void decode(const void *table, const uint8_t *bytes, size_t size, uint64_t largest) {
  void *record = nullptr;
  const uint32_t error = tlvu_table_convert_tlv_to_struct(&record, bytes, static_cast<uint32_t>(size), table, 0);
  if ((error == TLVU_OK) != (record != nullptr) || error > TLVU_INIT) abort();
  if (record != nullptr) check_record(table, record, largest);
  tlvu_free(record, 0);
}

void walk(const void *table, const uint8_t *bytes, size_t size) {
  tlvu_iterator iterator;
  const auto buffer = reinterpret_cast<uintptr_t>(bytes);
  if (tlvu_field_itr_init(reinterpret_cast<uintptr_t>(&iterator), buffer, size, table, 0, 0) != TLVU_OK) return;
  tlvu_field field{};
  while (tlvu_field_itr_get_next(&iterator, &field) == TLVU_OK) {
    const auto *value = static_cast<const uint8_t *>(field.value);
    if (value < bytes || value + field.length > bytes + size) abort();
    tlvu_field by_id{};
    if (tlvu_get_field(reinterpret_cast<uintptr_t>(&by_id), buffer, size, field.id, 0, table) != TLVU_OK) abort();
    if (by_id.id != field.id || static_cast<const uint8_t *>(by_id.value) > value) abort();
    tlvu_iterator element;
    const uint32_t error =
        tlvu_field_itr_init(reinterpret_cast<uintptr_t>(&element), reinterpret_cast<uintptr_t>(value), field.length,
                            &tlv_tables::entry_table, field.count > 0 ? field.count - 1 : 0, 5);
    tlvu_field inner{};
    while (error == TLVU_OK && tlvu_field_itr_get_next(&element, &inner) == TLVU_OK) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Exactly its size, so that one byte read too much is seen.
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]);
  if (size > 0) memcpy(bytes.get(), data, size);
  decode(&tlv_tables::message_table, bytes.get(), size, 4 + size / 4 * sizeof(tlv_tables::Entry));
  decode(&tlv_tables::wide_table, bytes.get(), size, sizeof(tlv_tables::Wide));
  walk(&tlv_tables::message_table, bytes.get(), size);
  walk(&tlv_tables::wide_table, bytes.get(), size);
  return 0;
}
