// SPDX-License-Identifier: Apache-2.0
// The record types of the route tables in the writer's arena. Rows, children and next hops come in sizes, each a type.
#ifndef RSW_URIB_URIB_TYPES_H
#define RSW_URIB_URIB_TYPES_H

#include <array>
#include <vector>

#include "sm/arena.h"
#include "urib/urib_records.h"

namespace rsw::urib {

inline constexpr RecordType node_type = 1;
inline constexpr RecordType route_word_type = 2;
inline constexpr RecordType regions_type = 3;
inline constexpr RecordType block_type = 4;
inline constexpr RecordType body_type = 5;
inline constexpr RecordType table_type = 6;
inline constexpr RecordType directory_type = 7;
inline constexpr RecordType attributes_type = 8;

// How many routes, children or next hops the types have room for.
inline constexpr std::array<uint32_t, 14> row_sizes = {2, 4, 6, 8, 10, 12, 16, 20, 24, 32, 48, 64, 96, 126};
inline constexpr std::array<uint32_t, 9> children_sizes = {2, 4, 6, 10, 16, 24, 32, 48, 64};
inline constexpr std::array<uint32_t, 9> next_hops_sizes = {1, 2, 4, 8, 16, 32, 64, 128, 256};
static_assert(row_sizes.back() == most_routes_of_node && children_sizes.back() == 64);
static_assert(next_hops_sizes.back() == most_next_hops);

inline constexpr RecordType first_row_type = 16;
inline constexpr RecordType first_children_type = 32;
inline constexpr RecordType first_next_hops_type = 48;
inline constexpr RecordType first_table_index_type = 64;
inline constexpr uint32_t most_table_index_log2 = 20;
inline constexpr RecordType first_direct_node_type = 96;

// The type of the smallest size with room for `count`, which is at least 1 and at most the last size.
template <size_t sizes>
[[nodiscard]] constexpr RecordType type_for(RecordType first, const std::array<uint32_t, sizes> &room, uint32_t count) {
  RecordType type = first;
  for (const uint32_t size : room) {
    if (size >= count) break;
    ++type;
  }
  return type;
}
[[nodiscard]] constexpr RecordType row_type(uint32_t count) {
  return type_for(first_row_type, row_sizes, count);
}
// Of a node of level 18, which has its row in itself.
[[nodiscard]] constexpr RecordType direct_node_type(uint32_t count) {
  return type_for(first_direct_node_type, row_sizes, count);
}
[[nodiscard]] constexpr RecordType children_type(uint32_t count) {
  return type_for(first_children_type, children_sizes, count);
}
[[nodiscard]] constexpr RecordType next_hops_type(uint32_t count) {
  return type_for(first_next_hops_type, next_hops_sizes, count);
}
static_assert(row_type(1) == 16 && row_type(3) == 17 && row_type(126) == 29);

std::vector<RecordTypeInfo> record_types();

// Whether a type belongs to what searches walk over, or to what they find.
enum class Purpose : uint8_t { search, route, other };
[[nodiscard]] Purpose purpose_of(RecordType type);

// The records that one change allocates, and those that it takes out of use. Until done(), nothing has happened: the
// allocated ones go back at the end, the others stay.
class Change {
 public:
  explicit Change(Arena &arena) : arena_(arena) {}
  Change(const Change &) = delete;
  Change &operator=(const Change &) = delete;
  ~Change();

  // Null: no room, and failed() from now on.
  template <class T>
  [[nodiscard]] T *allocate(RecordType type) {
    return static_cast<T *>(allocate_record(type));
  }
  // After done() it is retired.
  void take_out(RecordType type, uint32_t address);
  [[nodiscard]] bool failed() const { return failed_; }
  void done();

 private:
  struct Entry {
    RecordType type;
    uint32_t address;
  };
  void *allocate_record(RecordType type);

  Arena &arena_;
  std::vector<Entry> fresh_, old_;
  bool failed_ = false;
};

}  // namespace rsw::urib

#endif
