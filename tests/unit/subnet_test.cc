// SPDX-License-Identifier: Apache-2.0
// Which subnet does an address lie on: of an interface, of a context, and as its broadcast address. The guard around
// the questions to an interface is tested in interface_guard_test.cc.
#include <cstring>

#include "unit/library_test.h"
#include "unit/random_words.h"

namespace unit {
namespace {

constexpr uint32_t iod = 5;

class InterfaceSubnetTest : public LibraryTest {
 protected:
  void addresses(const std::vector<AddressAndLength> &list) { database.interface(iod, list); }
};

// ------------------------------------------------------------ does a target lie on a subnet of the interface

class TargetOnSubnetTest : public InterfaceSubnetTest {
 protected:
  static uint32_t check(uint32_t target) { return ip_check_target_addr_for_local_subnet(iod, target); }
};

TEST_F(TargetOnSubnetTest, YesOnTheSubnetOfAnyAddress) {
  addresses({{address(10, 0, 0, 1), 24}, {address(172, 16, 0, 1), 16}});
  attach();
  EXPECT_EQ(check(address(10, 0, 0, 9)), 1u);
  EXPECT_EQ(check(address(172, 16, 200, 9)), 1u);
  EXPECT_EQ(check(address(10, 0, 1, 9)), 0u);
  EXPECT_EQ(check(address(172, 17, 0, 1)), 0u);
}

TEST_F(TargetOnSubnetTest, AnAddressDoesNotLieOnItsOwnSubnet) {
  addresses({{address(10, 0, 0, 1), 24}});
  attach();
  EXPECT_EQ(check(address(10, 0, 0, 1)), 0u);
}

TEST_F(TargetOnSubnetTest, AnAddressLiesOnTheSubnetOfAnother) {
  addresses({{address(10, 0, 0, 1), 24}, {address(10, 0, 0, 2), 24}});
  attach();
  EXPECT_EQ(check(address(10, 0, 0, 1)), 1u);
  EXPECT_EQ(check(address(10, 0, 0, 2)), 1u);
}

TEST_F(TargetOnSubnetTest, AHostSubnetHoldsNobodyElse) {
  addresses({{address(10, 0, 0, 1), 32}});
  attach();
  for (uint32_t target : {address(10, 0, 0, 0), address(10, 0, 0, 1), address(10, 0, 0, 2)})
    EXPECT_EQ(check(target), 0u);
}

TEST_F(TargetOnSubnetTest, APointToPointSubnetHoldsThePeer) {
  addresses({{address(10, 0, 0, 0), 31}});
  attach();
  EXPECT_EQ(check(address(10, 0, 0, 1)), 1u);
  EXPECT_EQ(check(address(10, 0, 0, 2)), 0u);
}

TEST_F(TargetOnSubnetTest, LengthZeroHoldsEveryAddress) {
  addresses({{address(10, 0, 0, 1), 0}});
  attach();
  EXPECT_EQ(check(0), 1u);
  EXPECT_EQ(check(0xffffffff), 1u);
  EXPECT_EQ(check(address(10, 0, 0, 1)), 0u);
}

TEST_F(TargetOnSubnetTest, ABorrowedSubnetDoesNotCount) {
  database.unnumbered(database.interface(iod), 6, "lo0");
  database.interface(6, {{address(10, 0, 0, 1), 24}});
  attach();
  EXPECT_EQ(check(address(10, 0, 0, 9)), 0u);
  EXPECT_EQ(ip_get_local_addr_for_subnet(iod, address(10, 0, 0, 9)), 0u);
}

// ------------------------------------------------------------ the address of the longest subnet that holds another

struct ForSubnet {
  const char *name;
  uint32_t (*ask)(uint32_t addr);
};

class AddressForSubnetTest : public InterfaceSubnetTest, public testing::WithParamInterface<ForSubnet> {
 protected:
  static uint32_t get(uint32_t addr) { return GetParam().ask(addr); }
};

TEST_P(AddressForSubnetTest, TheLongestSubnetWins) {
  addresses({{address(10, 0, 0, 1), 8}, {address(10, 1, 0, 1), 16}, {address(10, 1, 2, 1), 12}});
  attach();
  EXPECT_EQ(get(address(10, 1, 9, 9)), address(10, 1, 0, 1));
  EXPECT_EQ(get(address(10, 9, 9, 9)), address(10, 1, 2, 1));
  EXPECT_EQ(get(address(10, 99, 9, 9)), address(10, 0, 0, 1));
  EXPECT_EQ(get(address(11, 0, 0, 1)), 0u);
}

TEST_P(AddressForSubnetTest, TheEarlierOneWinsATie) {
  addresses({{address(10, 0, 0, 3), 24}, {address(10, 0, 0, 2), 24}, {address(10, 0, 0, 4), 24}});
  attach();
  EXPECT_EQ(get(address(10, 0, 0, 9)), address(10, 0, 0, 3));
}

TEST_P(AddressForSubnetTest, AnAddressOfTheInterfaceItselfIsPassedOver) {
  addresses({{address(10, 0, 0, 1), 24}, {address(10, 0, 0, 2), 16}, {address(172, 16, 0, 1), 24}});
  attach();
  EXPECT_EQ(get(address(10, 0, 0, 1)), address(10, 0, 0, 2));
  EXPECT_EQ(get(address(10, 0, 0, 2)), address(10, 0, 0, 1));
  EXPECT_EQ(get(address(172, 16, 0, 1)), 0u);
}

TEST_P(AddressForSubnetTest, LengthZeroHoldsEveryAddress) {
  addresses({{address(10, 0, 0, 1), 0}, {address(10, 0, 0, 2), 0}});
  attach();
  EXPECT_EQ(get(address(203, 0, 113, 1)), address(10, 0, 0, 1));
  EXPECT_EQ(get(address(10, 0, 0, 1)), address(10, 0, 0, 2));
}

TEST_P(AddressForSubnetTest, LengthZeroGivesWayToAnyOther) {
  addresses({{address(10, 0, 0, 1), 0}, {address(203, 0, 0, 2), 1}});
  attach();
  EXPECT_EQ(get(address(203, 0, 113, 1)), address(203, 0, 0, 2));
}

TEST_P(AddressForSubnetTest, AnswersLikeATwinOnRandomLists) {
  RandomWords random;
  auto *record = database.interface(iod);
  attach();
  platform().log.record(false);
  uint32_t found = 0;
  for (int round = 0; round < 2000; round++) {
    std::vector<AddressAndLength> list;
    for (uint32_t n = random.below(6); n != 0; n--) {
      list.push_back({address(10, 0, 0, 0) | (random() & 0x00030003), static_cast<uint8_t>(random.below(33))});
    }
    database.addresses(record, list);
    const uint32_t addr = address(10, 0, 0, 0) | (random() & 0x00030003);
    uint32_t expected = 0;
    for (int length = 32; length >= 0 && expected == 0; length--) {
      for (const auto &[own, mask_len] : list) {
        const uint64_t host_bits = uint64_t{1} << (32 - mask_len);
        if (mask_len != length || own == addr || own / host_bits != addr / host_bits) continue;
        expected = own;
        break;
      }
    }
    ASSERT_EQ(get(addr), expected) << fake_platform::dotted(addr);
    found += expected != 0 ? 1 : 0;
  }
  EXPECT_GT(found, 500u);
}

INSTANTIATE_TEST_SUITE_P(
    Names, AddressForSubnetTest,
    testing::Values(
        ForSubnet{"AddressForSubnet", [](uint32_t addr) { return ip_get_local_addr_for_subnet(iod, addr); }},
        ForSubnet{"OnAttachedSubnet", [](uint32_t addr) { return ip_is_addr_on_attached_subnet(addr, iod); }}),
    [](const auto &of) { return std::string(of.param.name); });

// ------------------------------------------------------------ broadcast addresses of the interface's subnets

class DirectedBroadcastTest : public InterfaceSubnetTest {
 protected:
  static uint32_t is_broadcast(uint32_t addr) { return ip_is_addr_directed_broadcast(addr, iod); }
};

TEST_F(DirectedBroadcastTest, AllOnesAndAllZerosHostsAre) {
  addresses({{address(10, 0, 0, 1), 24}, {address(172, 16, 0, 1), 30}});
  attach();
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 255)), 1u);
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 0)), 1u);
  EXPECT_EQ(is_broadcast(address(172, 16, 0, 3)), 1u);
  EXPECT_EQ(is_broadcast(address(172, 16, 0, 0)), 1u);
}

TEST_F(DirectedBroadcastTest, OtherHostsAreNot) {
  addresses({{address(10, 0, 0, 1), 24}, {address(172, 16, 0, 1), 30}});
  attach();
  for (uint32_t addr : {address(10, 0, 0, 1), address(10, 0, 0, 254), address(10, 0, 1, 0), address(10, 0, 1, 255),
                        address(172, 16, 0, 1), address(172, 16, 0, 7), 0u, 0xffffffffu}) {
    EXPECT_EQ(is_broadcast(addr), 0u) << fake_platform::dotted(addr);
  }
}

TEST_F(DirectedBroadcastTest, PointToPointAndHostSubnetsHaveNone) {
  addresses({{address(10, 0, 0, 0), 31}, {address(10, 0, 1, 1), 32}});
  attach();
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 0)), 0u);
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 1)), 0u);
  EXPECT_EQ(is_broadcast(address(10, 0, 1, 1)), 0u);
}

TEST_F(DirectedBroadcastTest, ALaterSubnetIsFoundBehindAPointToPointOne) {
  addresses({{address(10, 0, 0, 0), 31}, {address(10, 0, 0, 2), 30}});
  attach();
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 0)), 1u);
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 3)), 1u);
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 1)), 0u);
}

TEST_F(DirectedBroadcastTest, AHostOfOneSubnetMayBeTheBroadcastAddressOfAnother) {
  addresses({{address(10, 0, 0, 1), 8}, {address(10, 0, 0, 2), 24}});
  attach();
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 255)), 1u);
  EXPECT_EQ(is_broadcast(address(10, 255, 255, 255)), 1u);
  EXPECT_EQ(is_broadcast(address(10, 0, 1, 255)), 0u);
}

TEST_F(DirectedBroadcastTest, OfNoInterfaceIsNoWithoutTheLock) {
  attach();
  EXPECT_EQ(ip_is_addr_directed_broadcast(address(10, 0, 0, 255), 0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(DirectedBroadcastTest, LengthZeroHasTheTwoExtremes) {
  addresses({{address(10, 0, 0, 1), 0}});
  attach();
  EXPECT_EQ(is_broadcast(0), 1u);
  EXPECT_EQ(is_broadcast(0xffffffff), 1u);
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 255)), 0u);
}

TEST_F(DirectedBroadcastTest, WhetherTheyAreAllowedDoesNotMatter) {
  auto *record = database.interface(iod, {{address(10, 0, 0, 1), 24}});
  attach();
  for (uint32_t allowed : {0u, 1u}) {
    record->directed_bcast = allowed;
    EXPECT_EQ(is_broadcast(address(10, 0, 0, 255)), 1u);
  }
}

TEST_F(DirectedBroadcastTest, ABorrowedSubnetHasNone) {
  database.unnumbered(database.interface(iod), 6, "lo0");
  database.interface(6, {{address(10, 0, 0, 1), 24}});
  attach();
  EXPECT_EQ(is_broadcast(address(10, 0, 0, 255)), 0u);
}

// ------------------------------------------------------------ the holder of exactly one subnet of a context

class SubnetHolderTest : public LibraryTest {
 protected:
  SubnetHolderTest() {
    red = database.context(2, "red", 20);
    database.node(red, address(10, 0, 0, 0), {7, 5}, {.length = 24});
    database.node(red, address(10, 0, 0, 0), {6}, {.length = 16});
    database.node(red, address(10, 0, 1, 0), {}, {.length = 24, .with_info = false});
    database.node(red, address(10, 0, 2, 0), {}, {.length = 24});
    database.node(red, address(10, 0, 3, 0), {0}, {.length = 24});
    database.node(database.context(3, "blue", 30), address(10, 0, 0, 0), {8}, {.length = 24});
    database.context_without_tree(4, "treeless");
  }
  static uint32_t ask(const char *name, uint32_t addr, uint8_t len) {
    return ip_get_iod_for_local_subnet(name, addr, len);
  }
  ip_api_context_type *red;
};

TEST_F(SubnetHolderTest, IsTheFirstHolderOfExactlyThatPrefix) {
  attach();
  EXPECT_EQ(ask("red", address(10, 0, 0, 0), 24), 7u);
  EXPECT_EQ(ask("red", address(10, 0, 0, 0), 16), 6u);
  EXPECT_EQ(ask("blue", address(10, 0, 0, 0), 24), 8u);
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_F(SubnetHolderTest, LooksTheContextUpUnderTheLockAndThenThePrefix) {
  attach();
  ask("red", address(10, 0, 0, 0), 24);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "pt_lookup(tree of red, 10.0.0.0, 24, 1)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(SubnetHolderTest, IsLookedUpWithTheHostBitsOfTheAddress) {
  attach();
  EXPECT_EQ(ask("red", address(10, 0, 0, 9), 24), 0u);
  EXPECT_EQ(calls()[3], "pt_lookup(tree of red, 10.0.0.9, 24, 1)");
  EXPECT_STREQ(ip_api_get_error(), "Local PT node not found for context red ip 10.0.0.9/24");
}

TEST_F(SubnetHolderTest, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ask("red", address(10, 0, 0, 0), 24), 7u);
  EXPECT_EQ(calls(), Calls{"pt_lookup(tree of red, 10.0.0.0, 24, 1)"});
}

struct Missing {
  const char *name;
  const char *context;
  uint32_t addr;
  uint8_t len;
  const char *reason;
};

class NoSubnetHolder : public SubnetHolderTest, public testing::WithParamInterface<Missing> {};

TEST_P(NoSubnetHolder, LeavesItsReason) {
  attach();
  EXPECT_EQ(ask(GetParam().context, GetParam().addr, GetParam().len), 0u);
  EXPECT_STREQ(ip_api_get_error(), GetParam().reason);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
  EXPECT_EQ(calls().front(), "tsp_lock_acquire_rdlock(7)");
  EXPECT_EQ(calls().back(), "tsp_lock_release_rdlock(7)");
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, NoSubnetHolder,
    testing::Values(Missing{"Context", "Red", address(10, 0, 0, 0), 24, "Failed to get ctxt_type for context Red"},
                    Missing{"Tree", "treeless", address(10, 0, 0, 0), 24, "Local PT not found for context treeless"},
                    Missing{"Node", "red", address(10, 9, 0, 0), 24,
                            "Local PT node not found for context red ip 10.9.0.0/24"},
                    Missing{"OtherLength", "red", address(10, 0, 0, 0), 25,
                            "Local PT node not found for context red ip 10.0.0.0/25"},
                    Missing{"LengthZero", "red", 0, 0, "Local PT node not found for context red ip 0.0.0.0/0"},
                    Missing{"Information", "red", address(10, 0, 1, 0), 24,
                            "Local PT address not found for context red ip 10.0.1.0/24"},
                    Missing{"Holder", "red", address(10, 0, 2, 0), 24,
                            "Interface type not found for local addres context red ip 10.0.2.0/24"},
                    Missing{"Iod", "red", address(10, 0, 3, 0), 24, ""}),
    [](const auto &of) { return std::string(of.param.name); });

TEST_F(SubnetHolderTest, IsNoNodeWhenTheTreeLibraryFails) {
  attach();
  platform().scripts.fail("pt_lookup");
  EXPECT_EQ(ask("red", address(10, 0, 0, 0), 24), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Local PT node not found for context red ip 10.0.0.0/24");
}

TEST_F(SubnetHolderTest, WithoutAContextNameIsReportedFirst) {
  memset(ip_api_err_log, 'x', 20);
  EXPECT_EQ(ask(nullptr, address(10, 0, 0, 0), 24), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "context name not specified")});
  EXPECT_STREQ(ip_api_get_error(), "") << "cleared on entry";
}

TEST_F(SubnetHolderTest, WithoutAttachmentIsReported) {
  memset(ip_api_err_log, 'x', 20);
  EXPECT_EQ(ask("red", address(10, 0, 0, 0), 24), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "client not attached")});
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_F(SubnetHolderTest, AReasonIsCutAtTheEndOfTheText) {
  attach();
  const std::string long_name(400, 'n');
  EXPECT_EQ(ask(long_name.c_str(), address(10, 0, 0, 0), 24), 0u);
  EXPECT_EQ(ip_api_get_error(), ("Failed to get ctxt_type for context " + long_name).substr(0, 255));
}

TEST_F(SubnetHolderTest, ASuccessClearsTheReasonOfAnEarlierFailure) {
  attach();
  ask("red", address(10, 9, 0, 0), 24);
  EXPECT_EQ(ask("red", address(10, 0, 0, 0), 24), 7u);
  EXPECT_STREQ(ip_api_get_error(), "");
}

}  // namespace
}  // namespace unit
