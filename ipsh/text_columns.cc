// SPDX-License-Identifier: Apache-2.0
// To add a column, add its line; to add a listing, add its specialisation here and in json_members.cc.
#include "text_columns.h"

#include <fmt/format.h>

#include <array>

#include "arguments.h"

namespace ipsh {
namespace {

constexpr Align left = Align::left;
constexpr Align right = Align::right;

std::string packet_counter(const CounterRow &row, size_t index) {
  return row.packets ? number_text(row.packets->at(index)) : "-";
}
std::string byte_counter(const CounterRow &row, size_t index) {
  return row.bytes ? number_text(row.bytes->at(index)) : "-";
}

std::string protocol_text(uint8_t protocol) {
  const std::string name = protocol_name(protocol);
  return !name.empty() ? name : protocol == 0 ? "-" : number_text(protocol);
}

std::string next_hops_text(const RouteRow &row) {
  std::string text;
  for (const rsw::RouteNextHop &next_hop : row.route->next_hops) {
    text += (text.empty() ? "" : ", ") + next_hop_text(next_hop, *row.names);
  }
  return or_dash(text);
}

std::string now_text(const ClientRow &row) {
  if (row.threads == 0) return "-";
  return row.in_query ? "in a query" : "outside";
}

std::string of_ipd(const ClientRow &row, uint32_t ClientOfIpd::*number) {
  return row.of_ipd ? number_text(*row.of_ipd.*number) : "-";
}

std::string registrations_text(const ClientRow &row) {
  std::string text;
  if (!row.of_ipd) return "-";
  for (const RegistrationRow &registration : row.of_ipd->registrations) {
    text += fmt::format("{}{}/{}", text.empty() ? "" : ", ", registration.name, registration.key);
  }
  return or_dash(text);
}

// "too-short:2,not-allowed:1".
template <size_t Size>
std::string why_text(const std::array<uint64_t, Size> &counts, const char *(*name)(size_t outcome)) {
  std::string text;
  for (size_t i = 1; i < Size; ++i) {
    if (counts[i] != 0) text += fmt::format("{}{}:{}", text.empty() ? "" : ",", name(i), counts[i]);
  }
  return or_dash(text);
}
static_assert(IP_SHOW_DONE == 0 && IP_SHOW_PACKET_DONE == 0);

}  // namespace

std::string number_text(uint64_t value) {
  return fmt::format("{}", value);
}
std::string or_dash(const std::string &text) {
  return text.empty() ? "-" : text;
}
std::string address_or_dash(uint32_t addr) {
  return addr == 0 ? "-" : address_text(addr);
}
std::string prefix_text(uint32_t addr, uint8_t mask_len) {
  return fmt::format("{}/{}", address_text(addr), mask_len);
}

std::string state_text(const InterfaceRow &row) {
  if (!row.admin_up) return "admin-down";
  return row.up ? "up" : "down";
}

// That somebody switched an interface off is no fault.
Style state_style(const InterfaceRow &row) {
  if (!row.admin_up) return Style::plain;
  return row.up ? Style::good : Style::bad;
}

std::string flags_text(const InterfaceRow &row) {
  std::string text;
  const auto add = [&](bool on, const std::string &flag) {
    if (on) text += (text.empty() ? "" : ",") + flag;
  };
  add(row.loopback, "loopback");
  add(row.multicast, "multicast");
  add(row.forwarding, "forwarding");
  add(row.directed_broadcast, "directed-broadcast");
  add(row.unnumbered, fmt::format("unnumbered({})", row.unnumbered_source));
  return or_dash(text);
}

template <>
std::span<const TextColumn<ContextRow>> text_columns() {
  static constexpr std::array<TextColumn<ContextRow>, 5> columns{{
      {"ID", right, [](const ContextRow &row) { return number_text(row.id); }},
      {"NAME", left, [](const ContextRow &row) { return or_dash(row.name); }},
      {"TABLE", right, [](const ContextRow &row) { return number_text(row.table_id); }},
      {"ROUTER-ID", left, [](const ContextRow &row) { return address_or_dash(row.router_id); }},
      {"FROM", left, [](const ContextRow &row) { return or_dash(row.router_id_interface); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<InterfaceRow>> text_columns() {
  static constexpr std::array<TextColumn<InterfaceRow>, 10> columns{{
      {"IOD", right, [](const InterfaceRow &row) { return number_text(row.iod); }},
      {"NAME", left, [](const InterfaceRow &row) { return or_dash(row.name); }},
      {"IFINDEX", right, [](const InterfaceRow &row) { return number_text(row.ifindex); }},
      {"CONTEXT", left, [](const InterfaceRow &row) { return or_dash(row.context); }},
      {"STATE", left, state_text, state_style},
      {"MTU", right, [](const InterfaceRow &row) { return number_text(row.mtu); }},
      {"PRIMARY", left,
       [](const InterfaceRow &row) { return row.primary == 0 ? "-" : prefix_text(row.primary, row.primary_mask_len); }},
      {"SEC", right, [](const InterfaceRow &row) { return number_text(row.secondary_count); }},
      {"VIRT", right, [](const InterfaceRow &row) { return number_text(row.virtual_count); }},
      {"FLAGS", left, flags_text},
  }};
  return columns;
}

template <>
std::span<const TextColumn<AddressRow>> text_columns() {
  static constexpr std::array<TextColumn<AddressRow>, 5> columns{{
      {"ADDRESS", left, [](const AddressRow &row) { return prefix_text(row.addr, row.mask_len); }},
      {"KIND", left, [](const AddressRow &row) -> std::string { return to_text(row.kind); }},
      {"INTERFACE", left, [](const AddressRow &row) { return or_dash(row.interface); }},
      {"IOD", right, [](const AddressRow &row) { return number_text(row.iod); }},
      {"CONTEXT", left, [](const AddressRow &row) { return or_dash(row.context); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<rsw::MemoryUse>> text_columns() {
  using rsw::MemoryUse;
  static constexpr std::array<TextColumn<MemoryUse>, 9> columns{{
      {"PID", right, [](const MemoryUse &row) { return fmt::format("{}", row.pid); }},
      {"COMMAND", left, [](const MemoryUse &row) { return or_dash(row.command); }},
      {"COMPONENT", right, [](const MemoryUse &row) { return number_text(row.component); }},
      {"KIND", left, [](const MemoryUse &row) -> std::string { return row.shared ? "shared" : "private"; }},
      {"TYPE", left, [](const MemoryUse &row) { return or_dash(row.type_name); }},
      {"BLOCKS", right, [](const MemoryUse &row) { return number_text(row.blocks); }},
      {"BYTES", right, [](const MemoryUse &row) { return number_text(row.bytes); }},
      {"ALLOCATIONS", right, [](const MemoryUse &row) { return number_text(row.allocations); }},
      {"FAILURES", right, [](const MemoryUse &row) { return number_text(row.failures); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<ClientRow>> text_columns() {
  static constexpr std::array<TextColumn<ClientRow>, 11> columns{{
      {"PID", right, [](const ClientRow &row) { return fmt::format("{}", row.pid); }},
      {"COMMAND", left, [](const ClientRow &row) { return or_dash(row.command); }},
      {"THREADS", right, [](const ClientRow &row) { return number_text(row.threads); }},
      {"NOW", left, now_text},
      {"USER", right, [](const ClientRow &row) { return of_ipd(row, &ClientOfIpd::uid); }},
      {"MESSAGES", right, [](const ClientRow &row) { return of_ipd(row, &ClientOfIpd::received); }},
      {"REFUSED", right, [](const ClientRow &row) { return of_ipd(row, &ClientOfIpd::refused); }},
      {"GROUPS", right, [](const ClientRow &row) { return of_ipd(row, &ClientOfIpd::memberships); }},
      {"LOANS", right, [](const ClientRow &row) { return of_ipd(row, &ClientOfIpd::loans); }},
      {"DOWNLOADS", right, [](const ClientRow &row) { return of_ipd(row, &ClientOfIpd::downloads); }},
      // A name may have blanks inside: the last one.
      {"REGISTERED", left, registrations_text},
  }};
  return columns;
}

template <>
std::span<const TextColumn<MessageRow>> text_columns() {
  static constexpr std::array<TextColumn<MessageRow>, 5> columns{{
      {"TYPE", right, [](const MessageRow &row) { return row.minor == 0 ? "-" : number_text(row.minor); }},
      {"DONE", right, [](const MessageRow &row) { return number_text(row.counts[IP_SHOW_DONE]); }},
      {"REFUSED", right, [](const MessageRow &row) { return number_text(row.refused()); }},
      {"WHY", left, [](const MessageRow &row) { return why_text(row.counts, outcome_name); }},
      {"MESSAGE", left, [](const MessageRow &row) { return or_dash(row.name); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<PacketRow>> text_columns() {
  static constexpr std::array<TextColumn<PacketRow>, 8> columns{{
      {"TYPE", right, [](const PacketRow &row) { return row.minor == 0 ? "-" : number_text(row.minor); }},
      {"CLIENTS", left, [](const PacketRow &row) -> std::string { return row.to_client ? "to" : "from"; }},
      {"MESSAGES", right, [](const PacketRow &row) { return number_text(row.received); }},
      {"BYTES", right, [](const PacketRow &row) { return number_text(row.bytes); }},
      {"DONE", right, [](const PacketRow &row) { return number_text(row.counts[IP_SHOW_PACKET_DONE]); }},
      {"REFUSED", right, [](const PacketRow &row) { return number_text(row.refused()); }},
      {"WHY", left, [](const PacketRow &row) { return why_text(row.counts, packet_outcome_name); }},
      // Names have blanks inside: the last column.
      {"MESSAGE", left, [](const PacketRow &row) { return or_dash(row.name); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<rsw::MtsQueueUse>> text_columns() {
  using rsw::MtsQueueUse;
  static constexpr std::array<TextColumn<MtsQueueUse>, 12> columns{{
      {"SAP", right, [](const MtsQueueUse &row) { return number_text(row.sap); }},
      {"PID", right, [](const MtsQueueUse &row) { return fmt::format("{}", row.pid); }},
      {"COMPONENT", right, [](const MtsQueueUse &row) { return number_text(row.module); }},
      {"WAITING", right, [](const MtsQueueUse &row) { return number_text(row.waiting); }},
      {"BYTES", right, [](const MtsQueueUse &row) { return number_text(row.waiting_bytes); }},
      {"MOST", right, [](const MtsQueueUse &row) { return number_text(row.high_water); }},
      {"RECEIVED", right, [](const MtsQueueUse &row) { return number_text(row.received); }},
      {"SENT", right, [](const MtsQueueUse &row) { return number_text(row.sent); }},
      {"REFUSED", right, [](const MtsQueueUse &row) { return number_text(row.refused); }},
      {"FAILURES", right, [](const MtsQueueUse &row) { return number_text(row.send_failures); }},
      {"PEERS", right, [](const MtsQueueUse &row) { return number_text(row.connections); }},
      // Names have blanks inside: the last column.
      {"NAME", left, [](const MtsQueueUse &row) { return or_dash(row.name); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<rsw::PoolOwner>> text_columns() {
  using rsw::PoolOwner;
  static constexpr std::array<TextColumn<PoolOwner>, 4> columns{{
      {"PID", right, [](const PoolOwner &row) { return fmt::format("{}", row.pid); }},
      {"IN-USE", right, [](const PoolOwner &row) { return number_text(row.in_use); }},
      {"CACHED", right, [](const PoolOwner &row) { return number_text(row.cached); }},
      {"COMMAND", left, [](const PoolOwner &row) { return or_dash(row.command); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<RouteRow>> text_columns() {
  static constexpr std::array<TextColumn<RouteRow>, 8> columns{{
      {"TABLE", right, [](const RouteRow &row) { return number_text(row.table); }},
      {"PREFIX", left, [](const RouteRow &row) { return prefix_text(row.route->addr, row.route->len); }},
      {"KIND", left, [](const RouteRow &row) -> std::string { return to_text(row.route->kind); }},
      {"ACTION", left,
       [](const RouteRow &row) -> std::string {
         return row.route->action == rsw::RouteAction::forward ? "-" : to_text(row.route->action);
       }},
      {"PROTOCOL", left, [](const RouteRow &row) { return protocol_text(row.route->protocol); }},
      {"METRIC", right, [](const RouteRow &row) { return number_text(row.route->metric); }},
      {"KERNEL-TABLE", right,
       [](const RouteRow &row) { return row.route->origin == 0 ? "-" : number_text(row.route->origin); }},
      // The only column with blanks inside: the last one.
      {"NEXT-HOPS", left, next_hops_text},
  }};
  return columns;
}

template <>
std::span<const TextColumn<VipRow>> text_columns() {
  static constexpr std::array<TextColumn<VipRow>, 6> columns{{
      {"ADDRESS", left, [](const VipRow &row) { return address_text(row.address.addr); }},
      {"STATE", left, [](const VipRow &row) -> std::string { return row.active ? "active" : "inactive"; }},
      {"INTERFACE", left, [](const VipRow &row) { return or_dash(row.address.interface); }},
      {"IOD", right, [](const VipRow &row) { return number_text(row.address.iod); }},
      {"CONTEXT", left, [](const VipRow &row) { return or_dash(row.address.context); }},
      {"TABLE", right, [](const VipRow &row) { return number_text(row.table_id); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<GroupRow>> text_columns() {
  static constexpr std::array<TextColumn<GroupRow>, 5> columns{{
      {"GROUP", left, [](const GroupRow &row) { return address_text(row.group); }},
      {"DATA", right, [](const GroupRow &row) { return number_text(row.group_data); }},
      {"INTERFACE", left, [](const GroupRow &row) { return or_dash(row.interface); }},
      {"IOD", right, [](const GroupRow &row) { return number_text(row.iod); }},
      {"CONTEXT", left, [](const GroupRow &row) { return or_dash(row.context); }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<RouterIdRow>> text_columns() {
  static constexpr std::array<TextColumn<RouterIdRow>, 4> columns{{
      {"CONTEXT", left, [](const RouterIdRow &row) { return or_dash(row.context.name); }},
      {"ROUTER-ID", left, [](const RouterIdRow &row) { return address_or_dash(row.context.router_id); }},
      {"INTERFACE", left, [](const RouterIdRow &row) { return or_dash(row.context.router_id_interface); }},
      {"IOD", right,
       [](const RouterIdRow &row) {
         return row.context.router_id_iod == 0 ? "-" : number_text(row.context.router_id_iod);
       }},
  }};
  return columns;
}

template <>
std::span<const TextColumn<CounterRow>> text_columns() {
  static constexpr std::array<TextColumn<CounterRow>, 10> columns{{
      {"IOD", right, [](const CounterRow &row) { return number_text(row.iod); }},
      {"INTERFACE", left, [](const CounterRow &row) { return or_dash(row.interface); }},
      {"C1", right, [](const CounterRow &row) { return packet_counter(row, 0); }},
      {"C2", right, [](const CounterRow &row) { return packet_counter(row, 1); }},
      {"C3", right, [](const CounterRow &row) { return packet_counter(row, 2); }},
      {"C4", right, [](const CounterRow &row) { return packet_counter(row, 3); }},
      {"C5", right, [](const CounterRow &row) { return packet_counter(row, 4); }},
      {"B1", right, [](const CounterRow &row) { return byte_counter(row, 0); }},
      {"B2", right, [](const CounterRow &row) { return byte_counter(row, 1); }},
      {"PIM-ASSERTS", right, [](const CounterRow &row) { return number_text(row.pim_asserts_sent); }},
  }};
  return columns;
}

}  // namespace ipsh
