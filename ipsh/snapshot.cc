// SPDX-License-Identifier: Apache-2.0
// Reading the shared database row by row.
//
// The rules of every reader hold here too: a record is looked at only inside a read step (the client lock of libip),
// what is kept is copied, and no pointer leaves its step. A step covers one interface or a bounded batch of tree nodes;
// between two steps the writer may do what it likes. So:
//   - the interface list is walked by iod through the platform (im_next_iod, im_view: each answer is of one moment),
//   and
//     an interface whose view or record is gone when its turn comes is skipped;
//   - a tree is walked by key: the next batch goes on strictly after the last key seen, whether or not that key is
//   still
//     in the tree;
//   - words that lead outside the shared windows end a walk, and every walk has a bound: a damaged segment gives a
//   short
//     table, never a fault or an endless loop.
#include "snapshot.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "im.h"
#include "im/im_writer.h"
#include "ip_api.h"
#include "ip_db.h"
#include "pt.h"
#include "sm/segment.h"
#include "tsp.h"

namespace ipsh {
namespace {

constexpr uint32_t most_steps = 1u << 20;  // of one listing; far more than the windows have room for
constexpr uint32_t nodes_per_step = 256;
constexpr uint32_t most_batches = most_steps / nodes_per_step;

// The read side of the database lock, for one step.
class ReadStep {
 public:
  ReadStep() { tsp_lock_acquire_rdlock(ip_client.rwsem_lock); }
  ~ReadStep() { tsp_lock_release_rdlock(ip_client.rwsem_lock); }
  ReadStep(const ReadStep &) = delete;
  ReadStep &operator=(const ReadStep &) = delete;
};

// The record, or null when the word cannot be a shared record's address.
template <class T>
const T *checked(const T *record) {
  const auto address = reinterpret_cast<uintptr_t>(record);
  if (address < rsw::window_low || address >= rsw::window_high - rsw::segment_page || address % 4 != 0) return nullptr;
  return record;
}

template <size_t N>
std::string bounded_text(const char (&text)[N]) {
  return std::string(text, strnlen(text, N));
}

std::string context_name(const std::map<uint32_t, std::string> &names, uint32_t id) {
  const auto known = names.find(id);
  if (known != names.end()) return known->second;
  if (id == 0) return "";
  // A context that was added after the names were read.
  const ReadStep step;
  const char *name = ip_get_api_context_name(id);
  return name == nullptr ? "" : std::string(name, strnlen(name, sizeof(ip_api_context_type::name)));
}

std::map<uint32_t, std::string> context_names() {
  std::map<uint32_t, std::string> names;
  for (const ContextRow &context : read_contexts()) names.emplace(context.id, context.name);
  return names;
}

template <class Visit>
void for_each_view(const Selection &selection, Visit visit) {
  rsw::ImView view{};
  if (selection.iod) {
    if (rsw::im_view(*selection.iod, &view) && (!selection.context_id || view.context_id == *selection.context_id)) {
      visit(view);
    }
    return;
  }
  uint32_t steps = 0;
  for (uint32_t iod = rsw::im_next_iod(0); iod != 0 && steps < most_steps; iod = rsw::im_next_iod(iod), ++steps) {
    if (!rsw::im_view(iod, &view)) continue;
    if (selection.context_id && view.context_id != *selection.context_id) continue;
    visit(view);
  }
}

// The addresses of an interface from the primary on, as long as there are steps left. To be called inside a read step.
template <class Visit>
void for_each_address(const ip_iftype *record, uint32_t *steps_left, Visit visit) {
  for (const ip_addrtype *address = checked<ip_addrtype>(record->addr_list); address != nullptr && *steps_left != 0;
       address = checked<ip_addrtype>(address->next), --*steps_left) {
    visit(*address);
  }
}

const ip_iftype *ip_record(uint32_t iod) {
  return checked(static_cast<const ip_iftype *>(lcache_im_get_extension1(iod, IP_COMPONENT)));
}

// Fills what the IP record says; without one nothing.
void add_ip_state(InterfaceRow *row, uint32_t *steps_left) {
  const ReadStep step;
  const ip_iftype *record = ip_record(row->iod);
  if (record == nullptr) return;
  row->has_ip = true;
  row->multicast = record->mcast_enabled != 0;
  row->forwarding = record->fwd_enabled != 0;
  row->directed_broadcast = record->directed_bcast != 0;
  row->virtual_count = record->vaddr_count;
  if (const ip_unnumbered *unnumbered = checked<ip_unnumbered>(record->unnum_data)) {
    row->unnumbered = true;
    row->unnumbered_source = std::string(unnumbered->name, strnlen(unnumbered->name, sizeof(rsw::ImView::name)));
  }
  uint32_t count = 0;
  for_each_address(record, steps_left, [&](const ip_addrtype &address) {
    if (count++ != 0) return;
    row->primary = address.addr;
    row->primary_mask_len = address.mask_len;
  });
  row->secondary_count = count == 0 ? 0 : count - 1;
  for (const ip_maddrtype *group = checked<ip_maddrtype>(record->group_list); group != nullptr && *steps_left != 0;
       group = checked<ip_maddrtype>(group->next), --*steps_left) {
    ++row->group_count;
  }
}

void add_listed_addresses(const rsw::ImView &view, const std::string &context, uint32_t *steps_left,
                          std::vector<AddressRow> *rows) {
  const ReadStep step;
  const ip_iftype *record = ip_record(view.iod);
  if (record == nullptr) return;
  AddressKind kind = AddressKind::primary;
  for_each_address(record, steps_left, [&](const ip_addrtype &address) {
    rows->push_back(
        {view.context_id, context, view.iod, bounded_text(view.name), address.addr, address.mask_len, kind});
    kind = AddressKind::secondary;
  });
}

struct VirtualAddress {
  uint32_t addr;
  uint32_t iod;
};

// One batch of a context's tree, going on after (*key, *len). False: that was the last one.
bool read_virtual_batch(uint32_t context_id, bool first, uint32_t *key /* 4 words */, uint32_t *len,
                        std::vector<VirtualAddress> *found) {
  const ReadStep step;
  const ip_api_context_type *context = ip_get_api_context(context_id);
  if (context == nullptr) return false;
  void *tree = context->local_pt.get();
  if (tree == nullptr) return false;
  void *node = first ? pt_get_first_node(tree, key, len, 0) : pt_get_next_node(tree, key, len, 0);
  for (uint32_t visited = 1; node != nullptr; ++visited, node = pt_get_next_node(tree, key, len, 0)) {
    const auto *leaf = checked(static_cast<const ip_local_addr_node *>(node));
    if (leaf == nullptr) return false;
    const ip_local_addr_info *info = checked<ip_local_addr_info>(leaf->info);
    if (info != nullptr && info->vip != 0) {
      const ip_iod_elem *holder = checked<ip_iod_elem>(info->iod_list);
      found->push_back({ntohl(key[0]), holder == nullptr ? 0 : holder->iod});
    }
    if (visited == nodes_per_step) return true;
  }
  return false;
}

std::vector<VirtualAddress> read_virtual_addresses(uint32_t context_id) {
  std::vector<VirtualAddress> found;
  uint32_t key[4] = {};
  uint32_t len = 0;
  uint32_t batches = 0;
  bool first = true;
  while (read_virtual_batch(context_id, first, key, &len, &found) && ++batches < most_batches) first = false;
  return found;
}

}  // namespace

const char *to_text(AddressKind kind) {
  switch (kind) {
    case AddressKind::primary:
      return "primary";
    case AddressKind::secondary:
      return "secondary";
    case AddressKind::virtual_address:
      return "virtual";
  }
  return "";
}

std::vector<ContextRow> read_contexts() {
  std::vector<ContextRow> rows;
  {
    const ReadStep step;
    const auto *root = checked(static_cast<const ip_root *>(ip_api_data));
    if (root == nullptr) return rows;
    const ip_api_context_type *context = checked<ip_api_context_type>(root->contexts);
    for (; context != nullptr && rows.size() < most_steps; context = checked<ip_api_context_type>(context->next)) {
      rows.push_back({context->context_id, bounded_text(context->name), context->table_id, context->router_id,
                      context->router_id_iod, ""});
    }
  }
  for (ContextRow &row : rows) {
    if (row.router_id_iod != 0) row.router_id_interface = interface_name(row.router_id_iod);
  }
  std::ranges::sort(rows, {}, &ContextRow::id);
  return rows;
}

std::vector<InterfaceRow> read_interfaces(const Selection &selection) {
  const std::map<uint32_t, std::string> names = context_names();
  std::vector<InterfaceRow> rows;
  uint32_t steps_left = most_steps;
  for_each_view(selection, [&](const rsw::ImView &view) {
    InterfaceRow row{};
    row.iod = view.iod;
    row.ifindex = view.ifindex;
    row.name = bounded_text(view.name);
    row.context_id = view.context_id;
    row.context = context_name(names, view.context_id);
    row.table_id = view.table_id;
    row.up = view.up;
    row.admin_up = view.admin_up;
    row.loopback = view.loopback;
    row.mtu = view.mtu;
    add_ip_state(&row, &steps_left);
    rows.push_back(std::move(row));
  });
  return rows;
}

std::vector<AddressRow> read_addresses(const Selection &selection) {
  const std::map<uint32_t, std::string> names = context_names();
  std::map<uint32_t, std::vector<uint32_t>> virtual_by_iod;
  for (const auto &[id, name] : names) {
    if (selection.context_id && id != *selection.context_id) continue;
    for (const VirtualAddress &address : read_virtual_addresses(id))
      virtual_by_iod[address.iod].push_back(address.addr);
  }
  std::vector<AddressRow> rows;
  uint32_t steps_left = most_steps;
  for_each_view(selection, [&](const rsw::ImView &view) {
    const std::string context = context_name(names, view.context_id);
    add_listed_addresses(view, context, &steps_left, &rows);
    const auto held = virtual_by_iod.find(view.iod);
    if (held == virtual_by_iod.end()) return;
    for (const uint32_t addr : held->second) {
      rows.push_back(
          {view.context_id, context, view.iod, bounded_text(view.name), addr, 32, AddressKind::virtual_address});
    }
  });
  return rows;
}

uint32_t find_interface(const std::string &name) {
  uint32_t found = 0;
  for_each_view({}, [&](const rsw::ImView &view) {
    if (found == 0 && bounded_text(view.name) == name) found = view.iod;
  });
  return found;
}

std::string interface_name(uint32_t iod) {
  rsw::ImView view{};
  return rsw::im_view(iod, &view) ? bounded_text(view.name) : "";
}

}  // namespace ipsh
