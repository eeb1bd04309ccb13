// SPDX-License-Identifier: Apache-2.0
#include "published_system.h"

#include <gtest/gtest.h>

#include <string>

#include "ip_api.h"
#include "mtrack/mtrack_writer.h"
#include "sysmgr/sysmgr_writer.h"

namespace test_support {

std::unique_ptr<ipd::Publisher> publish_test_system() {
  std::string reason;
  EXPECT_TRUE(rsw::sysmgr_open_for_writing(&reason)) << reason;
  EXPECT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  ip_mem_init();  // the names of the memory types, which the publisher counts under
  std::unique_ptr<ipd::Publisher> publisher = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
  EXPECT_NE(publisher, nullptr) << reason;
  if (!publisher) return nullptr;
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
  EXPECT_TRUE(publisher->commit()) << publisher->last_error();
  return publisher;
}

}  // namespace test_support
