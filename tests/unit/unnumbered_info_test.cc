// SPDX-License-Identifier: Apache-2.0
// The details of an unnumbered interface: the one question of its family that leaves a reason, and that says yes while
// it fails. Only the flag shows success.
#include <cstring>

#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t lent = address(192, 0, 2, 6);

class UnnumberedInfoTest : public LibraryTest {
 protected:
  UnnumberedInfoTest() : record(database.interface(5)) {
    database.unnumbered(record, 6, "loopback0");
    std::memset(name, 'x', sizeof name);
    std::memset(ip_api_err_log, 'y', 40);
  }

  uint32_t ask(uint32_t iod = 5) { return ip_get_unnumbered_info(iod, &addr, name, &flag); }

  void expect_failure(const char *reason) {
    EXPECT_EQ(addr, 0u);
    EXPECT_EQ(flag, 0u);
    EXPECT_STREQ(ip_api_get_error(), reason);
    EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
  }
  void expect_no_name() const { EXPECT_EQ(name[0], 'x') << "the buffer is left alone"; }

  ip_iftype *record;
  uint32_t addr = 0xabcdef01;
  char name[512];
  uint32_t flag = 77;
};

TEST_F(UnnumberedInfoTest, GivesTheLendersNameAndPrimaryAddress) {
  database.interface(6, {{lent, 24}, {address(192, 0, 2, 7), 24}});
  attach();
  EXPECT_EQ(ask(), 1u);
  EXPECT_EQ(addr, lent);
  EXPECT_STREQ(name, "loopback0");
  EXPECT_EQ(name[10], 'x') << "nothing behind the terminator";
  EXPECT_EQ(flag, 1u);
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_F(UnnumberedInfoTest, ReadsBothRecordsUnderOneLock) {
  database.interface(6, {{lent, 24}});
  attach();
  ask();
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)",
                            "lcache_im_get_extension1(6, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(UnnumberedInfoTest, TakesNoLockInTheIpProcess) {
  database.interface(6, {{lent, 24}});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ask(), 1u);
  EXPECT_EQ(flag, 1u);
  EXPECT_EQ(calls(), (Calls{"lcache_im_get_extension1(5, 267)", "lcache_im_get_extension1(6, 267)"}));
}

TEST_F(UnnumberedInfoTest, CopiesALongNameWhole) {
  const std::string long_name(300, 'n');
  database.unnumbered(record, 6, long_name);
  database.interface(6, {{lent, 24}});
  attach();
  EXPECT_EQ(ask(), 1u);
  EXPECT_EQ(name, long_name);
}

TEST_F(UnnumberedInfoTest, OwnAddressesOfTheInterfaceDoNotMatter) {
  database.addresses(record, {{address(10, 0, 0, 1), 24}});
  database.interface(6, {{lent, 24}});
  attach();
  EXPECT_EQ(ask(), 1u);
  EXPECT_EQ(addr, lent);
}

TEST_F(UnnumberedInfoTest, WithoutAPlaceForTheAddressIsNoFirst) {
  EXPECT_EQ(ip_get_unnumbered_info(5, nullptr, name, &flag), 0u);
  const std::string reason = ip_api_get_error();
  const std::string start = "Invalid ip_addr 0x0/ifname 0x";
  EXPECT_EQ(reason.substr(0, start.size()), start);
  EXPECT_NE(reason, start + "0");
  EXPECT_EQ(flag, 77u);
  expect_no_name();
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(UnnumberedInfoTest, WithoutAPlaceForTheNameIsNoFirst) {
  attach();
  EXPECT_EQ(ip_get_unnumbered_info(5, &addr, nullptr, &flag), 0u);
  const std::string reason = ip_api_get_error();
  EXPECT_EQ(reason.substr(0, 18), "Invalid ip_addr 0x");
  EXPECT_EQ(reason.substr(reason.find('/')), "/ifname 0x0");
  EXPECT_EQ(addr, 0xabcdef01u);
  EXPECT_EQ(flag, 77u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(UnnumberedInfoTest, TheFlagsPlaceIsNotLookedAtBeforeTheOthers) {
  EXPECT_EQ(ip_get_unnumbered_info(5, nullptr, nullptr, nullptr), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Invalid ip_addr 0x0/ifname 0x0");
}

TEST_F(UnnumberedInfoTest, DetachedIsNo) {
  EXPECT_EQ(ask(), 0u);
  expect_failure("IP API Init not done");
  expect_no_name();
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(UnnumberedInfoTest, AttachmentLostWhileWaitingForTheLockIsAnInterfaceWithoutARecord) {
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ask(), 1u);
  expect_failure("No ip_if for iod 5");
  expect_no_name();
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(UnnumberedInfoTest, WithoutARecordIsYesWithTheReason) {
  attach();
  EXPECT_EQ(ask(99), 1u);
  expect_failure("No ip_if for iod 99");
  expect_no_name();
}

TEST_F(UnnumberedInfoTest, NoInterfaceIsYesWithTheReason) {
  attach();
  EXPECT_EQ(ask(0), 1u);
  expect_failure("No ip_if for iod 0");
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 0u);
}

TEST_F(UnnumberedInfoTest, AFailingInterfaceManagerIsAnInterfaceWithoutARecord) {
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(ask(), 1u);
  expect_failure("No ip_if for iod 5");
}

TEST_F(UnnumberedInfoTest, ANumberedInterfaceIsYesWithTheReason) {
  database.interface(8, {{address(10, 0, 0, 1), 24}})->unnum_src_iod = 6;
  database.interface(6, {{lent, 24}});
  attach();
  EXPECT_EQ(ask(8), 1u);
  expect_failure("Not an unnumbered interface 8");
  expect_no_name();
}

TEST_F(UnnumberedInfoTest, WithoutALenderItIsDown) {
  record->unnum_src_iod = 0;
  attach();
  EXPECT_EQ(ask(), 1u);
  expect_failure("Unnumbered intf down");
  expect_no_name();
}

TEST_F(UnnumberedInfoTest, ALenderWithoutARecordStillHasItsName) {
  attach();
  EXPECT_EQ(ask(), 1u);
  expect_failure("No ip_if for unnumbered iod 5");
  EXPECT_STREQ(name, "loopback0");
}

TEST_F(UnnumberedInfoTest, AFailingInterfaceManagerIsALenderWithoutARecord) {
  database.interface(6, {{lent, 24}});
  attach();
  platform().scripts.fail_call("lcache_im_get_extension1", 2);
  EXPECT_EQ(ask(), 1u);
  expect_failure("No ip_if for unnumbered iod 5");
}

TEST_F(UnnumberedInfoTest, ALenderWithoutAnAddressIsNamedByItsOwnSource) {
  database.interface(6)->unnum_src_iod = 44;
  attach();
  EXPECT_EQ(ask(), 1u);
  expect_failure("No addr config for unnumbered iod 44");
  EXPECT_STREQ(name, "loopback0");
}

TEST_F(UnnumberedInfoTest, ALendersBorrowedAddressIsNotLentOn) {
  database.unnumbered(database.interface(6), 7, "lo1");
  database.interface(7, {{lent, 24}});
  attach();
  EXPECT_EQ(ask(), 1u);
  expect_failure("No addr config for unnumbered iod 7");
}

TEST_F(UnnumberedInfoTest, ASuccessClearsTheReasonOfAnEarlierFailure) {
  database.interface(6, {{lent, 24}});
  attach();
  ask(99);
  ask();
  EXPECT_STREQ(ip_api_get_error(), "");
}

}  // namespace
}  // namespace unit
