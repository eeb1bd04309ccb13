// SPDX-License-Identifier: Apache-2.0
#include "urib/urib_types.h"

#include "pt/word_index_writer.h"

namespace rsw::urib {

std::vector<RecordTypeInfo> record_types() {
  std::vector<RecordTypeInfo> types = {
      {.type = node_type, .size = sizeof(Node), .align = node_align, .memory_type = 0, .name = "route node"},
      {.type = route_word_type, .size = sizeof(RouteWord), .align = 8, .memory_type = 0, .name = "route"},
      {.type = regions_type, .size = sizeof(Regions), .align = 64, .memory_type = 0, .name = "route regions"},
      {.type = block_type, .size = sizeof(Block), .align = 64, .memory_type = 0, .name = "route block"},
      {.type = body_type, .size = sizeof(Body), .align = 64, .memory_type = 0, .name = "route table body"},
      {.type = table_type, .size = sizeof(Table), .align = 16, .memory_type = 0, .name = "route table"},
      {.type = directory_type, .size = sizeof(Directory), .align = 64, .memory_type = 0, .name = "table directory"},
      {.type = attributes_type, .size = sizeof(Attributes), .align = 32, .memory_type = 0, .name = "route attributes"}};
  const auto add = [&types](RecordType first, const auto &sizes, uint32_t head, uint32_t each, std::string_view name) {
    for (size_t i = 0; i < sizes.size(); ++i) {
      types.push_back({.type = static_cast<RecordType>(first + i),
                       .size = head + each * sizes[i],
                       .align = 8,
                       .memory_type = 0,
                       .name = name});
    }
  };
  add(first_row_type, row_sizes, 0, sizeof(uint32_t), "route row");
  add(first_children_type, children_sizes, offsetof(Children, node), sizeof(uint32_t), "route children");
  add(first_next_hops_type, next_hops_sizes, offsetof(NextHops, hop), sizeof(NextHop), "next hops");
  const std::vector<RecordTypeInfo> index = word_index_types(first_table_index_type, most_table_index_log2, 0);
  types.insert(types.end(), index.begin(), index.end());
  add(first_direct_node_type, row_sizes, offsetof(DirectNode, row), sizeof(uint32_t), "route node with places");
  return types;
}

Purpose purpose_of(RecordType type) {
  if (type >= first_direct_node_type) return Purpose::search;
  if (type >= first_table_index_type) return Purpose::other;
  if (type >= first_next_hops_type || type == attributes_type || type == route_word_type) return Purpose::route;
  if (type == body_type || type == table_type || type == directory_type) return Purpose::other;
  return Purpose::search;
}

static_assert(first_table_index_type + most_table_index_log2 < first_direct_node_type);

Change::~Change() {
  for (const Entry &entry : fresh_) arena_.give_back(entry.type, at_address<void>(entry.address));
}

void *Change::allocate_record(RecordType type) {
  void *record = failed_ ? nullptr : arena_.allocate(type);
  if (record == nullptr) {
    failed_ = true;
  } else {
    fresh_.push_back({type, address_of(record)});
  }
  return record;
}

void Change::take_out(RecordType type, uint32_t address) {
  old_.push_back({type, address});
}

void Change::done() {
  for (const Entry &entry : old_) arena_.retire(entry.type, at_address<void>(entry.address));
  old_.clear();
  fresh_.clear();
}

}  // namespace rsw::urib
