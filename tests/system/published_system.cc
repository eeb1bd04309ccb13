// SPDX-License-Identifier: Apache-2.0
#include "published_system.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ip_api.h"
#include "mtrack/mtrack_writer.h"
#include "sysmgr/sysmgr_writer.h"

namespace test_support {

namespace {

constexpr std::chrono::milliseconds no_quarantine(0);

void open_system_state() {
  std::string reason;
  EXPECT_TRUE(rsw::sysmgr_open_for_writing(&reason)) << reason;
  EXPECT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  ip_mem_init();  // the names of the memory types, which the publisher counts under
}

void publish_records(const std::unique_ptr<ipd::Publisher> &publisher) {
  EXPECT_TRUE(publisher->set_context({.id = 1, .name = "default", .table_id = 254, .router_id = 0}));
  EXPECT_TRUE(publisher->set_context({.id = 2, .name = "red", .table_id = 100, .router_id = 0xc0000201}));
  ipd::InterfaceState interface {
    .ifindex = 1, .name = "lo", .up = true, .admin_up = true, .loopback = true, .multicast = false, .forwarding = true,
    .directed_broadcast = false, .mtu = 65536, .context_id = 1
  };
  EXPECT_TRUE(publisher->set_interface(interface));
  interface = {.ifindex = 2,
               .name = "eth0",
               .up = true,
               .admin_up = true,
               .loopback = false,
               .multicast = true,
               .forwarding = true,
               .directed_broadcast = true,
               .mtu = 1500,
               .context_id = 1};
  EXPECT_TRUE(publisher->set_interface(interface));
  interface.ifindex = 3;
  interface.name = "eth1";
  interface.up = interface.admin_up = interface.forwarding = interface.directed_broadcast = false;
  interface.mtu = 9000;
  interface.context_id = 2;
  EXPECT_TRUE(publisher->set_interface(interface));
  interface.ifindex = 4;
  interface.name = "tun0";
  interface.admin_up = true;
  interface.multicast = false;
  interface.mtu = 1476;
  interface.context_id = 1;
  EXPECT_TRUE(publisher->set_interface(interface));
  EXPECT_TRUE(publisher->set_address(1, {.addr = 0x7f000001, .mask_len = 8, .secondary = false, .scope = 254}));
  EXPECT_TRUE(publisher->set_address(2, {.addr = 0x0a000001, .mask_len = 24, .secondary = false, .scope = 0}));
  EXPECT_TRUE(publisher->set_address(2, {.addr = 0x0a000002, .mask_len = 24, .secondary = true, .scope = 0}));
  EXPECT_TRUE(publisher->set_address(2, {.addr = 0x0a000101, .mask_len = 24, .secondary = true, .scope = 0}));
  EXPECT_TRUE(publisher->set_address(3, {.addr = 0xc0000201, .mask_len = 25, .secondary = false, .scope = 0}));
  EXPECT_TRUE(publisher->set_vip({.ifindex = 2, .addr = 0x0a000064}));
  EXPECT_TRUE(publisher->set_unnumbered(4, 2, "eth0"));
  EXPECT_TRUE(publisher->set_groups(2, {{.group = 0xe0000005, .data = 1}, {.group = 0xef010203, .data = 7}}));
  EXPECT_TRUE(publisher->set_multicast_counters(2, {.packets = {11, 12, 13, 14, 15}, .bytes = {1ull << 40, 22}}));
  EXPECT_TRUE(publisher->set_pim_asserts(2, 3));
  EXPECT_TRUE(publisher->set_load_share(2, 5));
  EXPECT_TRUE(publisher->commit()) << publisher->last_error();
}

enum Iod : uint32_t { lo = 1, eth0, eth1, tun0 };
constexpr uint8_t by_kernel = 2, by_static = 4, by_dhcp = 16, by_bgp = 186;
constexpr uint32_t kernels_main = 254, kernels_local = 255;

rsw::Route route(uint32_t addr, uint8_t len, rsw::RouteKind kind, uint8_t protocol, rsw::RouteNextHop next_hop) {
  return {.addr = addr,
          .len = len,
          .kind = kind,
          .protocol = protocol,
          .origin = kind == rsw::RouteKind::local ? kernels_local : kernels_main,
          .next_hops = {next_hop}};
}

void publish_routes(rsw::UribWriter &routes) {
  using enum rsw::RouteKind;
  std::vector<rsw::Route> table{
      route(0x0a000000, 24, attached, by_kernel, {.iod = eth0}),
      route(0x0a000100, 24, attached, by_kernel, {.iod = eth0}),
      route(0x0a000001, 32, local, by_kernel, {.iod = eth0}),
      route(0x0a000002, 32, local, by_kernel, {.iod = eth0}),
      route(0x0a000064, 32, local, 0, {.iod = eth0, .data = rsw::inactive_next_hop}),
      route(0x0a000101, 32, local, by_kernel, {.iod = eth0}),
      route(0x7f000001, 32, local, by_kernel, {.iod = lo}),
      route(0, 0, other, by_dhcp, {.iod = eth0, .addr = 0x0a0000fe}),
      route(0xc6336400, 24, static_, by_static, {.addr = 0x0a000009}),
      route(0xc6336500, 24, other, by_bgp, {.iod = eth0, .addr = 0x0a000009}),
      route(0xcb007100, 24, static_, by_static, {}),
      route(0xc0000200, 25, static_, 0, {.table = 100}),
      route(0xc6120000, 15, static_, by_static, {.iod = tun0}),
      route(0xc6336400, 24, multicast_static, 0, {.iod = eth0, .addr = 0x0a000007}),
      route(0x0a000100, 24, multicast_static, 0, {.iod = eth0, .addr = 0x0a000007}),
  };
  table[0].pref_src = 0x0a000001;
  table[7].metric = 100;
  table[9].next_hops.push_back({.iod = eth0, .addr = 0x0a000109, .weight = 3});
  table[10].action = rsw::RouteAction::blackhole;
  table[10].next_hops.clear();
  for (rsw::Route &configured : table) {
    if (configured.protocol == 0) configured.origin = 0;
    EXPECT_TRUE(routes.set(254, configured)) << routes.last_error();
  }
  EXPECT_TRUE(routes.set(100, route(0xc0000200, 25, attached, by_kernel, {.iod = eth1}))) << routes.last_error();
  EXPECT_TRUE(routes.set(100, route(0xc0000201, 32, local, by_kernel, {.iod = eth1}))) << routes.last_error();
  EXPECT_TRUE(routes.commit()) << routes.last_error();
}

}  // namespace

std::unique_ptr<ipd::Publisher> publish_test_system() {
  open_system_state();
  std::string reason;
  std::unique_ptr<ipd::Publisher> publisher = ipd::Publisher::open(&reason, no_quarantine);
  EXPECT_NE(publisher, nullptr) << reason;
  if (publisher) publish_records(publisher);
  return publisher;
}

RoutedSystem publish_test_routes() {
  open_system_state();
  std::string reason;
  RoutedSystem system;
  system.epochs = rsw::Epochs::open(&reason);
  EXPECT_NE(system.epochs, nullptr) << reason;
  if (!system.epochs) return system;
  system.publisher = ipd::Publisher::open(*system.epochs, &reason, no_quarantine);
  EXPECT_NE(system.publisher, nullptr) << reason;
  if (system.publisher) publish_records(system.publisher);
  system.routes = rsw::UribWriter::open(*system.epochs, &reason);
  EXPECT_NE(system.routes, nullptr) << reason;
  if (system.routes) publish_routes(*system.routes);
  return system;
}

}  // namespace test_support
