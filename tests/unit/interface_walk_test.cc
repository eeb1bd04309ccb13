// SPDX-License-Identifier: Apache-2.0
// Questions that walk the interfaces: enabled ones, multicast ones, the loopback, the one that has an address.
#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t untouched = 0xabcdef01;

class InterfaceWalkTest : public LibraryTest {
 protected:
  ip_iftype *multicast(uint32_t iod, const std::vector<AddressAndLength> &list) {
    ip_iftype *record = database.interface(iod, list);
    record->mcast_enabled = 0x80;
    return record;
  }
  static Calls locks() { return only(calls(), {"tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock"}); }
};

// ------------------------------------------------------------ what all walks have in common

struct Walk {
  const char *name;
  uint32_t (*ask)();  // nonzero in the database of the fixture below
};

const Walk walks[] = {
    {"EnabledIod", [] { return ip_get_each_enabled_iod(0); }},
    {"MulticastIod", [] { return ip_get_each_multicast_iod(0); }},
    {"MulticastAddress", [] { return ip_get_local_mcast_addr(2, nullptr); }},
    {"Loopback", [] { return ip_get_loopback_addr(); }},
    {"Configured", [] { return ip_is_addr_local_configured(2, address(10, 0, 0, 1)); }},
};

class AnyWalk : public InterfaceWalkTest, public testing::WithParamInterface<Walk> {
 protected:
  AnyWalk() {
    multicast(5, {{address(10, 0, 0, 1), 24}});
    platform().interfaces[5].context_id = 2;
  }
};

TEST_P(AnyWalk, BeginsAtTheFirstInterfaceOfTheIpComponent) {
  platform().interfaces[3].extensions[1] = platform().interfaces[5].extensions[component];
  attach();
  EXPECT_NE(GetParam().ask(), 0u);
  EXPECT_EQ(only(calls(), {"im_get_next_ext_if"}), Calls{"im_get_next_ext_if(0, 267)"});
}

TEST_P(AnyWalk, StepsUnderTheLock) {
  attach();
  GetParam().ask();
  EXPECT_EQ(with_lock_depth(calls(), {"im_get_next_ext_if"}), Calls{"1: im_get_next_ext_if(0, 267)"});
}

TEST_P(AnyWalk, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_NE(GetParam().ask(), 0u);
  EXPECT_EQ(locks(), Calls{});
}

TEST_P(AnyWalk, FindsNothingWhenDetached) {
  EXPECT_EQ(GetParam().ask(), 0u);
  EXPECT_EQ(only(calls(), {"im_get_next_ext_if", "lcache_im_get_extension1"}), Calls{});
}

TEST_P(AnyWalk, FindsNothingWhenAttachmentIsLostWhileItWaitsForTheLock) {
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(GetParam().ask(), 0u);
  EXPECT_EQ(only(calls(), {"im_get_next_ext_if", "lcache_im_get_extension1"}), Calls{});
}

TEST_P(AnyWalk, FindsNothingWithoutInterfaces) {
  platform().interfaces.clear();
  attach();
  EXPECT_EQ(GetParam().ask(), 0u);
}

TEST_P(AnyWalk, FindsNothingWhenTheInterfaceManagersStepFails) {
  attach();
  platform().scripts.fail("im_get_next_ext_if");
  EXPECT_EQ(GetParam().ask(), 0u);
}

TEST_P(AnyWalk, PassesAnInterfaceOverThatVanishesBehindTheStep) {
  multicast(6, {{address(10, 0, 0, 1), 24}});
  platform().interfaces[6].context_id = 2;
  attach();
  platform().scripts.fail_call("lcache_im_get_extension1", 1);
  EXPECT_NE(GetParam().ask(), 0u);
  EXPECT_EQ(only(calls(), {"im_get_next_ext_if"}), (Calls{"im_get_next_ext_if(0, 267)", "im_get_next_ext_if(5, 267)"}));
}

TEST_P(AnyWalk, FindsNothingWhenNoRecordCanBeRead) {
  multicast(6, {{address(10, 0, 0, 1), 24}});
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(GetParam().ask(), 0u);
  EXPECT_EQ(platform().log.count("im_get_next_ext_if"), 3u);
}

TEST_P(AnyWalk, LeavesTheErrorTextAlone) {
  ip_api_err_log[0] = 'x';
  GetParam().ask();
  attach();
  GetParam().ask();
  EXPECT_STREQ(ip_api_get_error(), "x");
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Walks, AnyWalk, testing::ValuesIn(walks),
                         [](const auto &of) { return std::string(of.param.name); });

// ------------------------------------------------------------ the next enabled interface

TEST_F(InterfaceWalkTest, EachEnabledInterfaceIsVisitedOnce) {
  database.interface(3)->fwd_enabled = 1;
  database.interface(4);
  database.interface(5, {{address(10, 0, 0, 1), 24}});
  database.interface(6);
  database.unnumbered(database.interface(7), 5, "lo0");
  database.unnumbered(database.interface(8), 6, "lo1");
  attach();
  EXPECT_EQ(ip_get_each_enabled_iod(0), 3u);
  EXPECT_EQ(ip_get_each_enabled_iod(3), 5u);
  EXPECT_EQ(ip_get_each_enabled_iod(5), 7u);
  EXPECT_EQ(ip_get_each_enabled_iod(7), 0u);
}

TEST_F(InterfaceWalkTest, EachEnabledInterfaceGoesOnFromOneThatIsGone) {
  database.interface(5, {{address(10, 0, 0, 1), 24}});
  attach();
  EXPECT_EQ(ip_get_each_enabled_iod(4), 5u);
  EXPECT_EQ(ip_get_each_enabled_iod(99), 0u);
}

TEST_F(InterfaceWalkTest, TheSpecialInterfaceIsVisitedAsEnabled) {
  database.interface(4, {}, 40);
  database.interface(5, {}, 50);
  attach();
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_get_each_enabled_iod(0), 5u);
}

TEST_F(InterfaceWalkTest, WhetherAnInterfaceIsEnabledIsAskedInsideTheLockOfTheStep) {
  database.interface(5, {{address(10, 0, 0, 1), 24}});
  attach();
  EXPECT_EQ(ip_get_each_enabled_iod(0), 5u);
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "im_get_next_ext_if(0, 267)", "tsp_lock_acquire_rdlock(7)",
                   "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

// ------------------------------------------------------------ the next multicast interface

TEST_F(InterfaceWalkTest, EachMulticastInterfaceNeedsAnAddressOrALender) {
  multicast(4, {});
  multicast(5, {{address(10, 0, 0, 1), 24}});
  database.unnumbered(multicast(6, {}), 0, "lo0");
  database.interface(7, {{address(10, 0, 0, 7), 24}});
  database.unnumbered(database.interface(8), 5, "lo0");
  multicast(9, {})->unnum_src_iod = 5;
  attach();
  EXPECT_EQ(ip_get_each_multicast_iod(0), 5u);
  EXPECT_EQ(ip_get_each_multicast_iod(5), 6u) << "whatever the lender has";
  EXPECT_EQ(ip_get_each_multicast_iod(6), 0u);
}

TEST_F(InterfaceWalkTest, TheSpecialInterfaceIsNotVisitedForMulticast) {
  database.interface(5, {{address(10, 0, 0, 1), 24}}, 50);
  attach();
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_get_each_multicast_iod(0), 0u) << "only the record's own flag counts";
}

TEST_F(InterfaceWalkTest, AMulticastInterfacesRecordIsReadUnderTheLock) {
  multicast(5, {{address(10, 0, 0, 1), 24}});
  attach();
  ip_get_each_multicast_iod(0);
  EXPECT_EQ(with_lock_depth(calls(), {"lcache_im_get_extension1"}), Calls{"1: lcache_im_get_extension1(5, 267)"});
}

// ------------------------------------------------------------ the address of the first multicast interface

class LocalMulticastAddressTest : public InterfaceWalkTest {
 protected:
  static void in_context(uint32_t context_id, uint32_t of) { platform().interfaces[of].context_id = context_id; }
  uint32_t iod = untouched;
};

TEST_F(LocalMulticastAddressTest, IsThePrimaryOfTheFirstThatQualifies) {
  multicast(3, {{address(10, 0, 0, 3), 24}});           // another context
  multicast(4, {});                                     // no address
  database.interface(5, {{address(10, 0, 0, 5), 24}});  // no multicast
  multicast(6, {{address(10, 0, 0, 6), 24}, {address(10, 0, 0, 60), 24}});
  multicast(7, {{address(10, 0, 0, 7), 24}});
  in_context(3, 3);
  for (uint32_t of : {4u, 5u, 6u, 7u}) in_context(2, of);
  attach();
  EXPECT_EQ(ip_get_local_mcast_addr(2, &iod), address(10, 0, 0, 6));
  EXPECT_EQ(iod, 6u);
  EXPECT_EQ(ip_get_local_mcast_addr(3, &iod), address(10, 0, 0, 3));
  EXPECT_EQ(iod, 3u);
  EXPECT_EQ(ip_get_local_mcast_addr(2, nullptr), address(10, 0, 0, 6)) << "nobody wants the iod";
}

TEST_F(LocalMulticastAddressTest, ABorrowedAddressDoesNotCount) {
  database.unnumbered(multicast(5, {}), 6, "lo0");
  database.interface(6, {{address(10, 0, 0, 6), 24}});
  in_context(2, 5);
  attach();
  EXPECT_EQ(ip_get_local_mcast_addr(2, &iod), 0u);
  EXPECT_EQ(iod, untouched);
}

TEST_F(LocalMulticastAddressTest, NoContextHasNone) {
  multicast(5, {{address(10, 0, 0, 5), 24}});
  in_context(0, 5);
  attach();
  EXPECT_EQ(ip_get_local_mcast_addr(0, &iod), 0u);
  EXPECT_EQ(iod, untouched);
}

TEST_F(LocalMulticastAddressTest, OnlyRecordsOfTheContextAreRead) {
  multicast(5, {{address(10, 0, 0, 5), 24}});
  multicast(6, {{address(10, 0, 0, 6), 24}});
  in_context(3, 5);
  in_context(2, 6);
  attach();
  EXPECT_EQ(ip_get_local_mcast_addr(2, &iod), address(10, 0, 0, 6));
  EXPECT_EQ(
      with_lock_depth(calls(), {"l3vm_if_get_context_id", "lcache_im_get_extension1"}),
      (Calls{"1: l3vm_if_get_context_id(5)", "1: l3vm_if_get_context_id(6)", "1: lcache_im_get_extension1(6, 267)"}));
}

TEST_F(LocalMulticastAddressTest, IsNoneWhenTheContextOfNoInterfaceIsKnown) {
  multicast(5, {{address(10, 0, 0, 5), 24}});
  in_context(2, 5);
  attach();
  platform().scripts.fail("l3vm_if_get_context_id");
  EXPECT_EQ(ip_get_local_mcast_addr(2, &iod), 0u);
  EXPECT_EQ(iod, untouched);
}

// ------------------------------------------------------------ the loopback

TEST_F(InterfaceWalkTest, TheLoopbackIsTheFirstInterfaceWithAnAddress) {
  database.interface(4);
  database.interface(5, {{address(10, 0, 0, 5), 24}, {address(10, 0, 0, 50), 24}});
  database.interface(6, {{address(127, 0, 0, 1), 8}});
  attach();
  EXPECT_EQ(ip_get_loopback_addr(), address(10, 0, 0, 5)) << "whatever it is called";
}

TEST_F(InterfaceWalkTest, TheLoopbackDoesNotBorrow) {
  database.unnumbered(database.interface(4), 6, "lo0");
  database.interface(6, {{address(127, 0, 0, 1), 8}});
  attach();
  EXPECT_EQ(ip_get_loopback_addr(), address(127, 0, 0, 1));
  EXPECT_EQ(with_lock_depth(calls(), {"lcache_im_get_extension1"}),
            (Calls{"1: lcache_im_get_extension1(4, 267)", "1: lcache_im_get_extension1(6, 267)"}));
}

// ------------------------------------------------------------ the interface that has an address configured

class ConfiguredAddressTest : public InterfaceWalkTest {
 protected:
  ConfiguredAddressTest() {
    for (uint32_t iod = 5; iod <= 7; iod++) {
      database.interface(iod, {{address(10, 0, 0, iod), 24}, {address(10, 0, 1, iod), 24}});
      platform().interfaces[iod].context_id = 2;
    }
  }
};

TEST_F(ConfiguredAddressTest, IsFoundAmongPrimariesAndSecondaries) {
  attach();
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 6u);
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 1, 7)), 7u);
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 9)), 0u) << "a subnet is not enough";
  EXPECT_EQ(ip_is_addr_local_configured(2, 0), 0u);
}

TEST_F(ConfiguredAddressTest, IsThatOfTheFirstInterface) {
  database.interface(4, {{address(10, 0, 0, 7), 24}});
  platform().interfaces[4].context_id = 2;
  attach();
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 7)), 4u);
}

TEST_F(ConfiguredAddressTest, OfAnotherContextDoesNotCount) {
  platform().interfaces[6].context_id = 3;
  attach();
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 0u);
  EXPECT_EQ(ip_is_addr_local_configured(3, address(10, 0, 0, 6)), 6u);
}

TEST_F(ConfiguredAddressTest, NoContextHasNone) {
  platform().interfaces[6].context_id = 0;
  attach();
  EXPECT_EQ(ip_is_addr_local_configured(0, address(10, 0, 0, 6)), 0u);
}

TEST_F(ConfiguredAddressTest, IsNoneWhenTheContextOfNoInterfaceIsKnown) {
  attach();
  platform().scripts.fail("l3vm_if_get_context_id");
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 0u);
}

TEST_F(ConfiguredAddressTest, WhetherTheInterfaceIsUpDoesNotMatter) {
  platform().interfaces[6].up = platform().interfaces[6].admin_up = false;
  attach();
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 6u);
}

TEST_F(ConfiguredAddressTest, ABorrowedOneBelongsToItsLender) {
  database.unnumbered(database.interface(4), 6, "lo0");
  platform().interfaces[4].context_id = 2;
  attach();
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 6u);
  platform().interfaces[6].context_id = 3;
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 0u);
}

TEST_F(ConfiguredAddressTest, HoldsNoLockBetweenInterfaces) {
  attach();
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 6u);
  EXPECT_EQ(with_lock_depth(calls(), {"im_get_next_ext_if", "l3vm_if_get_context_id", "lcache_im_get_extension1"}),
            (Calls{"1: im_get_next_ext_if(0, 267)", "2: lcache_im_get_extension1(5, 267)",
                   "0: l3vm_if_get_context_id(5)", "0: lcache_im_get_extension1(5, 267)",
                   "1: im_get_next_ext_if(5, 267)", "2: lcache_im_get_extension1(6, 267)",
                   "0: l3vm_if_get_context_id(6)", "0: lcache_im_get_extension1(6, 267)"}));
}

TEST_F(ConfiguredAddressTest, PassesAnInterfaceOverThatVanishesBetweenTheTwoReads) {
  attach();
  platform().scripts.fail_call("lcache_im_get_extension1", 2);
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 6u);
  platform().scripts.fail_call("lcache_im_get_extension1", 4);
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 6)), 0u);
}

}  // namespace
}  // namespace unit
