// SPDX-License-Identifier: Apache-2.0
// The everyday questions about one interface or one local address.
#include <array>

#include "ip_api.h"
#include "query_table.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument on_interface{"iod", interface, "the interface"};
constexpr Argument in_context{"name", context_name, "the context"};

Answer answer_secondary(ArgumentValues v) {
  uint32_t addr = v[1].number;
  auto mask_len = static_cast<uint8_t>(v[2].number);
  ip_get_next_secondary(v[0].number, &addr, &mask_len);
  Answer answer;
  answer.found = addr != 0;
  answer.result.type = ResultType::nothing;
  answer.outputs = {{"addr", ResultType::address, addr}, {"mask_len", ResultType::mask_length, mask_len}};
  return answer;
}

Answer answer_virtual_address(ArgumentValues v) {
  uint32_t out = 0;
  Answer answer = answer_number(ResultType::flag, ip_get_best_intf_vip(v[0].number, v[1].number, v[2].number, &out));
  // After a 0 the word may hold some other interface's virtual address: callers use it only after a 1.
  if (answer.found) answer.outputs = {{"out", ResultType::address, out}};
  return answer;
}

Answer answer_effective_mtu(ArgumentValues v) {
  return answer_number(ResultType::number, ip_calc_effective_mtu(v[0].number, v[1].number, v[2].number, v[3].number,
                                                                 v[4].number, v[5].number));
}

}  // namespace

std::span<const Query> local_address_queries() {
  static const std::array<Query, 14> rows{{
      {"ip_is_address_on_interface",
       "is this one of the interface's addresses, primary or secondary?",
       {{"addr", address, "the address"}, on_interface},
       ResultType::flag,
       "yes: it is an address of the interface",
       "no, or there is no such interface",
       "--addr 127.0.0.1 --iod lo",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::flag, ip_is_address_on_interface(v[0].number, v[1].number));
       }},
      {"ip_get_local_mask_len",
       "the mask length of an address of the interface",
       {{"addr", address, "the address"}, on_interface},
       ResultType::mask_length,
       "the mask length of that address",
       "the interface does not have that address (or its mask length is 0)",
       "--addr 127.0.0.1 --iod lo",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::mask_length, ip_get_local_mask_len(v[0].number, v[1].number));
       }},
      {"ip_get_next_secondary",
       "the secondary address that follows an address of the interface",
       {on_interface,
        {"addr", address, "the address to go on after; left out: start with the first secondary", 0},
        {"mask-len", mask_length, "the mask length of that address", 0}},
       ResultType::nothing,
       "the next secondary address",
       "there is no further secondary address",
       "--iod eth0 --addr 10.0.0.1 --mask-len 24",
       true,
       answer_secondary},
      {"ip_get_secondary_count",
       "how many secondary addresses the interface has",
       {on_interface},
       ResultType::number,
       "secondary addresses on the interface",
       "the interface has no secondary address, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::number, ip_get_secondary_count(v[0].number)); }},
      {"ip_is_group_joined",
       "is this multicast group joined on the interface?",
       {{"group", address, "the group address"}, on_interface},
       ResultType::flag,
       "yes: the group is joined",
       "no, or there is no such interface",
       "--group 224.0.0.5 --iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_is_group_joined(v[0].number, v[1].number)); }},
      {"ip_allow_directed_broadcast",
       "may directed broadcasts leave through the interface?",
       {on_interface},
       ResultType::flag,
       "yes: they are allowed",
       "no, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_allow_directed_broadcast(v[0].number)); }},
      {"ip_is_iod_unnumbered",
       "does the interface borrow another interface's address?",
       {on_interface},
       ResultType::flag,
       "yes: the interface is unnumbered",
       "no, or there is no such interface",
       "--iod tun0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_is_iod_unnumbered(v[0].number)); }},
      {"ip_is_multicast_enabled",
       "is multicast enabled on the interface?",
       {on_interface},
       ResultType::flag,
       "yes: multicast is enabled",
       "no, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_is_multicast_enabled(v[0].number)); }},
      {"ip_get_iod_for_local_address",
       "the interface that holds an address",
       {in_context, {"addr", address, "the address"}},
       ResultType::interface,
       "the interface holds the address",
       "no interface of the context holds the address",
       "--name default --addr 127.0.0.1",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::interface, ip_get_iod_for_local_address(v[0].text.c_str(), v[1].number));
       }},
      {"ip_get_alliod_for_address",
       "the same as ip_get_iod_for_local_address",
       {in_context, {"addr", address, "the address"}},
       ResultType::interface,
       "the interface holds the address",
       "no interface of the context holds the address",
       "--name default --addr 127.0.0.1",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::interface, ip_get_alliod_for_address(v[0].text.c_str(), v[1].number));
       }},
      {"ip_get_best_intf_vip",
       "a virtual address of the interface",
       {{"context-id", context_id, "the context"}, {"addr", address, "an address of the interface"}, on_interface},
       ResultType::flag,
       "yes: the virtual address is in out",
       "the interface has no virtual address",
       "--context-id default --addr 10.0.0.1 --iod eth0",
       true,
       answer_virtual_address},
      {"ip_urib_is_addr_active_local",
       "is the best route for the address local, with a live next hop?",
       {{"table-id", table_id, "the route table"}, {"addr", address, "the address"}},
       ResultType::flag,
       "yes: the address is local and active",
       "no: no route, a route that is not local, or a next hop that is not live",
       "--table-id default --addr 127.0.0.1",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::flag, ip_urib_is_addr_active_local(v[0].number, v[1].number));
       }},
      {"ip_get_mtu",
       "the interface's MTU in bytes, low 16 bits",
       {on_interface},
       ResultType::number,
       "bytes",
       "there is no such interface, or its MTU has no low 16 bits (65536, as of lo)",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::number, ip_get_mtu(v[0].number)); }},
      {"ip_calc_effective_mtu",
       "the MTU to count with on an interface: ip_get_mtu of the last argument",
       {{"i1", number, "ignored by the library", 0},
        {"i2", number, "ignored by the library", 0},
        {"i3", number, "ignored by the library", 0},
        {"i4", number, "ignored by the library", 0},
        {"i5", number, "ignored by the library", 0},
        on_interface},
       ResultType::number,
       "bytes",
       "there is no such interface, or its MTU has no low 16 bits (65536, as of lo)",
       "--iod eth0",
       true,
       answer_effective_mtu},
  }};
  return rows;
}

}  // namespace ipsh
