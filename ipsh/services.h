// SPDX-License-Identifier: Apache-2.0
// What the interfaces and contexts do beyond having addresses: virtual addresses and their activity, multicast groups,
// router ids, counters. Each answer is the library's; the rows have the names that belong to the numbers.
#ifndef IPSH_SERVICES_H
#define IPSH_SERVICES_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "snapshot.h"

namespace ipsh {

struct VipRow {
  AddressRow address;
  uint32_t table_id;
  bool active;  // the best route for it is local and live
};

struct GroupRow {
  uint32_t iod;
  std::string interface;
  uint32_t context_id;
  std::string context;
  uint32_t group;  // host order
  uint32_t group_data;
};

struct RouterIdRow {
  ContextRow context;
};

struct CounterRow {
  uint32_t iod;
  std::string interface;
  uint32_t context_id;
  std::string context;
  std::optional<std::array<uint32_t, 5>> packets;  // c1 .. c5; nothing: the interface has no counters
  std::optional<std::array<uint64_t, 2>> bytes;    // b1, b2
  uint32_t pim_asserts_sent;
};

struct LoadShare {
  uint32_t mode, value;
};

// All in the order of the interfaces or contexts. They need an Attachment.
[[nodiscard]] std::vector<VipRow> read_vips(const Selection &selection);
[[nodiscard]] std::vector<GroupRow> read_groups(const Selection &selection);
[[nodiscard]] std::vector<RouterIdRow> read_router_ids(const Selection &selection);
[[nodiscard]] std::vector<CounterRow> read_counters(const Selection &selection);
[[nodiscard]] std::optional<LoadShare> read_load_share();

}  // namespace ipsh

#endif
