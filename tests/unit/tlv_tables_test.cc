// SPDX-License-Identifier: Apache-2.0
// The two description tables, word by word at the offsets where the TLV library reads them.
#include <array>
#include <cstring>

#include "unit/library_test.h"

namespace unit {
namespace {

constexpr bool is_32_bit = sizeof(void *) == 4;
constexpr uintptr_t none = 0xffffffff;

// A pointer as a number, to stand beside the words of a descriptor.
template <class Pointer>
uintptr_t word(Pointer pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

template <size_t Words>
struct Layout {
  std::array<size_t, Words> offsets;
  std::array<bool, Words> pointers;
  size_t size;
};

// size, name, default_init, reserved.
constexpr Layout<4> head_layout = {is_32_bit ? std::array<size_t, 4>{0, 4, 8, 12} : std::array<size_t, 4>{0, 8, 16, 24},
                                   {false, true, true, false},
                                   is_32_bit ? 16 : 32};
// id, size, offset, type, three reserved, count, reserved, max_len, reserved, sub_table.
constexpr Layout<12> field_layout = {is_32_bit ? std::array<size_t, 12>{0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 44}
                                               : std::array<size_t, 12>{0, 4, 8, 12, 16, 20, 24, 32, 40, 44, 48, 56},
                                     {false, false, false, false, false, false, false, true, false, false, false, true},
                                     is_32_bit ? 48 : 64};

template <size_t Words>
std::array<uintptr_t, Words> read(const char *record, const Layout<Words> &layout) {
  std::array<uintptr_t, Words> words{};
  for (size_t i = 0; i < Words; i++) {
    uint32_t number = 0;
    if (layout.pointers[i]) {
      std::memcpy(&words[i], record + layout.offsets[i], sizeof(void *));
    } else {
      std::memcpy(&number, record + layout.offsets[i], sizeof number);
      words[i] = number;
    }
  }
  return words;
}

using Field = std::array<uintptr_t, 12>;

constexpr Field number_field(uintptr_t id, uintptr_t offset) {
  return {id, 4, offset, 1, 0, 0, 0, 0, 0, 4, none, 0};
}
constexpr Field end_of_fields = {none, none, none, 0, 0, 0, 0, 0, 0, 0, 0, 0};

template <class Table>
Field field_of(const Table &table, size_t i) {
  return read(reinterpret_cast<const char *>(&table) + head_layout.size + i * field_layout.size, field_layout);
}

template <class Table>
std::array<uintptr_t, 4> head_of(const Table &table) {
  return read(reinterpret_cast<const char *>(&table), head_layout);
}

TEST(TlvTables, HaveNothingBetweenHeadAndFields) {
  EXPECT_EQ(sizeof ip_if_info_msg_tbl, head_layout.size + 3 * field_layout.size);
  EXPECT_EQ(sizeof ip_if_info_msg_entry_tbl, head_layout.size + 10 * field_layout.size);
  if (!is_32_bit) return;
  EXPECT_EQ(sizeof ip_if_info_msg_tbl, 160u);
  EXPECT_EQ(sizeof ip_if_info_msg_entry_tbl, 496u);
}

TEST(TlvTables, TheMessagesHeadSaysItsSizeAndName) {
  const auto head = head_of(ip_if_info_msg_tbl);
  EXPECT_EQ(head[0], 4u);
  EXPECT_STREQ(reinterpret_cast<const char *>(head[1]), "ip_if_info_msg");
  EXPECT_EQ(head[2], 0u) << "zeros are what a message begins with";
  EXPECT_EQ(head[3], 0u);
}

TEST(TlvTables, TheEntrysHeadSaysItsSizeNameAndBeginning) {
  const auto head = head_of(ip_if_info_msg_entry_tbl);
  EXPECT_EQ(head[0], 96u);
  EXPECT_STREQ(reinterpret_cast<const char *>(head[1]), "ip_if_info_msg_entry");
  EXPECT_EQ(head[2], word(&ip_if_info_msg_default_init));
  EXPECT_EQ(head[3], 0u);
}

TEST(TlvTables, AMessageIsACountAndItsEntries) {
  EXPECT_EQ(field_of(ip_if_info_msg_tbl, 0), number_field(5, 0));
  EXPECT_EQ(field_of(ip_if_info_msg_tbl, 1),
            (Field{6, 96, 4, 5, 0, 0, 0, word(&ip_if_info_msg_get_sz), 0, 0, none, word(&ip_if_info_msg_entry_tbl)}));
  EXPECT_EQ(field_of(ip_if_info_msg_tbl, 2), end_of_fields);
}

TEST(TlvTables, AnEntryIsEightNumbersInTheOrderOfTheirOffsetsAndAName) {
  constexpr uintptr_t ids[] = {0, 3, 7, 2, 4, 8, 9, 10};
  for (size_t i = 0; i < std::size(ids); i++) {
    EXPECT_EQ(field_of(ip_if_info_msg_entry_tbl, i), number_field(ids[i], 4 * i)) << "field " << i;
  }
  EXPECT_EQ(field_of(ip_if_info_msg_entry_tbl, 8), (Field{1, 1, 32, 3, 0, 0, 0, 0, 0, 64, none, 0}));
  EXPECT_EQ(field_of(ip_if_info_msg_entry_tbl, 9), end_of_fields);
}

TEST(TlvTables, TheCountOfAMessageIsItsFirstWord) {
  const uint32_t message[] = {3, 77};
  EXPECT_EQ(ip_if_info_msg_get_sz(message), 3u);
  EXPECT_EQ(ip_if_info_msg_tbl.d[1].count(message), 3u);
}

TEST(TlvTables, AnEntryBeginsWithAZeroAndNothingElseIsTouched) {
  ip_if_info_msg_entry entry;
  std::memset(&entry, 0xee, sizeof entry);
  EXPECT_EQ(ip_if_info_msg_default_init(&entry), 0u);
  uint8_t expected[96];
  std::memset(expected, 0xee, sizeof expected);
  std::memset(expected, 0, 4);
  EXPECT_EQ(std::memcmp(&entry, expected, sizeof entry), 0);
}

}  // namespace
}  // namespace unit
