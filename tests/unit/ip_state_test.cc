// SPDX-License-Identifier: Apache-2.0
// Is IP enabled on an interface, and is forwarding? The guard around both is tested in interface_guard_test.cc.
#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {
namespace {

class IpStateTest : public LibraryTest {
 protected:
  IpStateTest() { record = database.interface(5, {}, 50); }
  ip_iftype *record;
};

TEST_F(IpStateTest, AnAddressEnablesIpButNotForwarding) {
  database.addresses(record, {{address(10, 0, 0, 1), 24}});
  attach();
  EXPECT_EQ(ip_enabled(5), 1u);
  EXPECT_EQ(ip_forward_enabled(5), 0u);
}

TEST_F(IpStateTest, AnAddressOfZeroIsAnAddress) {
  database.addresses(record, {{0, 0}});
  attach();
  EXPECT_EQ(ip_enabled(5), 1u);
}

TEST_F(IpStateTest, AnyForwardingFlagEnablesBoth) {
  attach();
  for (uint32_t flag : {1u, 2u, 0x100u, 0x80000000u}) {
    record->fwd_enabled = flag;
    EXPECT_EQ(ip_enabled(5), 1u) << flag;
    EXPECT_EQ(ip_forward_enabled(5), 1u) << flag;
  }
  record->fwd_enabled = 0;
  EXPECT_EQ(ip_enabled(5), 0u);
  EXPECT_EQ(ip_forward_enabled(5), 0u);
}

TEST_F(IpStateTest, ABorrowedAddressEnablesIpButNotForwarding) {
  database.unnumbered(record, 6, "lo0");
  database.interface(6, {{address(10, 0, 0, 6), 32}});
  attach();
  EXPECT_EQ(ip_enabled(5), 1u);
  EXPECT_EQ(ip_forward_enabled(5), 0u);
}

TEST_F(IpStateTest, TheLendersAddressIsReadInsideTheLock) {
  database.unnumbered(record, 6, "lo0");
  database.interface(6, {{address(10, 0, 0, 6), 32}});
  attach();
  ip_enabled(5);
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_acquire_rdlock(7)",
                   "lcache_im_get_extension1(6, 267)", "tsp_lock_release_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(IpStateTest, ALenderThatBorrowsItselfWillDo) {
  database.unnumbered(record, 6, "tunnel0");
  database.unnumbered(database.interface(6), 7, "lo0");
  database.interface(7, {{address(10, 0, 0, 7), 32}});
  attach();
  EXPECT_EQ(ip_enabled(5), 1u) << "the lender's local address is the third one's";
  EXPECT_EQ(ip_get_local_addr(5), 0u) << "but it is not lent on";
}

TEST_F(IpStateTest, ALenderWithoutAnAddressLeavesItToTheFlag) {
  database.unnumbered(record, 6, "lo0");
  database.interface(6);
  attach();
  EXPECT_EQ(ip_enabled(5), 0u);
  record->fwd_enabled = 1;
  EXPECT_EQ(ip_enabled(5), 1u);
}

TEST_F(IpStateTest, ALenderThatIsGoneLeavesItToTheFlag) {
  database.unnumbered(record, 6, "lo0");
  attach();
  EXPECT_EQ(ip_enabled(5), 0u);
  record->fwd_enabled = 1;
  EXPECT_EQ(ip_enabled(5), 1u);
  database.unnumbered(record, 0, "lo0");
  EXPECT_EQ(ip_enabled(5), 1u);
  record->fwd_enabled = 0;
  EXPECT_EQ(ip_enabled(5), 0u);
}

TEST_F(IpStateTest, ASourceInterfaceAloneLendsNothing) {
  record->unnum_src_iod = 6;
  database.interface(6, {{address(10, 0, 0, 6), 32}});
  attach();
  EXPECT_EQ(ip_enabled(5), 0u);
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 1u);
}

TEST_F(IpStateTest, ItsOwnAddressIsEnoughForAnUnnumberedInterface) {
  database.unnumbered(record, 6, "lo0");
  database.addresses(record, {{address(10, 0, 0, 1), 24}});
  attach();
  EXPECT_EQ(ip_enabled(5), 1u);
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 1u) << "the lender is not asked for";
}

TEST_F(IpStateTest, TheSpecialInterfaceIsEnabledWhateverItsRecordSaysWithoutTheLock) {
  attach();
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_enabled(5), 1u);
  EXPECT_EQ(ip_forward_enabled(5), 1u);
  EXPECT_EQ(calls(), Calls{"im_get_iod_frm_ifindex(50, preset 0)"});
  platform().interfaces[5].extensions.clear();
  EXPECT_EQ(ip_enabled(5), 1u) << "even without a record";
  EXPECT_EQ(ip_forward_enabled(5), 1u);
}

TEST_F(IpStateTest, AnotherInterfaceIsNotSpecial) {
  database.interface(6, {}, 60);
  attach();
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_enabled(6), 0u);
  EXPECT_EQ(ip_forward_enabled(6), 0u);
  set_fwd_enabled_spl_ifidx(60);
  EXPECT_EQ(ip_enabled(6), 0u) << "the first one was resolved";
  EXPECT_EQ(ip_forward_enabled(6), 0u);
  EXPECT_EQ(ip_enabled(5), 1u);
}

TEST_F(IpStateTest, AnIndexThatTheInterfaceManagerDoesNotKnowIsNotSpecial) {
  attach();
  set_fwd_enabled_spl_ifidx(99);
  EXPECT_EQ(ip_enabled(5), 0u);
  EXPECT_EQ(ip_forward_enabled(5), 0u);
}

TEST_F(IpStateTest, DetachedTheSpecialInterfaceIsNotEnabledEither) {
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_enabled(5), 0u);
  EXPECT_EQ(ip_forward_enabled(5), 0u);
  EXPECT_EQ(calls(), Calls{}) << "not even looked up";
}

TEST_F(IpStateTest, NoInterfaceIsNeverSpecial) {
  attach();
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_enabled(0), 0u);
  EXPECT_EQ(ip_forward_enabled(0), 0u);
  EXPECT_EQ(calls(), Calls{}) << "not even looked up";
}

}  // namespace
}  // namespace unit
