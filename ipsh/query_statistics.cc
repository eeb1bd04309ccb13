// SPDX-License-Identifier: Apache-2.0
// Router ids, counters, groups and settings.
#include <array>
#include <limits>
#include <utility>
#include <vector>

#include "ip_api.h"
#include "query_table.h"

namespace ipsh {
namespace {

using enum ArgumentType;

constexpr Argument on_interface{"iod", interface, "the interface"};
constexpr Argument by_id{"context-id", context_id, "the context"};
constexpr Argument by_name{"name", context_name, "the context"};

template <ResultType type, uint32_t (*ask)(int32_t)>
Answer router_id_by_id(ArgumentValues v) {
  return answer_number(type, ask(static_cast<int32_t>(v[0].number)));
}
template <ResultType type, uint32_t (*ask)(const char *)>
Answer router_id_by_name(ArgumentValues v) {
  return answer_number(type, ask(v[0].text.c_str()));
}

// One at a time: the library hands a word on to the callback, and no pointer fits into it everywhere.
struct GroupWalk {
  std::vector<std::vector<ResultValue>> calls;
  uint32_t calls_left;
};
GroupWalk *group_walk = nullptr;

uint32_t note_group(uint32_t group, uint32_t group_data, uint32_t arg) {
  group_walk->calls.push_back({{"group", ResultType::address, group},
                               {"group_data", ResultType::number, group_data},
                               {"arg", ResultType::number, arg}});
  return --group_walk->calls_left == 0 ? 1 : 0;
}

Answer each_group(ArgumentValues v) {
  GroupWalk walk{{}, v[1].number == 0 ? std::numeric_limits<uint32_t>::max() : v[1].number};
  group_walk = &walk;
  ip_get_each_group(v[0].number, note_group, v[2].number);
  group_walk = nullptr;
  const bool found = !walk.calls.empty();
  return {found, {"", ResultType::nothing}, {}, std::move(walk.calls)};
}

Answer load_share(ArgumentValues) {
  ip_ecmp_loadshare_status status{};
  const uint32_t known = ip_get_ecmp_loadshare_status(&status);
  return answer_outputs(known != 0, known,
                        {{"mode", ResultType::number, status.mode}, {"value", ResultType::number, status.value}});
}

template <uint32_t (*ask)(uint32_t, uint32_t *, uint32_t *, uint32_t *, uint32_t *, uint32_t *)>
Answer packet_counters(ArgumentValues v) {
  std::array<uint32_t, 5> c{};
  const uint32_t filled = ask(v[0].number, &c[0], &c[1], &c[2], &c[3], &c[4]);
  return answer_outputs(filled != 0, filled,
                        {{"c1", ResultType::number, c[0]},
                         {"c2", ResultType::number, c[1]},
                         {"c3", ResultType::number, c[2]},
                         {"c4", ResultType::number, c[3]},
                         {"c5", ResultType::number, c[4]}});
}

template <uint32_t (*ask)(uint32_t, uint64_t *, uint64_t *)>
Answer byte_counters(ArgumentValues v) {
  std::array<uint64_t, 2> b{};
  const uint32_t filled = ask(v[0].number, &b[0], &b[1]);
  return answer_outputs(filled != 0, filled, {{"b1", ResultType::number, b[0]}, {"b2", ResultType::number, b[1]}});
}

constexpr std::string_view router_id = "the context's router id";
constexpr std::string_view no_router_id = "the context has no router id, or there is no such context";
constexpr std::string_view router_id_source = "the interface that the router id was taken from";
constexpr std::string_view no_source = "the router id was taken from no interface, or there is no such context";
constexpr std::string_view counted = "the interface counts: the counters are set";
constexpr std::string_view not_counted = "the interface has no counters, or there is no such interface";
constexpr std::string_view reads_nothing = "always: this form reads nothing, ask the one that ends in _orig";

}  // namespace

std::span<const Query> statistics_queries() {
  static const std::array<Query, 11> rows{{
      {"ip_get_router_id",
       "the router id of a context, by the context's id",
       {by_id},
       ResultType::address,
       router_id,
       no_router_id,
       "--context-id default",
       true,
       router_id_by_id<ResultType::address, ip_get_router_id>},
      {"ip_get_router_id_iod",
       "the interface that a context's router id was taken from, by the context's id",
       {by_id},
       ResultType::interface,
       router_id_source,
       no_source,
       "--context-id default",
       true,
       router_id_by_id<ResultType::interface, ip_get_router_id_iod>},
      {"ip_get_router_id_by_name",
       "the router id of a context",
       {by_name},
       ResultType::address,
       router_id,
       no_router_id,
       "--name default",
       true,
       router_id_by_name<ResultType::address, ip_get_router_id_by_name>},
      {"ip_get_router_id_iod_by_name",
       "the interface that a context's router id was taken from",
       {by_name},
       ResultType::interface,
       router_id_source,
       no_source,
       "--name default",
       true,
       router_id_by_name<ResultType::interface, ip_get_router_id_iod_by_name>},
      {"ip_get_each_group",
       "each multicast group that is joined on the interface",
       {on_interface,
        {"callback", number, "the callback ends the walk after so many groups; 0 or left out: never", 0},
        {"arg", number, "handed on to the callback", 0}},
       ResultType::nothing,
       "the callback was called once for each group",
       "no group is joined, or there is no such interface",
       "--iod eth0",
       true,
       each_group},
      {"ip_get_pim_assert_sent_count",
       "how many PIM asserts were sent on the interface",
       {on_interface},
       ResultType::number,
       "asserts",
       "none, or there is no such interface",
       "--iod eth0",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::number, ip_get_pim_assert_sent_count(v[0].number)); }},
      {"ip_get_ecmp_loadshare_status",
       "how this system shares load among equal-cost paths",
       {},
       ResultType::flag,
       "the setting is in mode and value",
       "there is no database",
       "",
       true,
       load_share},
      {"ip_get_mcast_pkt_stats_orig",
       "the multicast packet counters of the interface",
       {on_interface},
       ResultType::flag,
       counted,
       not_counted,
       "--iod eth0",
       true,
       packet_counters<ip_get_mcast_pkt_stats_orig>},
      {"ip_get_mcast_byte_stats_orig",
       "the multicast byte counters of the interface",
       {on_interface},
       ResultType::flag,
       counted,
       not_counted,
       "--iod eth0",
       true,
       byte_counters<ip_get_mcast_byte_stats_orig>},
      {"ip_get_mcast_pkt_stats",
       "nothing: the empty form of ip_get_mcast_pkt_stats_orig",
       {on_interface},
       ResultType::flag,
       "never",
       reads_nothing,
       "--iod eth0",
       true,
       packet_counters<ip_get_mcast_pkt_stats>},
      {"ip_get_mcast_byte_stats",
       "nothing: the empty form of ip_get_mcast_byte_stats_orig",
       {on_interface},
       ResultType::flag,
       "never",
       reads_nothing,
       "--iod eth0",
       true,
       byte_counters<ip_get_mcast_byte_stats>},
  }};
  return rows;
}

}  // namespace ipsh
