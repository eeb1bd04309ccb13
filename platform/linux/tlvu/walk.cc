// SPDX-License-Identifier: Apache-2.0
// Through the bytes of a buffer, one piece at a time: nothing is read that has not been counted before.
#include "tlvu/table.h"

namespace rsw::tlvu {

uint32_t take_field(std::span<const uint8_t> *run, Field *field) {
  if (run->empty()) return TLVU_END;
  if (run->size() < field_head_bytes) return TLVU_TRUNCATED;
  const uint8_t *head = run->data();
  const uint32_t length = load32(head + 4);
  if (head[3] != 0) return TLVU_TYPE;
  if (length > run->size() - field_head_bytes) return TLVU_TRUNCATED;
  *field = {.id = load16(head), .type = head[2], .value = run->subspan(field_head_bytes, length)};
  *run = run->subspan(field_head_bytes + length);
  return TLVU_OK;
}

uint32_t open_buffer(const uint8_t *buffer, uint64_t bytes, std::span<const uint8_t> *run) {
  if (bytes < head_bytes) return TLVU_TRUNCATED;
  if (load16(buffer) != buffer_magic || load16(buffer + 2) != buffer_version) return TLVU_HEAD;
  const uint32_t total = load32(buffer + 4);
  if (total > bytes) return TLVU_TRUNCATED;
  if (total < bytes || total < head_bytes) return TLVU_HEAD;
  *run = {buffer + head_bytes, total - head_bytes};
  return TLVU_OK;
}

uint32_t open_array(std::span<const uint8_t> value, uint32_t *count, std::span<const uint8_t> *elements) {
  if (value.size() < count_bytes) return TLVU_LENGTH;
  *count = load32(value.data());
  *elements = value.subspan(count_bytes);
  return *count <= elements->size() / element_length_bytes ? TLVU_OK : TLVU_COUNT;
}

uint32_t take_element(std::span<const uint8_t> *elements, std::span<const uint8_t> *run) {
  if (elements->size() < element_length_bytes) return TLVU_TRUNCATED;
  const uint32_t length = load32(elements->data());
  if (length > elements->size() - element_length_bytes) return TLVU_TRUNCATED;
  *run = elements->subspan(element_length_bytes, length);
  *elements = elements->subspan(element_length_bytes + length);
  return TLVU_OK;
}

uint32_t check_value(const tlv_field_desc &field, const Field &found) {
  if (found.type != field.type) return TLVU_TYPE;
  switch (field.type) {
    case type_integer:
      return found.value.size() == size_t{field.size} * integers_in(field) ? TLVU_OK : TLVU_LENGTH;
    case type_characters:
      return found.value.size() <= field.max_len ? TLVU_OK : TLVU_LENGTH;
    default:
      return found.value.size() >= count_bytes ? TLVU_OK : TLVU_LENGTH;
  }
}

}  // namespace rsw::tlvu
