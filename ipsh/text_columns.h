// SPDX-License-Identifier: Apache-2.0
// How the rows of each listing look to people: the columns of its table, as data.
#ifndef IPSH_TEXT_COLUMNS_H
#define IPSH_TEXT_COLUMNS_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "control_state.h"
#include "mbuf/pool.h"
#include "mtrack/mtrack_writer.h"
#include "mts/mts_server.h"
#include "routes.h"
#include "services.h"
#include "snapshot.h"
#include "text_table.h"

namespace ipsh {

template <class Row>
struct TextColumn {
  std::string_view title;
  Align align;
  std::string (*text)(const Row &row);  // "-" where there is nothing to say, so that columns can be cut by scripts too
  Style (*style)(const Row &row) = nullptr;  // null: plain
};

// One specialisation for each type of row.
template <class Row>
std::span<const TextColumn<Row>> text_columns();
template <>
std::span<const TextColumn<ContextRow>> text_columns();
template <>
std::span<const TextColumn<InterfaceRow>> text_columns();
template <>
std::span<const TextColumn<AddressRow>> text_columns();
template <>
std::span<const TextColumn<rsw::MemoryUse>> text_columns();
template <>
std::span<const TextColumn<ClientRow>> text_columns();
template <>
std::span<const TextColumn<MessageRow>> text_columns();
template <>
std::span<const TextColumn<PacketRow>> text_columns();
template <>
std::span<const TextColumn<rsw::MtsQueueUse>> text_columns();
template <>
std::span<const TextColumn<rsw::PoolOwner>> text_columns();
template <>
std::span<const TextColumn<RouteRow>> text_columns();
template <>
std::span<const TextColumn<VipRow>> text_columns();
template <>
std::span<const TextColumn<GroupRow>> text_columns();
template <>
std::span<const TextColumn<RouterIdRow>> text_columns();
template <>
std::span<const TextColumn<CounterRow>> text_columns();

// Cells.
[[nodiscard]] std::string number_text(uint64_t value);
[[nodiscard]] std::string or_dash(const std::string &text);
[[nodiscard]] std::string address_or_dash(uint32_t addr);
[[nodiscard]] std::string prefix_text(uint32_t addr, uint8_t mask_len);
[[nodiscard]] std::string state_text(const InterfaceRow &row);
[[nodiscard]] Style state_style(const InterfaceRow &row);
[[nodiscard]] std::string flags_text(const InterfaceRow &row);

}  // namespace ipsh

#endif
