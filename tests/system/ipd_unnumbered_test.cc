// SPDX-License-Identifier: Apache-2.0
// An interface that borrows the address of another one, by configuration, while the kernel's interfaces change.
#include <arpa/inet.h>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "support/kernel_routes.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::host_order;
using test_support::wait_until;

constexpr uint32_t default_context = 1;

// va is without an address and borrows that of the macvlan m0, which is on vb.
class IpdUnnumberedTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    add_lender("m0");
    write_configuration(R"({"unnumbered": [{"interface": "va", "source": "m0"}]})");
    start_ipd({"--config", configuration_file()});
    attach();
    va_ = iod("va");
    ASSERT_NE(va_, 0u);
    EXPECT_TRUE(wait_until([&] { return ip_is_iod_unnumbered(va_) != 0; }));
  }

  void add_lender(const std::string &device) {
    ip("link add link vb name " + device + " type macvlan mode bridge");
    ip("link set " + device + " up");
    ip("addr add 10.1.0.1/24 dev " + device);
    ip("addr add 10.2.0.1/24 dev " + device);
  }

  struct Loan {
    uint32_t addr = 0;
    uint32_t flag = 0;
    std::string lender;
    std::string reason;
  };
  Loan loan() const {
    Loan found;
    char name[256] = "";
    EXPECT_EQ(ip_get_unnumbered_info(va_, &found.addr, name, &found.flag), 1u);
    found.lender = name;
    found.reason = ip_api_get_error();
    return found;
  }

  uint32_t va_ = 0;
};

TEST_F(IpdUnnumberedTest, AnswersWithItsLendersAddress) {
  EXPECT_TRUE(wait_until([&] { return ip_get_local_addr(va_) == host_order("10.1.0.1"); }));
  ip_prefixtype prefix{};
  EXPECT_EQ(ip_get_local_prefix(va_, &prefix), 1u);
  EXPECT_EQ(dotted(prefix.addr), "10.1.0.1");
  EXPECT_EQ(prefix.mask_len, 24u);
  EXPECT_EQ(dotted(ip_get_best_local_addr(va_, host_order("10.2.0.77"))), "10.1.0.1") << "the primary, without a look";
  uint32_t best = 0;
  EXPECT_EQ(ip_get_best_intf_addr(va_, host_order("10.2.0.77"), &best), 1u);
  EXPECT_EQ(dotted(best), "10.2.0.1") << "but this question looks at the lender's subnets";
  EXPECT_EQ(ip_get_local_mask(va_), 0u) << "the address is not its own";
  EXPECT_EQ(ip_is_addr_local_configured(default_context, host_order("10.1.0.1")), iod("m0"));
  EXPECT_EQ(ip_is_address_on_interface(host_order("10.1.0.1"), va_), 0u);
  EXPECT_NE(ip_enabled(va_), 0u);
  const Loan found = loan();
  EXPECT_EQ(found.flag, 1u);
  EXPECT_EQ(found.lender, "m0");
  EXPECT_EQ(dotted(found.addr), "10.1.0.1");
}

// A lender that is down keeps its addresses, and so does the borrower.
TEST_F(IpdUnnumberedTest, GoesOnBorrowingWhileTheLenderIsDown) {
  ip("link set m0 down");
  EXPECT_TRUE(wait_until([] { return im_is_adminup(iod("m0")) == 0; }));
  EXPECT_EQ(dotted(ip_get_local_addr(va_)), "10.1.0.1");
  EXPECT_EQ(loan().flag, 1u);
  EXPECT_EQ(dotted(ip_get_active_local_address(default_context)), "127.0.0.1") << "nobody's active address, though";
  ip("link set m0 up");
  EXPECT_TRUE(wait_until([] { return dotted(ip_get_active_local_address(default_context)) == "10.1.0.1"; }));
}

TEST_F(IpdUnnumberedTest, FollowsTheLendersPrimaryAddress) {
  ip("addr del 10.1.0.1/24 dev m0");
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_local_addr(va_)) == "10.2.0.1"; }));
  ip("addr flush dev m0");
  EXPECT_TRUE(wait_until([&] { return ip_get_local_addr(va_) == 0; }));
  const Loan without = loan();
  EXPECT_EQ(without.flag, 0u);
  EXPECT_EQ(without.lender, "m0");
  EXPECT_EQ(without.reason.substr(0, 37), "No addr config for unnumbered iod 0");
  ip("addr add 10.3.0.1/24 dev m0");
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_local_addr(va_)) == "10.3.0.1"; }));
}

TEST_F(IpdUnnumberedTest, IsANumberedOneWithoutAddressWhenTheLenderIsGone) {
  ip("link del m0");
  EXPECT_TRUE(wait_until([&] { return ip_is_iod_unnumbered(va_) == 0; }));
  EXPECT_EQ(ip_get_local_addr(va_), 0u);
  const Loan found = loan();
  EXPECT_EQ(found.flag, 0u);
  EXPECT_EQ(found.reason, "Not an unnumbered interface " + std::to_string(va_));
  add_lender("m0");
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_local_addr(va_)) == "10.1.0.1"; })) << "it is there again";
  EXPECT_EQ(loan().flag, 1u);
}

// The configuration names the lender, so another name is another interface.
TEST_F(IpdUnnumberedTest, ALenderWithAnotherNameIsNotTheOneConfigured) {
  ip("link set m0 name m1");
  EXPECT_TRUE(wait_until([&] { return ip_is_iod_unnumbered(va_) == 0; }));
  EXPECT_EQ(ip_get_local_addr(va_), 0u);
  ip("link set m1 name m0");
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_local_addr(va_)) == "10.1.0.1"; }));
}

TEST_F(IpdUnnumberedTest, ABorrowerWithAnotherNameGivesTheLoanBack) {
  ip("link set va name vz");
  EXPECT_TRUE(wait_until([&] { return ip_is_iod_unnumbered(va_) == 0; }));
  EXPECT_EQ(iod("vz"), va_);
  ip("link set vz name va");
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_local_addr(va_)) == "10.1.0.1"; }));
}

TEST_F(IpdUnnumberedTest, AnotherLenderComesWithTheNextConfiguration) {
  ip("addr add 10.9.0.1/24 dev vb");
  write_configuration(R"({"unnumbered": [{"interface": "va", "source": "vb"}]})");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_local_addr(va_)) == "10.9.0.1"; }));
  EXPECT_EQ(loan().lender, "vb");
}

// Without an address on the device the kernel takes one from another device, and there is no other than the lender.
TEST_F(IpdUnnumberedTest, ARouteOutOfItHasTheSourceAddressThatTheKernelTakes) {
  ip("route add 20.0.0.0/8 dev va");
  uint32_t out = 0;
  const uint32_t dest = host_order("20.1.2.3");
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_route(default_context, htonl(dest), &out)) == "10.1.0.1"; }));
  EXPECT_EQ(out, va_);
  test_support::KernelRoutes kernel;
  const test_support::KernelAnswer way = kernel.way({.dest = dest});
  EXPECT_EQ(dotted(way.source), "10.1.0.1");
  ASSERT_EQ(way.next_hops.size(), 1u);
  EXPECT_EQ(way.next_hops[0].ifindex, static_cast<uint32_t>(ifindex("va")));
}

TEST_F(IpdUnnumberedTest, IsAmongTheEnabledAndTheMulticastInterfaces) {
  EXPECT_TRUE(wait_until([&] { return ip_get_local_addr(va_) != 0; }));
  const auto walks_over_va = [&](uint32_t (*next)(uint32_t)) {
    for (uint32_t each = next(0); each != 0; each = next(each)) {
      if (each == va_) return true;
    }
    return false;
  };
  EXPECT_TRUE(walks_over_va(ip_get_each_enabled_iod));
  EXPECT_TRUE(walks_over_va(ip_get_each_multicast_iod));
  write_configuration("{}");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([&] { return !walks_over_va(ip_get_each_multicast_iod); }));
}

}  // namespace
