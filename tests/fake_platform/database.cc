// SPDX-License-Identifier: Apache-2.0
#include "fake_platform/database.h"

#include <cstring>

namespace fake_platform {
namespace {

constexpr uint32_t ip_component = 267;

uint32_t word_of(const void *record) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record));
}

struct IodListElement {
  ip_iod_elem head;
  uint32_t next;
};

}  // namespace

Database::Database() : root_(platform().memory.make<ip_root>()) {
  platform().descriptor.root = word_of(root_);
  platform().segment = &platform().descriptor;
  platform().log.name(&platform().descriptor, "segment");
}

ip_api_context_type *Database::context_without_tree(uint32_t context_id, const std::string &name, uint32_t table_id) {
  auto *record = platform().memory.make<ip_api_context_type>();
  record->context_id = context_id;
  record->table_id = table_id;
  name.copy(record->name, sizeof record->name - 1);
  if (root_->contexts.get() == nullptr) {
    root_->contexts = record;
    return record;
  }
  ip_api_context_type *last = root_->contexts.get();
  while (last->next.get() != nullptr) last = last->next.get();
  last->next = record;
  return record;
}

ip_api_context_type *Database::context(uint32_t context_id, const std::string &name, uint32_t table_id) {
  ip_api_context_type *record = context_without_tree(context_id, name, table_id);
  void *handle = platform().memory.allocate(16);
  platform().trees[handle] = {};
  platform().log.name(handle, "tree of " + name);
  record->local_pt = handle;
  return record;
}

ip_iftype *Database::interface(uint32_t iod, const std::vector<AddressAndLength> &list, uint32_t ifindex) {
  auto *record = platform().memory.make<ip_iftype>();
  addresses(record, list);
  Interface &entry = platform().interfaces[iod];
  entry.ifindex = ifindex;
  entry.extensions[ip_component] = record;
  return record;
}

ip_addrtype *Database::addresses(ip_iftype *record, const std::vector<AddressAndLength> &list) {
  ip_addrtype *first = nullptr;
  for (auto entry = list.rbegin(); entry != list.rend(); ++entry) {
    auto *made = platform().memory.make<ip_addrtype>();
    made->addr = entry->addr;
    made->mask_len = entry->mask_len;
    made->next = first;
    first = made;
  }
  record->addr_list = first;
  return first;
}

ip_maddrtype *Database::groups(ip_iftype *record, const std::vector<uint32_t> &list) {
  ip_maddrtype *first = nullptr;
  for (auto group = list.rbegin(); group != list.rend(); ++group) {
    auto *made = platform().memory.make<ip_maddrtype>();
    made->group = *group;
    made->next = first;
    first = made;
  }
  record->group_list = first;
  return first;
}

void Database::unnumbered(ip_iftype *record, uint32_t source_iod, const std::string &source_name) {
  void *data = platform().memory.allocate(source_name.size() + 1);
  std::memcpy(data, source_name.c_str(), source_name.size() + 1);
  record->unnum_src_iod = source_iod;
  record->unnum_data = static_cast<ip_unnumbered *>(data);
}

ip_local_addr_node *Database::node(ip_api_context_type *context, uint32_t addr, const std::vector<uint32_t> &iods,
                                   NodeOptions options) {
  auto *made = platform().memory.make<ip_local_addr_node>();
  platform().trees[context->local_pt.get()].insert(addr, options.length, made);
  if (!options.with_info) return made;
  auto *info = platform().memory.make<ip_local_addr_info>();
  info->vip = options.vip ? 1 : 0;
  uint32_t next = 0;
  ip_iod_elem *first = nullptr;
  for (auto iod = iods.rbegin(); iod != iods.rend(); ++iod) {
    auto *element = platform().memory.make<IodListElement>();
    element->head.iod = *iod;
    element->next = next;
    next = word_of(element);
    first = &element->head;
  }
  info->iod_list = first;
  made->info = info;
  return made;
}

}  // namespace fake_platform
