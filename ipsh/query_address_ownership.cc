// SPDX-License-Identifier: Apache-2.0
// The questions whose address it is: local, virtual, active, configured; and the walk over a context's addresses.
#include <array>

#include "ip_api.h"
#include "query_table.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument the_address{"addr", address, "the address"};
constexpr Argument by_id{"context-id", context_id, "the context"};
constexpr Argument by_name{"name", context_name, "the context"};

// By the context's id, and by its name: the same shape of question each.
template <uint32_t (*ask)(uint32_t, uint32_t)>
Answer holder_by_id(ArgumentValues v) {
  return answer_number(ResultType::interface, ask(v[0].number, v[1].number));
}
template <uint32_t (*ask)(const char *, uint32_t)>
Answer holder_by_name(ArgumentValues v) {
  return answer_number(ResultType::interface, ask(v[0].text.c_str(), v[1].number));
}
template <uint32_t (*ask)(const char *, uint32_t)>
Answer next_address(ArgumentValues v) {
  return answer_number(ResultType::address, ask(v[0].text.c_str(), v[1].number));
}

Answer holder_by_record(ArgumentValues v) {
  ip_api_context_type *context = v[0].number == 0 ? nullptr : ip_get_api_context(v[0].number);
  return answer_number(ResultType::interface, ip_get_iod_for_local(context, v[1].number));
}

constexpr Argument last_address{"addr", address, "go on after this address; left out: start with the lowest", 0};
constexpr std::string_view holds = "the interface holds the address";
constexpr std::string_view not_local = "no interface of the context holds the address";
constexpr std::string_view not_active =
    "no interface of the context holds the address, or it is virtual and not active";

}  // namespace

std::span<const Query> address_ownership_queries() {
  static const std::array<Query, 8> rows{{
      {"ip_is_addr_local_intf",
       "the interface that holds an address, virtual or not, active or not",
       {by_id, the_address},
       ResultType::interface,
       holds,
       not_local,
       "--context-id default --addr 127.0.0.1",
       true,
       holder_by_id<ip_is_addr_local_intf>},
      {"ip_is_addr_local_vip",
       "the interface that holds a virtual address, active or not",
       {by_id, the_address},
       ResultType::interface,
       "the interface has it as a virtual address",
       "the address is not a virtual one of the context",
       "--context-id default --addr 10.0.0.100",
       true,
       holder_by_id<ip_is_addr_local_vip>},
      {"ip_is_addr_local_active",
       "the interface that holds an address now: a virtual one only while it is active",
       {by_name, the_address},
       ResultType::interface,
       holds,
       not_active,
       "--name default --addr 10.0.0.100",
       true,
       holder_by_name<ip_is_addr_local_active>},
      {"ip_is_addr_local",
       "the same as ip_is_addr_local_active",
       {by_name, the_address},
       ResultType::interface,
       holds,
       not_active,
       "--name default --addr 127.0.0.1",
       true,
       holder_by_name<ip_is_addr_local>},
      {"ip_is_addr_local_configured",
       "the enabled interface that has the address configured itself",
       {by_id, the_address},
       ResultType::interface,
       "the interface has the address in its own list",
       "no enabled interface of the context has it in its own list",
       "--context-id default --addr 10.0.0.2",
       true,
       holder_by_id<ip_is_addr_local_configured>},
      {"ip_get_iod_for_local",
       "the interface that holds an address, asked of the context's record",
       {{"context", context_record, "the context"}, the_address},
       ResultType::interface,
       holds,
       not_local,
       "--context default --addr 127.0.0.1",
       true,
       holder_by_record},
      {"ip_get_next_address",
       "the local address of the context that follows an address",
       {by_name, last_address},
       ResultType::address,
       "the next local address, ascending",
       "there is none above, or there is no such context",
       "--name default --addr 10.0.0.1",
       true,
       next_address<ip_get_next_address>},
      {"ip_get_next_all_address",
       "the same as ip_get_next_address",
       {by_name, last_address},
       ResultType::address,
       "the next local address, ascending",
       "there is none above, or there is no such context",
       "--name default --addr 10.0.0.1",
       true,
       next_address<ip_get_next_all_address>},
  }};
  return rows;
}

}  // namespace ipsh
