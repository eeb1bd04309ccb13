// SPDX-License-Identifier: Apache-2.0
#include "services.h"

#include <map>

#include "ip_api.h"

namespace ipsh {
namespace {

// The library hands its callback a word, no pointer: the walk's rows are found here. One thread walks at a time.
std::vector<std::array<uint32_t, 2>> *walked_groups = nullptr;

// Far more than an interface joins: a damaged list gives a short table.
constexpr size_t most_groups = 1u << 16;

uint32_t note_group(uint32_t group, uint32_t group_data, uint32_t) {
  walked_groups->push_back({group, group_data});
  return walked_groups->size() == most_groups ? 1 : 0;
}

std::vector<std::array<uint32_t, 2>> groups_of(uint32_t iod) {
  std::vector<std::array<uint32_t, 2>> groups;
  walked_groups = &groups;
  ip_get_each_group(iod, note_group, 0);
  walked_groups = nullptr;
  return groups;
}

}  // namespace

std::vector<VipRow> read_vips(const Selection &selection) {
  std::map<uint32_t, uint32_t> tables;  // by context
  for (const ContextRow &context : read_contexts()) tables.emplace(context.id, context.table_id);
  std::vector<VipRow> rows;
  for (AddressRow &address : read_addresses(selection)) {
    if (address.kind != AddressKind::virtual_address) continue;
    const uint32_t table = tables[address.context_id];
    const bool active = ip_urib_is_addr_active_local(table, address.addr) != 0;
    rows.push_back({std::move(address), table, active});
  }
  return rows;
}

std::vector<GroupRow> read_groups(const Selection &selection) {
  std::vector<GroupRow> rows;
  for (const InterfaceRow &interface : read_interfaces(selection)) {
    for (const auto &[group, data] : groups_of(interface.iod)) {
      rows.push_back({interface.iod, interface.name, interface.context_id, interface.context, group, data});
    }
  }
  return rows;
}

std::vector<RouterIdRow> read_router_ids(const Selection &selection) {
  std::vector<RouterIdRow> rows;
  for (ContextRow &context : read_contexts()) {
    if (context.router_id == 0 || (selection.context_id && context.id != *selection.context_id)) continue;
    if (selection.iod && context.router_id_iod != *selection.iod) continue;
    rows.push_back({std::move(context)});
  }
  return rows;
}

std::vector<CounterRow> read_counters(const Selection &selection) {
  std::vector<CounterRow> rows;
  for (const InterfaceRow &interface : read_interfaces(selection)) {
    if (!interface.has_ip) continue;
    CounterRow row{interface.iod, interface.name, interface.context_id, interface.context, {}, {}, 0};
    std::array<uint32_t, 5> c{};
    std::array<uint64_t, 2> b{};
    if (ip_get_mcast_pkt_stats_orig(row.iod, &c[0], &c[1], &c[2], &c[3], &c[4]) != 0) row.packets = c;
    if (ip_get_mcast_byte_stats_orig(row.iod, &b[0], &b[1]) != 0) row.bytes = b;
    row.pim_asserts_sent = ip_get_pim_assert_sent_count(row.iod);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::optional<LoadShare> read_load_share() {
  ip_ecmp_loadshare_status status{};
  if (ip_get_ecmp_loadshare_status(&status) == 0) return std::nullopt;
  return LoadShare{status.mode, status.value};
}

}  // namespace ipsh
