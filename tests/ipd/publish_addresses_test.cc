// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "ipd/publish_system.h"

namespace publish_test {
namespace {

class PublishAddresses : public testing::Test {
 protected:
  PublishAddresses() {
    system->set_context(default_context);
    for (const uint32_t ifindex : {2u, 3u, 4u}) system->set_interface(interface(ifindex));
    system.go_live();
    iod2 = system->iod(2);
    iod3 = system->iod(3);
    iod4 = system->iod(4);
  }
  System system;
  uint32_t iod2 = 0, iod3 = 0, iod4 = 0;
};

TEST_F(PublishAddresses, AnAddressIsOnItsInterfaceAndInTheTreeWithItsSubnet) {
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 1, 2, 3), 20)));
  EXPECT_EQ(ip_is_address_on_interface(ip(10, 1, 2, 3), iod2), 1u);
  EXPECT_EQ(ip_get_local_mask_len(ip(10, 1, 2, 3), iod2), 20u);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 1, 2, 3)), iod2);
  EXPECT_EQ(holdings_of(1),
            (std::vector<Holding>{{ip(10, 1, 0, 0), 20, {iod2}, false}, {ip(10, 1, 2, 3), 32, {iod2}, false}}));
  EXPECT_EQ(system->use().addresses, 1u);
}

TEST_F(PublishAddresses, AHostAddressIsOneNode) {
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 1, 2, 3), 32)));
  EXPECT_EQ(holdings_of(1), (std::vector<Holding>{{ip(10, 1, 2, 3), 32, {iod2}, false}}));
  ASSERT_TRUE(system->remove_address(2, ip(10, 1, 2, 3), 32));
  EXPECT_TRUE(holdings_of(1).empty());
}

TEST_F(PublishAddresses, BothEndsOfASlash31MayBeTheNetworkAddress) {
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 0), 31)));
  EXPECT_EQ(holdings_of(1),
            (std::vector<Holding>{{ip(10, 0, 0, 0), 31, {iod2}, false}, {ip(10, 0, 0, 0), 32, {iod2}, false}}));
}

TEST_F(PublishAddresses, AMaskOfLengthZeroMakesTheWholeSpaceItsSubnet) {
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 1), 0)));
  EXPECT_EQ(holding_of(1, 0, 0).iods, std::vector<uint32_t>{iod2});
  ASSERT_TRUE(system->remove_address(2, ip(10, 0, 0, 1), 0));
  EXPECT_TRUE(holdings_of(1).empty());
}

TEST_F(PublishAddresses, ASubnetStaysAsLongAsOneOfItsAddressesDoes) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_address(2, secondary(ip(10, 0, 0, 2), 24));
  system->set_address(3, primary(ip(10, 0, 0, 3), 24));
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 0), 24).iods, (std::vector<uint32_t>{iod2, iod3}));
  system->remove_address(2, ip(10, 0, 0, 1), 24);
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 0), 24).iods, (std::vector<uint32_t>{iod2, iod3}));
  system->remove_address(2, ip(10, 0, 0, 2), 24);
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 0), 24).iods, std::vector<uint32_t>{iod3});
  system->remove_address(3, ip(10, 0, 0, 3), 24);
  EXPECT_TRUE(holdings_of(1).empty());
}

TEST_F(PublishAddresses, OneAddressWithTwoMasksIsOneLocalNode) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_address(2, primary(ip(10, 0, 0, 1), 16));
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 1), 32).iods, std::vector<uint32_t>{iod2});
  system->remove_address(2, ip(10, 0, 0, 1), 24);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 0, 1)), iod2);
  EXPECT_EQ(ip_get_local_mask_len(ip(10, 0, 0, 1), iod2), 16u);
  system->remove_address(2, ip(10, 0, 0, 1), 16);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 0, 1)), 0u);
}

TEST_F(PublishAddresses, TheFirstHolderOfASharedAddressIsTheAnswer) {
  for (const uint32_t ifindex : {3u, 2u, 4u}) system->set_address(ifindex, primary(ip(10, 0, 0, 1), 32));
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 1), 32).iods, (std::vector<uint32_t>{iod3, iod2, iod4}));
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 0, 1)), iod3);
  system->remove_address(3, ip(10, 0, 0, 1), 32);
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 1), 32).iods, (std::vector<uint32_t>{iod2, iod4}));
  system->set_address(3, primary(ip(10, 0, 0, 1), 32));
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 1), 32).iods, (std::vector<uint32_t>{iod2, iod4, iod3}));
  system->remove_address(4, ip(10, 0, 0, 1), 32);
  EXPECT_EQ(holding_of(1, ip(10, 0, 0, 1), 32).iods, (std::vector<uint32_t>{iod2, iod3}));
  system->remove_address(2, ip(10, 0, 0, 1), 32);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 0, 1)), iod3);
  system->remove_address(3, ip(10, 0, 0, 1), 32);
  EXPECT_TRUE(holdings_of(1).empty());
}

TEST_F(PublishAddresses, PrimariesStandByScopeAndArrivalSecondariesBehindThem) {
  system->set_address(2, secondary(ip(10, 0, 0, 9), 24));
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_address(2, secondary(ip(10, 0, 0, 2), 24));
  system->set_address(2, primary(ip(20, 0, 0, 1), 24));
  system->set_address(2, primary(ip(127, 0, 0, 1), 8, 254));
  system->set_address(2, primary(ip(169, 254, 0, 1), 16, 253));
  EXPECT_EQ(addresses_of(iod2), (Addresses{{ip(127, 0, 0, 1), 8},
                                           {ip(169, 254, 0, 1), 16},
                                           {ip(10, 0, 0, 1), 24},
                                           {ip(20, 0, 0, 1), 24},
                                           {ip(10, 0, 0, 9), 24},
                                           {ip(10, 0, 0, 2), 24}}));
  EXPECT_EQ(ip_get_secondary_count(iod2), 5u);
  uint32_t addr = 0;
  uint8_t len = 0;
  ip_get_next_secondary(iod2, &addr, &len);
  EXPECT_EQ(addr, ip(169, 254, 0, 1));
}

TEST_F(PublishAddresses, APromotedSecondaryMovesUpAndIsThereOnce) {
  system->set_address(2, primary(ip(20, 0, 0, 1), 24));
  system->set_address(2, secondary(ip(10, 0, 0, 2), 24));
  system->set_address(2, secondary(ip(10, 0, 0, 3), 24));
  system->set_address(2, secondary(ip(10, 0, 0, 4), 24));
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 3), 24)));
  EXPECT_EQ(addresses_of(iod2),
            (Addresses{{ip(20, 0, 0, 1), 24}, {ip(10, 0, 0, 3), 24}, {ip(10, 0, 0, 2), 24}, {ip(10, 0, 0, 4), 24}}));
  ASSERT_TRUE(system->set_address(2, secondary(ip(20, 0, 0, 1), 24)));
  EXPECT_EQ(addresses_of(iod2),
            (Addresses{{ip(10, 0, 0, 3), 24}, {ip(10, 0, 0, 2), 24}, {ip(10, 0, 0, 4), 24}, {ip(20, 0, 0, 1), 24}}));
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 2), 24, 254)));
  EXPECT_EQ(addresses_of(iod2).front(), (std::pair<uint32_t, uint32_t>{ip(10, 0, 0, 2), 24}));
  for (const uint32_t last : {2u, 3u, 4u}) system->remove_address(2, ip(10, 0, 0, last), 24);
  EXPECT_EQ(addresses_of(iod2), (Addresses{{ip(20, 0, 0, 1), 24}}));
  EXPECT_EQ(holdings_of(1).size(), 2u);
}

TEST_F(PublishAddresses, SayingTheSameAgainChangesNothing) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_address(2, primary(ip(10, 0, 1, 1), 24));
  const ip_addrtype *record = interface_record(iod2)->addr_list;
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 1), 24)));
  EXPECT_EQ(interface_record(iod2)->addr_list.get(), record);
  EXPECT_EQ(addresses_of(iod2).size(), 2u);
  EXPECT_EQ(system->use().addresses, 2u);
}

TEST_F(PublishAddresses, BadArgumentsAreRefusedWithAReason) {
  EXPECT_FALSE(system->set_address(2, primary(ip(10, 0, 0, 1), 33)));
  EXPECT_EQ(system->last_error(), "mask length 33 is above 32");
  EXPECT_FALSE(system->set_address(2, primary(0, 24)));
  EXPECT_FALSE(system->set_vip({.ifindex = 99, .addr = 1}));
  EXPECT_FALSE(system->set_vip({.ifindex = 2, .addr = 0}));
  EXPECT_TRUE(system->remove_address(2, ip(10, 0, 0, 1), 24)) << "what is not there is removed";
  EXPECT_TRUE(system->remove_vip({.ifindex = 2, .addr = ip(10, 0, 0, 1)}));
  EXPECT_TRUE(holdings_of(1).empty());
}

TEST_F(PublishAddresses, AVirtualAddressIsLocalAndMarked) {
  ASSERT_TRUE(system->set_vip({.ifindex = 2, .addr = ip(10, 0, 0, 254)}));
  EXPECT_EQ(holdings_of(1), (std::vector<Holding>{{ip(10, 0, 0, 254), 32, {iod2}, true}}));
  EXPECT_EQ(interface_record(iod2)->vaddr_count, 1u);
  EXPECT_TRUE(addresses_of(iod2).empty());
  uint32_t vip = 0;
  EXPECT_EQ(ip_get_best_intf_vip(1, ip(10, 0, 0, 1), iod2, &vip), 1u);
  EXPECT_EQ(vip, ip(10, 0, 0, 254));
  EXPECT_EQ(ip_get_best_intf_vip(1, ip(10, 0, 0, 1), iod3, &vip), 0u);
  ASSERT_TRUE(system->remove_vip({.ifindex = 2, .addr = ip(10, 0, 0, 254)}));
  EXPECT_TRUE(holdings_of(1).empty());
  EXPECT_EQ(interface_record(iod2)->vaddr_count, 0u);
}

TEST_F(PublishAddresses, AVirtualAndARealAddressShareTheNode) {
  const uint32_t addr = ip(10, 0, 0, 1);
  system->set_address(2, primary(addr, 32));
  system->set_vip({.ifindex = 2, .addr = addr});
  EXPECT_EQ(holding_of(1, addr, 32), (Holding{addr, 32, {iod2}, true}));
  system->set_vip({.ifindex = 3, .addr = addr});
  EXPECT_EQ(holding_of(1, addr, 32), (Holding{addr, 32, {iod2, iod3}, true}));
  system->remove_address(2, addr, 32);
  EXPECT_EQ(holding_of(1, addr, 32), (Holding{addr, 32, {iod2, iod3}, true}));
  system->remove_vip({.ifindex = 2, .addr = addr});
  EXPECT_EQ(holding_of(1, addr, 32), (Holding{addr, 32, {iod3}, true}));
  system->set_address(4, primary(addr, 32));
  system->remove_vip({.ifindex = 3, .addr = addr});
  EXPECT_EQ(holding_of(1, addr, 32), (Holding{addr, 32, {iod4}, false}));
}

}  // namespace
}  // namespace publish_test
