// SPDX-License-Identifier: Apache-2.0
// A record into a buffer: its size first, by the same walk that then writes.
#include "tlvu/table.h"

namespace rsw::tlvu {
namespace {

// Counts bytes, and writes them where there is room to write to. What it does not write it still counts.
class Writer {
 public:
  Writer(uint8_t *out, uint64_t room) : out_(out), room_(room) {}
  [[nodiscard]] uint64_t bytes() const { return bytes_; }
  uint8_t *take(uint64_t bytes) {
    uint8_t *place = out_ != nullptr && bytes <= room_ - bytes_ ? out_ + bytes_ : nullptr;
    bytes_ += bytes;
    return place;
  }
  // A word whose value is known later.
  uint8_t *reserve_word() { return take(4); }
  static void settle_word(uint8_t *place, uint64_t value) {
    if (place != nullptr) store32(place, static_cast<uint32_t>(value));
  }
  // The head of a field, but for its length, which is behind the result.
  uint8_t *begin_field(const tlv_field_desc &field) {
    if (uint8_t *place = take(4)) {
      store16(place, static_cast<uint16_t>(field.id));
      place[2] = static_cast<uint8_t>(field.type);
      place[3] = 0;
    }
    return reserve_word();
  }

 private:
  uint8_t *out_;
  uint64_t room_;
  uint64_t bytes_ = 0;
};

void write_record(Writer &writer, const void *table, const uint8_t *record);

void write_integers(Writer &writer, const tlv_field_desc &field, const uint8_t *from) {
  const uint32_t count = integers_in(field);
  if (uint8_t *to = writer.take(uint64_t{count} * field.size)) {
    for (uint32_t i = 0; i < count; ++i) swap_integer(to + i * field.size, from + i * field.size, field.size);
  }
}

void write_characters(Writer &writer, const tlv_field_desc &field, const uint8_t *from) {
  uint32_t length = field.max_len;
  while (length > 0 && from[length - 1] == 0) --length;
  if (uint8_t *to = writer.take(length); to != nullptr && length > 0) memcpy(to, from, length);
}

void write_records(Writer &writer, const tlv_field_desc &field, const uint8_t *from, uint32_t count) {
  Writer::settle_word(writer.reserve_word(), count);
  for (uint32_t i = 0; i < count && writer.bytes() <= UINT32_MAX; ++i) {
    uint8_t *length = writer.reserve_word();
    const uint64_t before = writer.bytes();
    write_record(writer, field.sub_table, from + size_t{i} * field.size);
    Writer::settle_word(length, writer.bytes() - before);
  }
}

void write_record(Writer &writer, const void *table, const uint8_t *record) {
  for (const tlv_field_desc &field : fields_of(table)) {
    const uint32_t count = is_array(field) ? field.count(record) : 1;
    if (count == 0) continue;
    uint8_t *length = writer.begin_field(field);
    const uint64_t before = writer.bytes();
    const uint8_t *from = record + field.offset;
    if (field.type == type_integer) {
      write_integers(writer, field, from);
    } else if (field.type == type_characters) {
      write_characters(writer, field, from);
    } else {
      write_records(writer, field, from, count);
    }
    Writer::settle_word(length, writer.bytes() - before);
  }
}

uint64_t write_buffer(const void *table, const void *record, uint8_t *out, uint64_t room) {
  Writer writer(out, room);
  if (uint8_t *place = writer.take(4)) {
    store16(place, buffer_magic);
    store16(place + 2, buffer_version);
  }
  uint8_t *length = writer.reserve_word();
  write_record(writer, table, static_cast<const uint8_t *>(record));
  Writer::settle_word(length, writer.bytes());
  return writer.bytes();
}

}  // namespace

uint32_t encoded_size(const void *table, const void *record) {
  const uint64_t bytes = write_buffer(table, record, nullptr, 0);
  return bytes <= UINT32_MAX ? static_cast<uint32_t>(bytes) : 0;
}

void encode(const void *table, const void *record, uint8_t *out, uint32_t size) {
  write_buffer(table, record, out, size);
}

}  // namespace rsw::tlvu
