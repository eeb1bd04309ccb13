// SPDX-License-Identifier: Apache-2.0
// The questions whether IP runs on an interface, and the walks over the interfaces on which it does.
#include <array>

#include "ip_api.h"
#include "query_table.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument on_interface{"iod", interface, "the interface"};
constexpr Argument after_interface{"prev", interface, "go on after this interface; left out: start with the first", 0};

}  // namespace

std::span<const Query> ip_state_queries() {
  static const std::array<Query, 4> rows{{
      {"ip_enabled",
       "is IP enabled on the interface: does it have an address, borrow one, or forward?",
       {on_interface},
       ResultType::flag,
       "yes: IP is enabled",
       "no, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_enabled(v[0].number)); }},
      {"ip_forward_enabled",
       "is forwarding enabled on the interface?",
       {on_interface},
       ResultType::flag,
       "yes: the interface forwards",
       "no, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_forward_enabled(v[0].number)); }},
      {"ip_get_each_enabled_iod",
       "the next interface on which IP is enabled",
       {after_interface},
       ResultType::interface,
       "the next such interface",
       "there is no further one",
       "--prev lo",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::interface, ip_get_each_enabled_iod(v[0].number)); }},
      {"ip_get_each_multicast_iod",
       "the next interface with multicast and an address, its own or borrowed",
       {after_interface},
       ResultType::interface,
       "the next such interface",
       "there is no further one",
       "--prev lo",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::interface, ip_get_each_multicast_iod(v[0].number)); }},
  }};
  return rows;
}

}  // namespace ipsh
