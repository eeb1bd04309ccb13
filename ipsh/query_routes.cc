// SPDX-License-Identifier: Apache-2.0
// The questions that the routes of a context answer, forward and reverse path, and what a destination counts as.
#include <array>

#include "ip_api.h"
#include "ip_packet.h"
#include "query_table.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument in_context{"name", context_name, "the context"};
constexpr Argument the_address{"addr", address, "the address"};
constexpr Argument the_source{"addr", address, "the source of the multicast traffic"};
constexpr Argument the_selector{"selector", number, "picks one of several next hops", 0};

template <uint32_t (*ask)(const char *, uint32_t)>
Answer interface_of(ArgumentValues v) {
  return answer_number(ResultType::interface, ask(v[0].text.c_str(), v[1].number));
}
template <uint32_t (*ask)(const char *, uint32_t, uint32_t)>
Answer neighbour_of(ArgumentValues v) {
  return answer_number(ResultType::address, ask(v[0].text.c_str(), v[1].number, v[2].number));
}

Answer source_address(ArgumentValues v) {
  uint32_t iod = 0;
  Answer answer = answer_number(ResultType::address, ip_get_route(v[0].number, v[1].number, &iod));
  answer.outputs.push_back({"iod", ResultType::interface, iod});
  return answer;
}

constexpr std::string_view by_direct_route = "the interface of the direct route";
constexpr std::string_view no_direct_route = "no direct route covers the address, or there is no such context";

}  // namespace

std::span<const Query> route_queries() {
  static const std::array<Query, 13> rows{{
      {"ip_is_route_direct",
       "the interface by which an address is connected: on its subnet, or its own address",
       {in_context, the_address},
       ResultType::interface,
       by_direct_route,
       no_direct_route,
       "--name default --addr 10.0.0.77",
       true,
       interface_of<ip_is_route_direct>},
      {"ip_get_iod_from_addr",
       "the same as ip_is_route_direct",
       {in_context, the_address},
       ResultType::interface,
       by_direct_route,
       no_direct_route,
       "--name default --addr 10.0.0.77",
       true,
       interface_of<ip_get_iod_from_addr>},
      {"ip_is_addr_attached",
       "the interface on whose subnet an address is; an address of this system is on none",
       {in_context, the_address},
       ResultType::interface,
       "the address is on the interface's subnet",
       "the address is on no interface's subnet, or there is no such context",
       "--name default --addr 10.0.0.77",
       true,
       interface_of<ip_is_addr_attached>},
      {"ip_is_addr_on_iod",
       "is the address connected by this interface, in the interface's context?",
       {{"ignored", text, "ignored by the library", 0}, the_address, {"iod", interface, "the interface"}},
       ResultType::flag,
       "yes: a direct route to it leaves by the interface (the iod itself: the interface has no table)",
       "no",
       "--addr 10.0.0.77 --iod eth0",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::flag, ip_is_addr_on_iod(v[0].text.c_str(), v[1].number, v[2].number));
       }},
      {"ip_is_addr_local_in_urib",
       "the interface of the best route, when that is local",
       {in_context, the_address},
       ResultType::interface,
       "the interface that holds the address",
       "the best route is not that of a local address, or there is none",
       "--name default --addr 127.0.0.1",
       true,
       interface_of<ip_is_addr_local_in_urib>},
      {"ip_get_iod_for_address",
       "the interface that holds an address, by the local route for exactly it",
       {in_context, the_address},
       ResultType::interface,
       "the interface that holds the address",
       "there is no local route for exactly this address",
       "--name default --addr 10.0.0.1",
       true,
       interface_of<ip_get_iod_for_address>},
      {"ip_get_iod_for_subnet",
       "the interface that is on a subnet, by the attached route for exactly it",
       {in_context, {"addr", address, "the subnet's address"}, {"len", mask_length, "its mask length"}},
       ResultType::interface,
       "the interface is on that subnet",
       "there is no attached route for exactly this prefix",
       "--name default --addr 10.0.0.0 --len 24",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::interface,
                              ip_get_iod_for_subnet(v[0].text.c_str(), v[1].number, static_cast<uint8_t>(v[2].number)));
       }},
      {"ip_get_route",
       "the source address to use towards a destination, and the interface it leaves by",
       {{"context-id", context_id, "the context"}, {"dest-net", address_network_order, "the destination"}},
       ResultType::address,
       "the source address; the path leaves by the interface in iod",
       "no path, a multicast destination, or no address to use (then iod is set)",
       "--context-id default --dest-net 198.51.100.7",
       true,
       source_address},
      {"ip_local_from_remote",
       "the source address to use towards a destination, as ip_get_route says, and loopback's own",
       {{"context-id", context_id, "the context"}, {"remote-net", address_network_order, "the destination"}},
       ResultType::address,
       "the source address",
       "no path, an address that no host may have, or no address to use",
       "--context-id default --remote-net 198.51.100.7",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::address, ip_local_from_remote(v[0].number, v[1].number));
       }},
      {"ip_packet_stats_type",
       "what a packet to the address counts as: 0 unicast, 1 multicast, 2 broadcast",
       {the_address, {"iod", interface, "the interface whose subnets' broadcasts count"}},
       ResultType::number,
       "1: multicast; 2: broadcast",
       "unicast",
       "--addr 10.0.0.255 --iod eth0",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::number, ip_packet_stats_type(v[0].number, v[1].number));
       }},
      {"ip_is_addr_mattached",
       "the interface by which the multicast traffic of a source has to come in",
       {in_context, the_source, the_selector},
       ResultType::interface,
       "the source's subnet, or what a multicast static route says",
       "neither an attached subnet nor a multicast static route",
       "--name default --addr 10.0.0.77",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::interface, ip_is_addr_mattached(v[0].text.c_str(), v[1].number, v[2].number));
       }},
      {"ip_get_mstatic_rpf",
       "the neighbour that a multicast static route names for a source without a direct route",
       {in_context, the_source, the_selector},
       ResultType::address,
       "the neighbour from which the traffic has to come",
       "no multicast static route, or a direct route covers the source",
       "--name default --addr 198.51.100.7",
       true,
       neighbour_of<ip_get_mstatic_rpf>},
      {"ip_get_mstatic_rpf_no_mpath",
       "the neighbour that a multicast static route names for a source",
       {in_context, the_source, the_selector},
       ResultType::address,
       "the neighbour from which the traffic has to come",
       "no multicast static route covers the source",
       "--name default --addr 198.51.100.7",
       true,
       neighbour_of<ip_get_mstatic_rpf_no_mpath>},
  }};
  return rows;
}

}  // namespace ipsh
