// SPDX-License-Identifier: Apache-2.0
#include "tlvu.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform/tlv_tables.h"

namespace {

using namespace tlv_tables;

struct Decoded {
  uint32_t error;
  std::vector<uint8_t> record;  // without what the block has behind it
};

std::vector<uint8_t> message_with(uint32_t count, std::mt19937 &random) {
  std::vector<uint8_t> record(4 + count * sizeof(Entry));
  memcpy(record.data(), &count, 4);
  for (size_t at = 4; at < record.size(); ++at) record[at] = static_cast<uint8_t>(random());
  return record;
}

std::vector<uint8_t> encoded(const void *table, const void *record) {
  void *out = nullptr;
  uint32_t size = 0;
  if (tlvu_table_convert_struct_to_tlv(&out, &size, table, record, 0, 0, 0) != TLVU_OK) return {};
  const auto *bytes = static_cast<const uint8_t *>(out);
  std::vector<uint8_t> copy(bytes, bytes + size);
  tlvu_free(out, 0);
  return copy;
}

Decoded decoded(const void *table, const std::vector<uint8_t> &tlv, size_t record_size) {
  void *out = nullptr;
  const uint32_t error =
      tlvu_table_convert_tlv_to_struct(&out, tlv.data(), static_cast<uint32_t>(tlv.size()), table, 0);
  if (error != TLVU_OK) {
    EXPECT_EQ(out, nullptr);
    return {error, {}};
  }
  const auto *bytes = static_cast<const uint8_t *>(out);
  Decoded result{error, {bytes, bytes + record_size}};
  tlvu_free(out, 0);
  return result;
}

void set_total(std::vector<uint8_t> &tlv) {
  for (size_t i = 0; i < 4; ++i) tlv[4 + i] = static_cast<uint8_t>(tlv.size() >> (24 - 8 * i));
}

TEST(Tlv, ARecordWithoutEntriesHasItsCountOnly) {
  const uint32_t count = 0;
  const std::vector<uint8_t> tlv = encoded(&message_table, &count);
  EXPECT_EQ(tlv, (std::vector<uint8_t>{0x54, 0x4c, 0, 1, 0, 0, 0, 20, 0, 5, 1, 0, 0, 0, 0, 4, 0, 0, 0, 0}));
  EXPECT_EQ(decoded(&message_table, tlv, 4).record, (std::vector<uint8_t>{0, 0, 0, 0}));
}

TEST(Tlv, RandomRecordsSurviveTheWayThereAndBack) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 300; ++round) {
    const std::vector<uint8_t> record = message_with(static_cast<uint32_t>(random() % 40), random);
    const std::vector<uint8_t> tlv = encoded(&message_table, record.data());
    ASSERT_EQ(tlv.size(), tlvu_table_size(&message_table, record.data()));
    uint32_t size = 0;
    ASSERT_EQ(tlvu_table_get_struct_size_from_tlv(&size, tlv.data(), 0, &message_table), 0u);
    ASSERT_EQ(size, record.size());
    ASSERT_EQ(decoded(&message_table, tlv, record.size()).record, record);
  }
}

TEST(Tlv, IntegersAreInNetworkOrder) {
  Entry entry{};
  entry.words[0] = 0x01020304;
  const std::vector<uint8_t> tlv = encoded(&entry_table, &entry);
  EXPECT_EQ((std::vector<uint8_t>(tlv.begin() + 16, tlv.begin() + 20)), (std::vector<uint8_t>{1, 2, 3, 4}));
}

TEST(Tlv, ANameOf64CharactersSurvives) {
  Entry entry{};
  memset(entry.name, 'n', sizeof entry.name);
  const Decoded back = decoded(&entry_table, encoded(&entry_table, &entry), sizeof entry);
  ASSERT_EQ(back.error, 0u);
  EXPECT_EQ(memcmp(back.record.data(), &entry, sizeof entry), 0);
}

TEST(Tlv, IntegersOfEachWidthAndNestedRecordsSurvive) {
  Wide wide{.one = 0xab, .two = 0xcdef, .four = {1, 2, 3}, .eight = 0x0102030405060708, .inner = {}};
  wide.inner.words[3] = 77;
  const Decoded back = decoded(&wide_table, encoded(&wide_table, &wide), sizeof wide);
  ASSERT_EQ(back.error, 0u);
  Wide found{};
  memcpy(&found, back.record.data(), sizeof found);
  EXPECT_EQ(found.one, wide.one);
  EXPECT_EQ(found.two, wide.two);
  EXPECT_EQ(found.four[2], 3u);
  EXPECT_EQ(found.eight, wide.eight);
  EXPECT_EQ(found.inner.words[3], 77u);
}

TEST(Tlv, EveryTruncationIsRefused) {
  std::mt19937 random(1);
  const std::vector<uint8_t> record = message_with(3, random);
  const std::vector<uint8_t> whole = encoded(&message_table, record.data());
  for (size_t length = 0; length < whole.size(); ++length) {
    std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
    EXPECT_NE(decoded(&message_table, cut, record.size()).error, 0u) << length;
    if (length <= 8) continue;
    // Not even when the head agrees. With nothing behind the head, it would be a message of defaults.
    set_total(cut);
    EXPECT_NE(decoded(&message_table, cut, record.size()).error, 0u) << length;
  }
}

TEST(Tlv, ChangedBytesEndInACodeOrARecord) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::vector<uint8_t> record = message_with(3, random);
  const std::vector<uint8_t> whole = encoded(&message_table, record.data());
  for (int round = 0; round < 20000; ++round) {
    std::vector<uint8_t> changed = whole;
    for (uint32_t i = 0; i <= random() % 4; ++i) changed[random() % changed.size()] = static_cast<uint8_t>(random());
    const Decoded back = decoded(&message_table, changed, 4);
    if (back.error != TLVU_OK) {
      ASSERT_LE(back.error, uint32_t{TLVU_INIT});
    }
  }
}

TEST(Tlv, RandomBytesAreRefused) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 5000; ++round) {
    std::vector<uint8_t> bytes(random() % 200);
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
    if (bytes.size() > 1 && bytes[0] == 0x54) bytes[0] = 0;  // anything but our own mark
    ASSERT_NE(decoded(&message_table, bytes, 4).error, 0u);
  }
}

TEST(Tlv, ACountThatTheBytesCannotHoldTakesNoMemory) {
  // Field 5 says 2^28 entries, and so does the array, in 28 bytes.
  std::vector<uint8_t> tlv = {0x54, 0x4c, 0, 1, 0, 0, 0, 0, 0, 5, 1, 0, 0,  0, 0, 4,
                              16,   0,    0, 0, 0, 6, 5, 0, 0, 0, 0, 4, 16, 0, 0, 0};
  set_total(tlv);
  EXPECT_EQ(decoded(&message_table, tlv, 4).error, uint32_t{TLVU_COUNT});
}

TEST(Tlv, ACountThatTheArrayDoesNotHaveIsRefused) {
  std::mt19937 random(1);
  std::vector<uint8_t> tlv = encoded(&message_table, message_with(2, random).data());
  tlv[19] = 3;
  EXPECT_EQ(decoded(&message_table, tlv, 4).error, uint32_t{TLVU_COUNT});
}

TEST(Tlv, UnknownFieldsArePassedOver) {
  const uint32_t count = 0;
  std::vector<uint8_t> tlv = encoded(&message_table, &count);
  tlv.insert(tlv.end(), {0, 99, 1, 0, 0, 0, 0, 3, 7, 7, 7});
  set_total(tlv);
  EXPECT_EQ(decoded(&message_table, tlv, 4).error, 0u);
}

TEST(Tlv, AFieldThatIsThereTwiceIsRefused) {
  const uint32_t count = 0;
  std::vector<uint8_t> tlv = encoded(&message_table, &count);
  tlv.insert(tlv.end(), {0, 5, 1, 0, 0, 0, 0, 4, 0, 0, 0, 0});
  set_total(tlv);
  EXPECT_EQ(decoded(&message_table, tlv, 4).error, uint32_t{TLVU_DUPLICATE});
}

TEST(Tlv, WrongTypesAndLengthsAreRefused) {
  const uint32_t count = 0;
  const std::vector<uint8_t> tlv = encoded(&message_table, &count);
  std::vector<uint8_t> type = tlv;
  type[10] = 3;
  EXPECT_EQ(decoded(&message_table, type, 4).error, uint32_t{TLVU_TYPE});
  std::vector<uint8_t> length = tlv;
  length[15] = 3;
  length.pop_back();
  set_total(length);
  EXPECT_EQ(decoded(&message_table, length, 4).error, uint32_t{TLVU_LENGTH});
  std::vector<uint8_t> head = tlv;
  head[3] = 2;
  EXPECT_EQ(decoded(&message_table, head, 4).error, uint32_t{TLVU_HEAD});
}

TEST(Tlv, MissingFieldsAreAsTheDefaultInitialiserHasThem) {
  const std::vector<uint8_t> empty = {0x54, 0x4c, 0, 1, 0, 0, 0, 8};
  const Decoded back = decoded(&defaults_table, empty, sizeof(Entry));
  ASSERT_EQ(back.error, 0u);
  Entry entry{};
  memcpy(&entry, back.record.data(), sizeof entry);
  EXPECT_EQ(entry.words[0], 4711u);
  EXPECT_EQ(entry.words[1], 0u);
}

TEST(Tlv, AWalkShowsEachKnownFieldAndEnds) {
  std::mt19937 random(1);
  const std::vector<uint8_t> record = message_with(2, random);
  const std::vector<uint8_t> tlv = encoded(&message_table, record.data());
  tlvu_iterator iterator;
  ASSERT_EQ(tlvu_field_itr_init(reinterpret_cast<uintptr_t>(&iterator), reinterpret_cast<uintptr_t>(tlv.data()),
                                tlv.size(), &message_table, 0, 0),
            0u);
  tlvu_field field{};
  ASSERT_EQ(tlvu_field_itr_get_next(&iterator, &field), 0u);
  EXPECT_EQ(field.id, 5u);
  EXPECT_EQ(field.length, 4u);
  EXPECT_EQ(field.count, 1u);
  ASSERT_EQ(tlvu_field_itr_get_next(&iterator, &field), 0u);
  EXPECT_EQ(field.id, 6u);
  EXPECT_EQ(field.count, 2u);
  tlvu_field last{};
  EXPECT_EQ(tlvu_field_itr_get_next(&iterator, &last), uint32_t{TLVU_END});
  // The second entry of the array, its first field.
  ASSERT_EQ(tlvu_field_itr_init(reinterpret_cast<uintptr_t>(&iterator), reinterpret_cast<uintptr_t>(field.value),
                                field.length, &entry_table, 1, 5),
            0u);
  ASSERT_EQ(tlvu_field_itr_get_next(&iterator, &last), 0u);
  const auto *value = static_cast<const uint8_t *>(last.value);
  EXPECT_EQ(value[3], record[4 + sizeof(Entry)]);
  EXPECT_EQ(tlvu_field_itr_init(reinterpret_cast<uintptr_t>(&iterator), reinterpret_cast<uintptr_t>(field.value),
                                field.length, &entry_table, 2, 5),
            uint32_t{TLVU_END});
}

TEST(Tlv, AFieldIsFoundByItsId) {
  Entry entry{};
  entry.words[2] = 9;
  strcpy(entry.name, "eth0");
  const std::vector<uint8_t> tlv = encoded(&entry_table, &entry);
  const auto get = [&](uintptr_t id, tlvu_field *field) {
    return tlvu_get_field(reinterpret_cast<uintptr_t>(field), reinterpret_cast<uintptr_t>(tlv.data()), tlv.size(), id,
                          0, &entry_table);
  };
  tlvu_field field{};
  ASSERT_EQ(get(1, &field), 0u);
  EXPECT_EQ(std::string(static_cast<const char *>(field.value), field.length), "eth0");
  ASSERT_EQ(get(7, &field), 0u);
  EXPECT_EQ(static_cast<const uint8_t *>(field.value)[3], 9);
  EXPECT_EQ(get(77, &field), uint32_t{TLVU_END});
}

TEST(Tlv, TablesThatDescribeNoRecordAreRefused) {
  Entry entry{};
  EXPECT_EQ(tlvu_table_size(&beyond_table, &entry), 0u);
  EXPECT_EQ(tlvu_table_size(&endless_table, &entry), 0u);
  EXPECT_EQ(tlvu_table_size(nullptr, &entry), 0u);
  void *out = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(tlvu_table_convert_struct_to_tlv(&out, &size, &beyond_table, &entry, 0, 0, 0), uint32_t{TLVU_TABLE});
  EXPECT_EQ(tlvu_table_convert_struct_to_tlv(nullptr, &size, &entry_table, &entry, 0, 0, 0), uint32_t{TLVU_ARGUMENT});
  EXPECT_EQ(tlvu_table_convert_tlv_to_struct(&out, nullptr, 8, &entry_table, 0), uint32_t{TLVU_ARGUMENT});
  EXPECT_EQ(tlvu_table_get_struct_size_from_tlv(nullptr, &entry, 0, &entry_table), uint32_t{TLVU_ARGUMENT});
}

}  // namespace
