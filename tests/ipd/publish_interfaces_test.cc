// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "im.h"
#include "ipd/publish_system.h"
#include "l3vm.h"

namespace publish_test {
namespace {

class PublishInterfaces : public testing::Test {
 protected:
  PublishInterfaces() {
    system->set_context(default_context);
    system->set_context(context(7, "blue"));
    system->set_interface(interface(2, "port2"));
    system->set_interface(interface(3, "port3"));
    system.go_live();
  }
  System system;
};

TEST_F(PublishInterfaces, AnInterfaceIsInTheTableWithItsRecord) {
  const uint32_t iod = system->iod(2);
  ASSERT_NE(iod, 0u);
  uint32_t found = 0;
  EXPECT_EQ(im_get_iod_frm_ifindex(2, &found), 0u);
  EXPECT_EQ(found, iod);
  EXPECT_STREQ(im_get_if_name(iod), "port2");
  EXPECT_EQ(lcache_im_get_if_mtu(iod), 1500u);
  EXPECT_EQ(im_is_if_up(iod), 1u);
  EXPECT_EQ(im_is_adminup(iod), 1u);
  EXPECT_EQ(l3vm_if_get_context_id(iod), 1u);
  EXPECT_EQ(ip_is_multicast_enabled(iod), 1u);
  ASSERT_NE(interface_record(iod), nullptr);
  EXPECT_EQ(interface_record(iod)->fwd_enabled, 1u);
}

TEST_F(PublishInterfaces, AChangedDeviceKeepsItsRecord) {
  const uint32_t iod = system->iod(2);
  const ip_iftype *record = interface_record(iod);
  auto state = interface(2, "uplink");
  state.up = false;
  state.mtu = 9000;
  ASSERT_TRUE(system->set_interface(state));
  EXPECT_EQ(system->iod(2), iod);
  EXPECT_STREQ(im_get_if_name(iod), "uplink");
  EXPECT_EQ(im_is_if_up(iod), 0u);
  EXPECT_EQ(lcache_im_get_if_mtu(iod), 9000u);
  EXPECT_EQ(interface_record(iod), record);
}

TEST_F(PublishInterfaces, AChangedFlagIsANewRecordWithTheSameAddresses) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_vip({.ifindex = 2, .addr = ip(10, 0, 0, 254)});
  const uint32_t iod = system->iod(2);
  const ip_iftype *record = interface_record(iod);
  auto state = interface(2, "port2");
  state.forwarding = false;
  state.multicast = false;
  state.directed_broadcast = true;
  ASSERT_TRUE(system->set_interface(state));
  EXPECT_NE(interface_record(iod), record);
  EXPECT_EQ(interface_record(iod)->fwd_enabled, 0u);
  EXPECT_EQ(interface_record(iod)->vaddr_count, 1u);
  EXPECT_EQ(ip_is_multicast_enabled(iod), 0u);
  EXPECT_EQ(ip_allow_directed_broadcast(iod), 1u);
  EXPECT_EQ(ip_is_address_on_interface(ip(10, 0, 0, 1), iod), 1u);
}

TEST_F(PublishInterfaces, ARemovedInterfaceLeavesNothingBehind) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_vip({.ifindex = 2, .addr = ip(10, 0, 0, 254)});
  system->set_unnumbered(2, 3, "port3");
  const uint32_t iod = system->iod(2);
  ASSERT_TRUE(system->remove_interface(2));
  EXPECT_EQ(system->iod(2), 0u);
  EXPECT_EQ(interface_record(iod), nullptr);
  EXPECT_EQ(im_get_if_name(iod), nullptr);
  EXPECT_TRUE(holdings_of(1).empty());
  EXPECT_EQ(system->use().interfaces, 1u);
  EXPECT_EQ(system->use().addresses, 0u);
  EXPECT_TRUE(system->remove_interface(2)) << "what is not there is removed";
}

TEST_F(PublishInterfaces, MovesBetweenContextsWithAllItHolds) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_address(2, secondary(ip(10, 0, 0, 2), 24));
  system->set_vip({.ifindex = 2, .addr = ip(10, 0, 0, 254)});
  system->set_address(3, primary(ip(10, 0, 0, 3), 24));
  const uint32_t iod = system->iod(2);
  const std::vector<Holding> before = holdings_of(1);
  ASSERT_EQ(before.size(), 5u);
  auto state = interface(2, "port2");
  state.context_id = 7;
  ASSERT_TRUE(system->set_interface(state));
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(system->iod(2), iod);
  EXPECT_EQ(l3vm_if_get_context_id(iod), 7u);
  EXPECT_EQ(l3vm_if_get_table_id(iod, 1, "base"), 1007u);
  EXPECT_EQ(ip_get_iod_for_local_address("blue", ip(10, 0, 0, 2)), iod);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 0, 2)), 0u);
  EXPECT_EQ(addresses_of(iod), (Addresses{{ip(10, 0, 0, 1), 24}, {ip(10, 0, 0, 2), 24}}));
  const uint32_t other = system->iod(3);
  EXPECT_EQ(holdings_of(1),
            (std::vector<Holding>{{ip(10, 0, 0, 0), 24, {other}, false}, {ip(10, 0, 0, 3), 32, {other}, false}}));
  EXPECT_EQ(holdings_of(7), (std::vector<Holding>{{ip(10, 0, 0, 0), 24, {iod}, false},
                                                  {ip(10, 0, 0, 1), 32, {iod}, false},
                                                  {ip(10, 0, 0, 2), 32, {iod}, false},
                                                  {ip(10, 0, 0, 254), 32, {iod}, true}}));
  EXPECT_EQ(ip_get_api_context(7)->router_id, ip(10, 0, 0, 2));
  EXPECT_EQ(ip_get_api_context(1)->router_id, ip(10, 0, 0, 3));
  EXPECT_TRUE(system->remove_interface(3));
  EXPECT_TRUE(system->remove_context(1));
}

TEST_F(PublishInterfaces, AnUnnumberedInterfaceNamesItsLender) {
  ASSERT_TRUE(system->set_unnumbered(2, 3, "port3"));
  const uint32_t iod = system->iod(2);
  EXPECT_EQ(ip_is_iod_unnumbered(iod), 1u);
  EXPECT_EQ(interface_record(iod)->unnum_src_iod, system->iod(3));
  EXPECT_STREQ(interface_record(iod)->unnum_data->name, "port3");
  ASSERT_TRUE(system->set_unnumbered(2, 0, ""));
  EXPECT_EQ(ip_is_iod_unnumbered(iod), 0u);
  EXPECT_EQ(interface_record(iod)->unnum_src_iod, 0u);
}

TEST_F(PublishInterfaces, ALenderMayComeLateAndGo) {
  ASSERT_TRUE(system->set_unnumbered(2, 9, "port9"));
  const uint32_t iod = system->iod(2);
  EXPECT_EQ(ip_is_iod_unnumbered(iod), 1u);
  EXPECT_EQ(interface_record(iod)->unnum_src_iod, 0u);
  ASSERT_TRUE(system->set_interface(interface(9, "port9")));
  EXPECT_EQ(interface_record(iod)->unnum_src_iod, system->iod(9));
  ASSERT_TRUE(system->remove_interface(9));
  EXPECT_EQ(interface_record(iod)->unnum_src_iod, 0u);
  EXPECT_EQ(ip_is_iod_unnumbered(iod), 1u);
  ASSERT_TRUE(system->remove_interface(2));
  ASSERT_TRUE(system->set_interface(interface(9, "port9"))) << "a borrower that is gone is not told";
}

TEST_F(PublishInterfaces, BadArgumentsAreRefusedWithAReason) {
  EXPECT_FALSE(system->set_interface(interface(0, "zero")));
  EXPECT_FALSE(system->set_interface(interface(4, std::string(40, 'x'))));
  EXPECT_EQ(system->last_error(), "interface name \"" + std::string(40, 'x') + "\" is not 1 to 39 characters long");
  auto state = interface(4);
  state.context_id = 99;
  EXPECT_FALSE(system->set_interface(state));
  EXPECT_EQ(system->last_error(), "interface port4 is in context 99, which is not known");
  EXPECT_EQ(system->iod(4), 0u);
  EXPECT_FALSE(system->set_unnumbered(4, 2, "port2"));
  EXPECT_FALSE(system->set_unnumbered(2, 2, "port2"));
  EXPECT_FALSE(system->set_unnumbered(2, 3, ""));
  EXPECT_FALSE(system->set_unnumbered(2, 3, std::string(40, 'x')));
  EXPECT_EQ(ip_is_iod_unnumbered(system->iod(2)), 0u);
  EXPECT_FALSE(system->set_address(4, primary(ip(10, 0, 0, 1), 24)));
  EXPECT_EQ(system->last_error(), "no interface has the index 4");
}

}  // namespace
}  // namespace publish_test
