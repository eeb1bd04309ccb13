// SPDX-License-Identifier: Apache-2.0
// The route tables as ipsh lists them.
#ifndef IPSH_ROUTES_H
#define IPSH_ROUTES_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "exit_code.h"
#include "urib/urib_view.h"

namespace ipsh {

// The names of what routes have numbers of, as they were when the routes were read.
struct RouteNames {
  std::map<uint32_t, std::string> interfaces;  // by iod
  std::map<uint32_t, std::string> contexts;    // by table
};
[[nodiscard]] RouteNames read_route_names();
// Empty where there is no name.
[[nodiscard]] std::string name_of(const std::map<uint32_t, std::string> &names, uint32_t number);

[[nodiscard]] const char *to_text(rsw::RouteKind kind);
[[nodiscard]] const char *to_text(rsw::RouteAction action);
[[nodiscard]] const char *to_text(rsw::RouteView view);
// The usual name of who makes routes under that number; empty: none is known.
[[nodiscard]] std::string protocol_name(uint8_t protocol);
// "10.0.0.9 on eth0", with all that is out of the ordinary about it.
[[nodiscard]] std::string next_hop_text(const rsw::RouteNextHop &next_hop, const RouteNames &names);

struct RouteRow {  // points into its listing
  uint32_t table;
  const rsw::Route *route;
  const RouteNames *names;
};

struct RouteSelection {
  std::optional<uint32_t> table;
  std::optional<uint32_t> iod;  // of one of the next hops
  rsw::RouteView view = rsw::RouteView::unicast;
  std::optional<uint32_t> limit;
};

struct RouteListing {
  rsw::RouteView view;
  std::vector<RouteRow> rows;  // ascending by table, address and length
  uint64_t left_out;           // by the limit
  std::vector<std::pair<uint32_t, std::vector<rsw::Route>>> tables;
  std::unique_ptr<RouteNames> names;
};

// False, with *failure: there are no route tables.
[[nodiscard]] bool read_routes(const RouteSelection &selection, RouteListing *listing, Failure *failure);
// The same check alone.
[[nodiscard]] bool routes_are_published(Failure *failure);

}  // namespace ipsh

#endif
