// SPDX-License-Identifier: Apache-2.0
// The questions about the address that an interface, or a context, has of its own or borrows.
#include <array>
#include <string>
#include <vector>

#include "ip_api.h"
#include "query_table.h"
#include "snapshot.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument on_interface{"iod", interface, "the interface"};
constexpr Argument to_destination{"dest", address, "the destination"};
constexpr Argument in_context{"context-id", context_id, "the context"};

// The library copies a lender's name without knowing how much room there is: a record of the database ends long before.
constexpr size_t name_room = 65536;

Answer local_prefix(ArgumentValues v) {
  ip_prefixtype out = {0, 0};
  const uint32_t asked = ip_get_local_prefix(v[0].number, &out);
  return answer_outputs(out.addr != 0, asked,
                        {{"addr", ResultType::address, out.addr}, {"mask_len", ResultType::mask_length, out.mask_len}});
}

Answer best_interface_address(ArgumentValues v) {
  uint32_t out = 0;
  const uint32_t found = ip_get_best_intf_addr(v[0].number, v[1].number, &out);
  return answer_outputs(found != 0, found, {{"out", ResultType::address, out}});
}

Answer multicast_address(ArgumentValues v) {
  uint32_t iod = 0;
  Answer answer = answer_number(ResultType::address, ip_get_local_mcast_addr(v[0].number, &iod));
  answer.outputs.push_back({"iod", ResultType::interface, iod});
  return answer;
}

Answer unnumbered_info(ArgumentValues v) {
  uint32_t addr = 0;
  uint32_t flag = 0;
  std::vector<char> name(name_room, '\0');
  const uint32_t asked = ip_get_unnumbered_info(v[0].number, &addr, name.data(), &flag);
  return answer_outputs(flag != 0, asked,
                        {{"addr", ResultType::address, addr},
                         {"name", ResultType::text, 0, std::string(name.data())},
                         {"flag", ResultType::flag, flag}});
}

// The record is the caller's own: it is made here of what was given, and shown as the library left it.
Answer icmp_error_source(ArgumentValues v) {
  ip_icmp_err_source record{};
  v[0].text.copy(record.if_name, sizeof(record.if_name) - 1);
  record.src_addr = v[1].number;
  const uint32_t answer = ip_update_icmp_err_source_address(&record, v[2].number, v[3].number);
  const bool same_interface = interface_name(v[2].number) == record.if_name;
  return {answer != 0,
          {"", same_interface ? ResultType::address : ResultType::number, answer},
          {{"if_name", ResultType::text, 0, std::string(record.if_name)},
           {"src_addr", ResultType::address, record.src_addr}}};
}

}  // namespace

std::span<const Query> interface_address_queries() {
  static const std::array<Query, 12> rows{{
      {"ip_get_local_addr",
       "the primary address of the interface, its own or borrowed",
       {on_interface},
       ResultType::address,
       "the interface's primary address",
       "the interface has no address, or there is no such interface",
       "--iod tun0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::address, ip_get_local_addr(v[0].number)); }},
      {"ip_get_local_mask",
       "the mask of the interface's own primary address",
       {on_interface},
       ResultType::mask,
       "the mask",
       "the interface has no address of its own, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::mask, ip_get_local_mask(v[0].number)); }},
      {"ip_get_local_prefix",
       "the primary address of the interface with its mask length, its own or borrowed",
       {on_interface},
       ResultType::flag,
       "the prefix is in addr and mask_len",
       "the interface has no address, or there is no such interface (the value is 1 all the same)",
       "--iod tun0",
       true,
       local_prefix},
      {"ip_get_best_local_addr",
       "the interface's address to speak to a destination from",
       {on_interface, to_destination},
       ResultType::address,
       "the address: of the longest subnet that holds the destination, else the primary one",
       "the interface has no address, or there is no such interface",
       "--iod eth0 --dest 10.0.1.77",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::address, ip_get_best_local_addr(v[0].number, v[1].number));
       }},
      {"ip_get_best_intf_addr",
       "the interface's address on the longest subnet that holds a destination",
       {on_interface, to_destination},
       ResultType::flag,
       "yes: the address is in out",
       "no: none of the interface's subnets holds the destination",
       "--iod eth0 --dest 10.0.1.77",
       true,
       best_interface_address},
      {"ip_get_active_local_address",
       "the lowest address of the context that is active",
       {in_context},
       ResultType::address,
       "an address of an interface that is up; when it is virtual, it is active",
       "the context has none, or there is no such context",
       "--context-id default",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::address, ip_get_active_local_address(v[0].number)); }},
      {"ip_get_local_mcast_addr",
       "the address of the context's first multicast interface",
       {in_context},
       ResultType::address,
       "the primary address of the interface in iod",
       "no interface of the context has both an address and multicast",
       "--context-id default",
       true,
       multicast_address},
      {"ip_get_loopback_addr",
       "the address of the first interface that has one, loopbacks first",
       {},
       ResultType::address,
       "the primary address of that interface",
       "no interface has an address",
       "",
       true,
       [](ArgumentValues) { return answer_number(ResultType::address, ip_get_loopback_addr()); }},
      {"ip_get_vaddr_count_for_iod",
       "how many virtual addresses the interface has",
       {on_interface},
       ResultType::number,
       "virtual addresses",
       "the interface has none, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::number, ip_get_vaddr_count_for_iod(v[0].number)); }},
      {"ip_is_addr_directed_broadcast",
       "is it the all-ones or all-zeros host of one of the interface's subnets?",
       {{"addr", address, "the address"}, on_interface},
       ResultType::flag,
       "yes: it is a directed broadcast address there",
       "no, or there is no such interface",
       "--addr 10.0.0.255 --iod eth0",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::flag, ip_is_addr_directed_broadcast(v[0].number, v[1].number));
       }},
      {"ip_get_unnumbered_info",
       "what an unnumbered interface borrows, and from which interface",
       {on_interface},
       ResultType::flag,
       "it borrows addr from the interface in name",
       "it borrows nothing: the error text says why (the value is 1 all the same)",
       "--iod tun0",
       true,
       unnumbered_info},
      {"ip_update_icmp_err_source_address",
       "what an ICMP error source's record becomes when an interface changes",
       {{"if-name", text, "the record: the interface it names"},
        {"src-addr", address, "the record: its source address so far", 0},
        on_interface,
        {"flag", number, "1: the interface is up; 0: it is down", 1}},
       ResultType::address,
       "the new source address; when the record names another interface, how the names differ",
       "the record has no source address now, or the interface has no name",
       "--if-name eth0 --iod eth0",
       true,
       icmp_error_source},
  }};
  return rows;
}

}  // namespace ipsh
