// SPDX-License-Identifier: Apache-2.0
// The questions about addresses, masks and prefixes that need no running system.
#include <fmt/format.h>

#include <array>

#include "ip_api.h"
#include "query_table.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument the_address{"addr", address, "the address"};
constexpr Argument the_mask{"mask", mask, "the mask"};
constexpr Argument the_length{"len", mask_length, "the mask length"};

Answer answer_mac(ArgumentValues v) {
  uint8_t mac[6] = {};
  ip_get_mac_multicast(v[0].number, mac);
  Answer answer;
  answer.found = true;
  answer.result.type = ResultType::nothing;
  answer.outputs = {
      {"mac", ResultType::mac, 0,
       fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5])}};
  return answer;
}

Answer answer_copy(ArgumentValues v) {
  ip_prefixtype copy = {0, 0};
  ip_copy_prefix(&v[0].prefix, &copy);
  Answer answer;
  answer.found = true;
  answer.result.type = ResultType::nothing;
  answer.outputs = {{"addr", ResultType::address, copy.addr}, {"mask_len", ResultType::mask_length, copy.mask_len}};
  return answer;
}

}  // namespace

std::span<const Query> address_utility_queries() {
  static const std::array<Query, 19> rows{{
      {"ip_bits2mask",
       "the mask of a mask length",
       {the_length},
       ResultType::mask,
       "the mask",
       "the empty mask",
       "--len 24",
       false,
       [](ArgumentValues v) {
         return answer_number(ResultType::mask, ip_bits2mask(static_cast<uint8_t>(v[0].number)));
       }},
      {"ip_wildcard_mask",
       "the inverse mask of a mask length (0 for length 0)",
       {the_length},
       ResultType::mask,
       "the inverse mask",
       "0.0.0.0: what lengths 0 and 32 give",
       "--len 24",
       false,
       [](ArgumentValues v) {
         return answer_number(ResultType::mask, ip_wildcard_mask(static_cast<uint8_t>(v[0].number)));
       }},
      {"ip_mask2bits",
       "the mask length of a mask, by its lowest set bit",
       {the_mask},
       ResultType::mask_length,
       "the mask length",
       "the mask is empty",
       "--mask 255.255.255.0",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::mask_length, ip_mask2bits(v[0].number)); }},
      {"ip_bytesinmask",
       "how many leading octets the mask touches, 1 to 4",
       {the_mask},
       ResultType::number,
       "leading octets",
       "never: an empty mask gives 1",
       "--mask 255.255.255.0",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::number, ip_bytesinmask(v[0].number)); }},
      {"ip_natural_mask",
       "the classful mask of an address",
       {the_address},
       ResultType::mask,
       "the mask of the address's class",
       "the address is of class D or E, which have none",
       "--addr 172.16.0.1",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::mask, ip_natural_mask(v[0].number)); }},
      {"ip_prefix_martian",
       "is the address unacceptable as a route prefix?",
       {the_address},
       ResultType::flag,
       "yes: no route may have it as its prefix",
       "no: it is acceptable",
       "--addr 127.0.0.1",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_prefix_martian(v[0].number)); }},
      {"ip_address_martian",
       "is the address unacceptable as a host address?",
       {the_address},
       ResultType::flag,
       "yes: no host may have it",
       "no: it is acceptable",
       "--addr 0.0.0.0",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_address_martian(v[0].number)); }},
      {"ip_is_addr_broadcast",
       "is it a broadcast or network address under the mask?",
       {the_address, the_mask},
       ResultType::flag,
       "yes: its host part is all zeros or all ones",
       "no: it is a host address",
       "--addr 10.1.1.255 --mask 255.255.255.0",
       false,
       [](ArgumentValues v) {
         return answer_number(ResultType::flag, ip_is_addr_broadcast(v[0].number, v[1].number));
       }},
      {"ip_is_addr_multicast",
       "is it a multicast address, in 224.0.0.0/4?",
       {the_address},
       ResultType::flag,
       "yes: it is a group",
       "no",
       "--addr 224.0.0.5",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_is_addr_multicast(v[0].number)); }},
      {"ip_is_mask_contiguous",
       "are the mask's set bits contiguous from the top?",
       {the_mask},
       ResultType::flag,
       "yes: it stands for a mask length",
       "no: a zero bit lies before a one bit",
       "--mask 255.0.255.0",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_is_mask_contiguous(v[0].number)); }},
      {"ip_get_broadcast_address",
       "the directed broadcast address of a subnet",
       {the_address, the_length},
       ResultType::address,
       "the subnet's broadcast address",
       "the address is 0.0.0.0",
       "--addr 10.1.1.1 --len 24",
       false,
       [](ArgumentValues v) {
         return answer_number(ResultType::address,
                              ip_get_broadcast_address(v[0].number, static_cast<uint8_t>(v[1].number)));
       }},
      {"ip_is_addr_in_prefix",
       "does the address lie in the prefix?",
       {the_address, {"prefix", address, "the prefix's address"}, {"len", mask_length, "the prefix's mask length"}},
       ResultType::flag,
       "yes: it lies in the prefix",
       "no",
       "--addr 10.1.2.3 --prefix 10.0.0.0 --len 8",
       false,
       [](ArgumentValues v) {
         return answer_number(ResultType::flag,
                              ip_is_addr_in_prefix(v[0].number, v[1].number, static_cast<uint8_t>(v[2].number)));
       }},
      {"ip_get_mac_multicast",
       "the Ethernet address of a multicast group",
       {{"group", address, "the group address"}},
       ResultType::nothing,
       "the group's Ethernet address",
       "",
       "--group 239.129.1.2",
       false,
       answer_mac},
      {"ip_match_prefix",
       "are two prefixes equal, address and length as they stand?",
       {{"a", prefix, "one prefix"}, {"b", prefix, "the other prefix"}},
       ResultType::flag,
       "yes: they are equal",
       "no: address or length differs",
       "--a 10.0.0.0/8 --b 10.0.0.1/8",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_match_prefix(&v[0].prefix, &v[1].prefix)); }},
      {"ip_copy_prefix",
       "a copy of a prefix",
       {{"src", prefix, "the prefix to copy"}},
       ResultType::nothing,
       "the copy",
       "",
       "--src 10.0.0.0/8",
       false,
       answer_copy},
      {"inet_ntoa",
       "the text of an address that lies in network order",
       {{"addr-net", address_network_order, "the address"}},
       ResultType::text,
       "the address in dotted form",
       "",
       "--addr-net 10.1.2.3",
       false,
       [](ArgumentValues v) { return answer_text(inet_ntoa(v[0].number)); }},
      {"ip_print_addr",
       "the text of an address",
       {the_address},
       ResultType::text,
       "the address in dotted form",
       "",
       "--addr 0x0a010203",
       false,
       [](ArgumentValues v) { return answer_text(ip_print_addr(v[0].number)); }},
      {"ip_print_prefix",
       "the text of a prefix",
       {{"prefix", prefix, "the prefix"}},
       ResultType::text,
       "the prefix in dotted form with its length",
       "",
       "--prefix 10.0.0.0/8",
       false,
       [](ArgumentValues v) { return answer_text(ip_print_prefix(&v[0].prefix)); }},
      {"ip_is_syslog_svr_address",
       "is it a syslog server's address? (always no)",
       {the_address},
       ResultType::flag,
       "yes",
       "no: the library knows of no syslog server",
       "--addr 10.1.2.3",
       false,
       [](ArgumentValues v) { return answer_number(ResultType::flag, ip_is_syslog_svr_address(v[0].number)); }},
  }};
  return rows;
}

}  // namespace ipsh
