// SPDX-License-Identifier: Apache-2.0
// The one-line summary of an interface's addresses.
#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {
namespace {

class AddrSummaryTest : public LibraryTest {
 protected:
  AddrSummaryTest() {
    platform().log.name(&out, "out");
    platform().log.name(&arg, "arg");
  }
  std::string summary(uint32_t iod) {
    platform().command_output.clear();
    ip_print_addr_summary(iod, &out, &arg);
    EXPECT_EQ(platform().command_output.size(), 1u);
    return platform().command_output.empty() ? "" : platform().command_output.front();
  }
  const std::string none = "  IP address: none\n";
  int out = 0;
  int arg = 0;
};

TEST_F(AddrSummaryTest, ThePrimaryAddressAndItsSubnetAreShown) {
  attach();
  database.interface(5, {{address(10, 1, 2, 3), 20}, {address(10, 9, 9, 9), 24}});
  EXPECT_EQ(summary(5), "  IP address: 10.1.2.3, IP subnet: 10.1.0.0/20\n");
}

TEST_F(AddrSummaryTest, TheLongestAddressesFit) {
  attach();
  database.interface(5, {{0xffffffff, 32}});
  EXPECT_EQ(summary(5), "  IP address: 255.255.255.255, IP subnet: 255.255.255.255/32\n");
}

TEST_F(AddrSummaryTest, AnUnnumberedInterfaceShowsItsLender) {
  attach();
  ip_iftype *record = database.interface(5, {{address(10, 1, 2, 3), 20}});
  database.unnumbered(record, 6, "loopback0");
  EXPECT_EQ(summary(5), "  IP unnumbered interface (loopback0)\n") << "also when it has an address";
  database.unnumbered(database.interface(7), 0, "loopback0");
  EXPECT_EQ(summary(7), "  IP unnumbered interface (loopback0)\n") << "without one, and with the lender down";
}

TEST_F(AddrSummaryTest, ALineHas99Characters) {
  attach();
  database.unnumbered(database.interface(5), 6, std::string(200, 'n'));
  EXPECT_EQ(summary(5), "  IP unnumbered interface (" + std::string(72, 'n'));
}

TEST_F(AddrSummaryTest, WithoutAnAddressThereIsNone) {
  attach();
  database.interface(5);
  EXPECT_EQ(summary(5), none);
  EXPECT_EQ(summary(0), none) << "no interface";
  EXPECT_EQ(summary(6), none) << "no IP state";
}

TEST_F(AddrSummaryTest, WithoutTheDatabaseThereIsNone) {
  EXPECT_EQ(summary(5), none);
}

TEST_F(AddrSummaryTest, TheLineAndTheArgumentGoToTheCommandUnderTheLock) {
  attach();
  database.interface(5);
  ip_print_addr_summary(5, &out, &arg);
  EXPECT_EQ(with_lock_depth(calls(), {"cli_new_printf"}),
            (Calls{"1: cli_new_printf(out, \"%s\", \"" + none + "\", arg)"}));
  EXPECT_EQ(calls().front(), "tsp_lock_acquire_rdlock(7)");
  EXPECT_EQ(calls().back(), "tsp_lock_release_rdlock(7)");
}

TEST_F(AddrSummaryTest, TheIpProcessTakesNoLock) {
  attach();
  database.interface(5);
  ip_is_server_flag = 1;
  EXPECT_EQ(summary(5), none);
  EXPECT_EQ(only(calls(), {"tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock"}), Calls{});
}

TEST_F(AddrSummaryTest, TwoSlotsOfTheRingAreUsed) {
  attach();
  database.interface(5, {{address(10, 1, 2, 3), 20}});
  summary(5);
  EXPECT_EQ(ip_address_string_next, 2);
  EXPECT_STREQ(ip_address_string[0], "10.1.2.3");
  EXPECT_STREQ(ip_address_string[1], "10.1.0.0");
}

}  // namespace
}  // namespace unit
