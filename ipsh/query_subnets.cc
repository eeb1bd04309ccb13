// SPDX-License-Identifier: Apache-2.0
// The questions about subnets: which address lies on which, and what a new prefix would collide with.
#include <array>

#include "ip_api.h"
#include "query_table.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument of_context{"ctx", context_record, "the context"};
constexpr Argument new_address{"addr", address, "the address that is to be configured"};
constexpr Argument new_length{"len", mask_length, "its mask length"};
constexpr Argument on_interface{"iod", interface, "the interface"};

// The record that a context's id stands for now; null for id 0, which asks what the library makes of no context.
ip_api_context_type *record_of(const ArgumentValue &value) {
  return value.number == 0 ? nullptr : ip_get_api_context(value.number);
}

Answer answer_overlap(uint32_t overlaps, uint32_t out) {
  return answer_outputs(overlaps != 0, overlaps, {{"out", ResultType::interface, out}});
}

Answer find_overlap(ArgumentValues v) {
  uint32_t out = 0;
  const uint32_t overlaps =
      ip_find_overlap_interface(record_of(v[0]), v[1].number, static_cast<uint8_t>(v[2].number), v[3].number, &out);
  return answer_overlap(overlaps, out);
}

Answer check_overlap(ArgumentValues v) {
  uint32_t out = 0;
  const uint32_t overlaps =
      ip_check_for_prefix_overlap(record_of(v[0]), v[1].number, static_cast<uint8_t>(v[2].number), &out);
  return answer_overlap(overlaps, out);
}

Answer check_overlap_in_any_state(ArgumentValues v) {
  uint32_t out = 0;
  const uint32_t overlaps =
      ip_check_for_prefix_overlap_no_state(record_of(v[0]), v[1].number, static_cast<uint8_t>(v[2].number), &out);
  return answer_overlap(overlaps, out);
}

constexpr std::string_view overlap = "yes: the interface in out has a prefix in common (0: there is no context)";
constexpr std::string_view no_overlap = "no: the prefix is free";

}  // namespace

std::span<const Query> subnet_queries() {
  static const std::array<Query, 7> rows{{
      {"ip_find_overlap_interface",
       "would a new prefix collide with one of another interface?",
       {of_context,
        new_address,
        new_length,
        {"ignore-iod", interface, "the interface that is to get it, which does not count", 0}},
       ResultType::flag,
       overlap,
       no_overlap,
       "--ctx default --addr 10.0.0.77 --len 24 --ignore-iod lo",
       true,
       find_overlap},
      {"ip_check_for_prefix_overlap",
       "does any prefix of an interface that is administratively up cover the new one, or lie in it?",
       {of_context, new_address, new_length},
       ResultType::flag,
       overlap,
       no_overlap,
       "--ctx default --addr 10.0.0.77 --len 24",
       true,
       check_overlap},
      {"ip_check_for_prefix_overlap_no_state",
       "the same for interfaces in any state",
       {of_context, new_address, new_length},
       ResultType::flag,
       overlap,
       no_overlap,
       "--ctx default --addr 10.0.0.77 --len 24",
       true,
       check_overlap_in_any_state},
      {"ip_check_target_addr_for_local_subnet",
       "is the target on the subnet of an address of the interface, other than itself?",
       {on_interface, {"target", address, "the target address"}},
       ResultType::flag,
       "yes: it is on one of the interface's subnets",
       "no, or there is no such interface",
       "--iod eth0 --target 10.0.0.77",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::flag, ip_check_target_addr_for_local_subnet(v[0].number, v[1].number));
       }},
      {"ip_get_local_addr_for_subnet",
       "the interface's address whose subnet holds the address, the longest",
       {on_interface, {"addr", address, "the address"}},
       ResultType::address,
       "the interface's address on that subnet",
       "the address is on none of the interface's subnets",
       "--iod eth0 --addr 10.0.0.77",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::address, ip_get_local_addr_for_subnet(v[0].number, v[1].number));
       }},
      {"ip_is_addr_on_attached_subnet",
       "the same as ip_get_local_addr_for_subnet, arguments the other way round",
       {{"addr", address, "the address"}, on_interface},
       ResultType::address,
       "the interface's address on that subnet",
       "the address is on none of the interface's subnets",
       "--addr 10.0.0.77 --iod eth0",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::address, ip_is_addr_on_attached_subnet(v[0].number, v[1].number));
       }},
      {"ip_get_iod_for_local_subnet",
       "the interface that holds exactly this prefix",
       {{"name", context_name, "the context"},
        {"addr", address, "the subnet's address"},
        {"len", mask_length, "its mask length"}},
       ResultType::interface,
       "the interface has that subnet",
       "no interface of the context has exactly that subnet",
       "--name default --addr 10.0.0.0 --len 24",
       true,
       [](ArgumentValues v) {
         return answer_number(ResultType::interface, ip_get_iod_for_local_subnet(v[0].text.c_str(), v[1].number,
                                                                                 static_cast<uint8_t>(v[2].number)));
       }},
  }};
  return rows;
}

}  // namespace ipsh
