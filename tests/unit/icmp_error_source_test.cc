// SPDX-License-Identifier: Apache-2.0
// The source address that a caller has configured by an interface's name, refreshed when that interface changes.
#include <cstring>

#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t lent = address(192, 0, 2, 6);

class IcmpErrorSourceTest : public LibraryTest {
 protected:
  IcmpErrorSourceTest() {
    database.interface(5, {{address(10, 0, 0, 1), 24}});
    platform().interfaces[5].name = "eth1";
    std::strcpy(source.if_name, "eth1");
    source.src_addr = untouched;
  }
  static constexpr uint32_t untouched = 0xabcdef01;
  ip_icmp_err_source source = {};
};

TEST_F(IcmpErrorSourceTest, IsTheInterfacesAddressWhenItsNameMatches) {
  attach();
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 5, 1), address(10, 0, 0, 1));
  EXPECT_EQ(source.src_addr, address(10, 0, 0, 1));
  EXPECT_STREQ(source.if_name, "eth1");
  EXPECT_EQ(calls(), (Calls{"im_get_if_name(5)", "tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)",
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_F(IcmpErrorSourceTest, AnyFlagSetsIt) {
  attach();
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 5, 0x80000000), address(10, 0, 0, 1));
  EXPECT_EQ(source.src_addr, address(10, 0, 0, 1));
}

TEST_F(IcmpErrorSourceTest, IsABorrowedAddressToo) {
  database.unnumbered(database.interface(5), 6, "lo0");
  database.interface(6, {{lent, 32}});
  attach();
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 5, 1), lent);
  EXPECT_EQ(source.src_addr, lent);
}

TEST_F(IcmpErrorSourceTest, IsClearedWithoutTheFlag) {
  attach();
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 5, 0), 0u);
  EXPECT_EQ(source.src_addr, 0u);
  EXPECT_EQ(calls(), Calls{"im_get_if_name(5)"});
}

TEST_F(IcmpErrorSourceTest, IsClearedForAnInterfaceWithoutAddress) {
  database.interface(5);
  attach();
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 5, 1), 0u);
  EXPECT_EQ(source.src_addr, 0u);
}

TEST_F(IcmpErrorSourceTest, IsClearedWhenDetached) {
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 5, 1), 0u);
  EXPECT_EQ(source.src_addr, 0u);
}

TEST_F(IcmpErrorSourceTest, StaysWhenTheNameIsAnother) {
  attach();
  for (const char *other : {"eth2", "eth0", "eth", "eth10", "ETH1", ""}) {
    std::strcpy(source.if_name, other);
    EXPECT_NE(ip_update_icmp_err_source_address(&source, 5, 1), 0u) << other;
    EXPECT_EQ(source.src_addr, untouched);
    EXPECT_STREQ(source.if_name, other);
  }
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 0u);
}

TEST_F(IcmpErrorSourceTest, AnotherNameAnswersWhichOfTheTwoIsGreater) {
  attach();
  std::strcpy(source.if_name, "eth0");
  EXPECT_GT(static_cast<int32_t>(ip_update_icmp_err_source_address(&source, 5, 1)), 0) << "the interface's";
  std::strcpy(source.if_name, "eth2");
  EXPECT_LT(static_cast<int32_t>(ip_update_icmp_err_source_address(&source, 5, 1)), 0) << "the caller's";
}

TEST_F(IcmpErrorSourceTest, StaysWhenTheInterfaceHasNoName) {
  attach();
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 99, 1), 0u);
  platform().scripts.fail("im_get_if_name");
  EXPECT_EQ(ip_update_icmp_err_source_address(&source, 5, 1), 0u);
  EXPECT_EQ(source.src_addr, untouched);
}

}  // namespace
}  // namespace unit
