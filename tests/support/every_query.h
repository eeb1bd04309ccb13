// SPDX-License-Identifier: Apache-2.0
// Every question of libip that follows words of the shared segments, asked once about one subject. For tests in which
// any answer will do, but none may fault, hang or be refused by a sanitizer.
#ifndef TESTS_SUPPORT_EVERY_QUERY_H
#define TESTS_SUPPORT_EVERY_QUERY_H

#include <cstdint>
#include <cstdio>

#include "ip_api.h"
#include "ip_packet_util.h"

namespace test_support {

struct Subject {
  const char *context_name;
  uint32_t context_id;
  uint32_t iod;
  uint32_t addr;
  uint8_t len;
};

// Room for any text in a segment: a lender's name is copied to its terminator, wherever a damaged segment has one.
inline constexpr uint32_t largest_segment = 128u << 20;
inline char lender_name[largest_segment];

// A command's output that nobody reads.
inline FILE *nowhere() {
  static FILE *const stream = fopen("/dev/null", "w");
  return stream;
}

// A caller's own loop, which has to end by the answers; 300 is more than the tests' systems hold.
template <class Step>
inline void loop(uint32_t from, Step step) {
  uint32_t steps = 0;
  for (uint32_t at = step(from); at != 0 && steps < 300; at = step(at)) steps++;
}

inline void ask_about_context(const Subject &of) {
  const char *name = of.context_name;
  ip_api_context_type *context = ip_get_api_context(of.context_id);
  ip_get_api_context_by_name(name);
  ip_get_api_context_id(name);
  ip_get_api_context_name(of.context_id);
  const auto id = static_cast<int32_t>(of.context_id);
  ip_get_router_id(id);
  ip_get_router_id_iod(id);
  ip_get_router_id_by_name(name);
  ip_get_router_id_iod_by_name(name);
  ip_get_iod_for_local(context, of.addr);
  ip_get_iod_for_local_address(name, of.addr);
  ip_get_alliod_for_address(name, of.addr);
  ip_get_iod_for_local_subnet(name, of.addr & ip_bits2mask(of.len), of.len);
  uint32_t out = 0;
  ip_find_overlap_interface(context, of.addr, of.len, of.iod, &out);
  ip_check_for_prefix_overlap(context, of.addr, of.len, &out);
  ip_check_for_prefix_overlap_no_state(context, of.addr, of.len, &out);
  ip_get_best_intf_vip(of.context_id, of.addr, of.iod, &out);
  ip_is_addr_local(name, of.addr);
  ip_is_addr_local_active(name, of.addr);
  ip_is_addr_local_intf(of.context_id, of.addr);
  ip_is_addr_local_vip(of.context_id, of.addr);
  ip_is_addr_local_configured(of.context_id, of.addr);
  ip_get_active_local_address(of.context_id);
  loop(0, [name](uint32_t addr) { return ip_get_next_address(name, addr); });
  loop(of.addr, [name](uint32_t addr) { return ip_get_next_all_address(name, addr); });
  ip_get_local_mcast_addr(of.context_id, &out);
}

inline void ask_about_routes(const Subject &of) {
  const char *name = of.context_name;
  ip_is_route_direct(name, of.addr);
  ip_get_iod_from_addr(name, of.addr);
  ip_is_addr_attached(name, of.addr);
  ip_is_addr_mattached(name, of.addr, 0);
  ip_get_mstatic_rpf(name, of.addr, 0);
  ip_get_mstatic_rpf_no_mpath(name, of.addr, 0);
  ip_is_addr_on_iod(nullptr, of.addr, of.iod);
  ip_is_addr_local_in_urib(name, of.addr);
  ip_get_iod_for_address(name, of.addr);
  ip_get_iod_for_subnet(name, of.addr, of.len);
  uint32_t out = 0;
  ip_get_route(of.context_id, of.addr, &out);
  if (of.context_id != 0) ip_urib_is_addr_active_local(of.context_id, of.addr);
}

inline void ask_about_addresses_of_interface(const Subject &of) {
  ip_is_address_on_interface(of.addr, of.iod);
  ip_get_local_addr(of.iod);
  ip_get_local_mask(of.iod);
  ip_get_local_mask_len(of.addr, of.iod);
  ip_prefixtype prefix{};
  ip_get_local_prefix(of.iod, &prefix);
  uint32_t addr = 0;
  uint8_t len = 0;
  loop(0, [&](uint32_t) {
    ip_get_next_secondary(of.iod, &addr, &len);
    return addr;
  });
  ip_get_secondary_count(of.iod);
  ip_get_best_local_addr(of.iod, of.addr);
  uint32_t out = 0;
  ip_get_best_intf_addr(of.iod, of.addr, &out);
  ip_check_target_addr_for_local_subnet(of.iod, of.addr);
  ip_get_local_addr_for_subnet(of.iod, of.addr);
  ip_is_addr_on_attached_subnet(of.addr, of.iod);
  ip_is_addr_directed_broadcast(of.addr, of.iod);
  uint32_t flag = 0;
  ip_get_unnumbered_info(of.iod, &addr, lender_name, &flag);
  ip_icmp_err_source source{"eth1", 0};
  ip_update_icmp_err_source_address(&source, of.iod, 1);
  ip_print_addr_summary(of.iod, nowhere(), nullptr);
}

inline void ask_about_interface(const Subject &of) {
  ip_enabled(of.iod);
  ip_forward_enabled(of.iod);
  is_fwd_enabled_spl_iod(of.iod);
  ip_is_iod_unnumbered(of.iod);
  ip_is_multicast_enabled(of.iod);
  ip_allow_directed_broadcast(of.iod);
  ip_get_vaddr_count_for_iod(of.iod);
  ip_get_mtu(of.iod);
  ip_calc_effective_mtu(0, 0, 0, 0, 0, of.iod);
  ip_get_pim_assert_sent_count(of.iod);
  ip_is_group_joined(of.addr, of.iod);
  ip_get_each_group(
      of.iod, [](uint32_t, uint32_t, uint32_t) -> uint32_t { return 0; }, 0);
  uint32_t packets[5];
  uint64_t bytes[2];
  ip_get_mcast_pkt_stats(of.iod, &packets[0], &packets[1], &packets[2], &packets[3], &packets[4]);
  ip_get_mcast_pkt_stats_orig(of.iod, &packets[0], &packets[1], &packets[2], &packets[3], &packets[4]);
  ip_get_mcast_byte_stats(of.iod, &bytes[0], &bytes[1]);
  ip_get_mcast_byte_stats_orig(of.iod, &bytes[0], &bytes[1]);
}

inline void ask_about_everything_else() {
  loop(0, ip_get_each_enabled_iod);
  loop(0, ip_get_each_multicast_iod);
  ip_get_loopback_addr();
  ip_ecmp_loadshare_status status;
  ip_get_ecmp_loadshare_status(&status);
}

inline void ask_every_query(const Subject &of) {
  ask_about_context(of);
  ask_about_routes(of);
  ask_about_addresses_of_interface(of);
  ask_about_interface(of);
  ask_about_everything_else();
}

}  // namespace test_support

#endif
