// SPDX-License-Identifier: Apache-2.0
// Questions about the addresses of interfaces, answered from what ipd mirrors, beside the kernel's own answers.
#include <linux/rtnetlink.h>

#include <nlohmann/json.hpp>
#include <random>

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "support/kernel_routes.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::host_order;
using test_support::KernelAnswer;
using test_support::KernelRoutes;
using test_support::wait_until;

constexpr uint32_t default_context = 1;

// Addresses with their lengths, as both sides print them.
using Prefixes = std::vector<std::string>;

Prefixes kernels_addresses(const std::string &device) {
  std::string text;
  if (test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -4 -j addr show dev " + device}, &text) !=
      0) {
    return {};
  }
  Prefixes out;
  for (const auto &link : nlohmann::json::parse(text)) {
    if (!link.contains("addr_info")) continue;
    for (const auto &address : link["addr_info"]) {
      out.push_back(address["local"].get<std::string>() + "/" + std::to_string(address["prefixlen"].get<unsigned>()));
    }
  }
  return out;
}

Prefixes published_addresses(uint32_t iod) {
  Prefixes out;
  ip_prefixtype primary{};
  if (ip_get_local_prefix(iod, &primary) == 0 || primary.addr == 0) return out;
  out.push_back(dotted(primary.addr) + "/" + std::to_string(primary.mask_len));
  uint32_t addr = 0;
  uint8_t len = 0;
  for (ip_get_next_secondary(iod, &addr, &len); addr != 0; ip_get_next_secondary(iod, &addr, &len)) {
    out.push_back(dotted(addr) + "/" + std::to_string(len));
  }
  return out;
}

class IpdAddressesTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    start_ipd();
    attach();
    va_ = iod("va");
    ASSERT_NE(va_, 0u);
  }

  void add(const std::string &address) { ip("addr add " + address + " dev va"); }
  void remove(const std::string &address) { ip("addr del " + address + " dev va"); }

  // Waits until primary and secondaries are the kernel's, in its order.
  void expect_the_kernels_list() {
    Prefixes kernel;
    Prefixes published;
    EXPECT_TRUE(wait_until([&] {
      kernel = kernels_addresses("va");
      published = published_addresses(va_);
      return kernel == published;
    })) << "kernel: "
        << testing::PrintToString(kernel) << "\npublished: " << testing::PrintToString(published);
  }

  // Packets out of va, to random destinations around its addresses and far from them: the kernel's source address is
  // the best local one. Broadcasts and own addresses are left out, where the kernel has one answer for all interfaces.
  void expect_the_kernels_source_addresses(uint32_t seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    KernelRoutes kernel;
    const auto index = static_cast<uint32_t>(ifindex("va"));
    int compared = 0;
    for (int i = 0; i < 3000; ++i) {
      // 10.0.0.0/14 is where the addresses are; every fourth destination is anywhere.
      const auto any = static_cast<uint32_t>(random());
      const uint32_t dest =
          i % 4 == 3 ? 0x0b000000u + (any & 0x7fffffffu) % 0x60000000u : 0x0a000000u + (any & 0x3ffffu);
      const KernelAnswer answer = kernel.way({.dest = dest, .ifindex = index});
      if (answer.error != 0 || answer.type != RTN_UNICAST) continue;
      ++compared;
      ASSERT_EQ(dotted(ip_get_best_local_addr(va_, dest)), dotted(answer.source)) << "to " << dotted(dest);
    }
    EXPECT_GT(compared, 2000);
  }

  uint32_t va_ = 0;
};

TEST_F(IpdAddressesTest, SecondariesFollowThePrimaryInTheKernelsOrder) {
  for (const char *address : {"10.1.0.1/24", "10.1.0.9/24", "10.2.0.1/16", "10.1.0.3/24", "10.0.0.1/32"}) add(address);
  expect_the_kernels_list();
  EXPECT_EQ(ip_get_secondary_count(va_), 4u);
  EXPECT_EQ(dotted(ip_get_local_addr(va_)), "10.1.0.1");
  EXPECT_EQ(ip_get_local_mask_len(host_order("10.1.0.3"), va_), 24u);
  EXPECT_EQ(ip_get_local_mask_len(host_order("10.1.0.4"), va_), 0u);
  remove("10.1.0.9/24");
  expect_the_kernels_list();
  EXPECT_EQ(ip_get_secondary_count(va_), 3u);
}

TEST_F(IpdAddressesTest, AnIteratorThatStandsOnARemovedSecondaryEnds) {
  for (const char *address : {"10.1.0.1/24", "10.1.0.2/24", "10.1.0.3/24"}) add(address);
  expect_the_kernels_list();
  uint32_t addr = 0;
  uint8_t len = 0;
  ip_get_next_secondary(va_, &addr, &len);
  EXPECT_EQ(dotted(addr), "10.1.0.2");
  remove("10.1.0.2/24");
  expect_the_kernels_list();
  ip_get_next_secondary(va_, &addr, &len);
  EXPECT_EQ(addr, 0u);
  EXPECT_EQ(len, 0u);
}

TEST_F(IpdAddressesTest, TheBestLocalAddressIsTheKernelsSourceAddress) {
  for (const char *address : {"10.0.0.1/14", "10.1.0.1/16", "10.1.0.2/16", "10.1.5.1/24", "10.2.128.1/17",
                              "10.1.5.2/24", "10.3.3.3/32", "10.2.200.1/28"}) {
    add(address);
  }
  expect_the_kernels_list();
  ip("route add default dev va");
  expect_the_kernels_source_addresses(4711);
}

TEST_F(IpdAddressesTest, ASecondaryIsPromotedWhenItsPrimaryGoes) {
  set_sysctl("conf/va/promote_secondaries", "1");
  for (const char *address : {"10.1.0.1/24", "10.1.0.2/24", "10.1.0.3/24", "10.2.0.1/24"}) add(address);
  ip("route add default dev va");
  expect_the_kernels_list();
  expect_the_kernels_source_addresses(1);
  remove("10.1.0.1/24");
  expect_the_kernels_list();
  EXPECT_EQ(ip_is_address_on_interface(host_order("10.1.0.1"), va_), 0u);
  EXPECT_NE(ip_is_address_on_interface(host_order("10.1.0.2"), va_), 0u);
  EXPECT_EQ(dotted(ip_get_best_local_addr(va_, host_order("10.1.0.77"))), "10.1.0.2");
  expect_the_kernels_source_addresses(2);
}

TEST_F(IpdAddressesTest, SecondariesGoWithTheirPrimaryWhereTheKernelDoesNotPromote) {
  set_sysctl("conf/va/promote_secondaries", "0");
  for (const char *address : {"10.1.0.1/24", "10.1.0.2/24", "10.1.0.3/24", "10.2.0.1/24", "10.2.0.2/24"}) add(address);
  expect_the_kernels_list();
  remove("10.1.0.1/24");
  expect_the_kernels_list();
  EXPECT_EQ(published_addresses(va_), (Prefixes{"10.2.0.1/24", "10.2.0.2/24"}));
  EXPECT_EQ(ip_get_iod_for_local_address("default", host_order("10.1.0.3")), 0u);
  ip("route add default dev va");
  expect_the_kernels_source_addresses(3);
}

// The kernel has a broadcast route for each address that it takes for one.
TEST_F(IpdAddressesTest, ADirectedBroadcastIsOneToTheKernelToo) {
  const std::vector<std::string> all{"10.0.0.1/24", "10.0.1.1/25", "10.0.2.1/30", "10.0.3.0/31", "10.0.4.7/32"};
  // The kernel makes no broadcast route of its own unless it is told the address.
  for (const std::string &address : all)
    add(address + (address.ends_with("/31") || address.ends_with("/32") ? "" : " broadcast +"));
  expect_the_kernels_list();
  KernelRoutes kernel;
  int broadcasts = 0;
  for (uint32_t dest = host_order("10.0.0.0"); dest < host_order("10.0.5.0"); ++dest) {
    const KernelAnswer answer = kernel.way({.dest = dest});
    const bool broadcast = answer.error == 0 && answer.type == RTN_BROADCAST;
    // A subnet's own address with no host bits is one to readers as well; the kernel stopped to treat it so.
    const bool zeros =
        dest == host_order("10.0.0.0") || dest == host_order("10.0.1.0") || dest == host_order("10.0.2.0");
    EXPECT_EQ(ip_is_addr_directed_broadcast(dest, va_) != 0, broadcast || zeros) << dotted(dest);
    broadcasts += broadcast ? 1 : 0;
  }
  EXPECT_EQ(broadcasts, 3);
}

TEST_F(IpdAddressesTest, BothEndsOfASubnetOfTwoAreHosts) {
  add("10.0.3.0/31");
  ip("addr add 10.0.3.1/31 dev vb");
  expect_the_kernels_list();
  EXPECT_TRUE(wait_until([] { return ip_get_iod_for_local_address("default", host_order("10.0.3.1")) == iod("vb"); }));
  EXPECT_EQ(ip_get_iod_for_local_address("default", host_order("10.0.3.0")), va_);
  EXPECT_EQ(ip_get_local_mask_len(host_order("10.0.3.0"), va_), 31u);
  EXPECT_EQ(ip_is_addr_directed_broadcast(host_order("10.0.3.0"), va_), 0u);
  EXPECT_EQ(ip_is_addr_directed_broadcast(host_order("10.0.3.1"), va_), 0u);
  EXPECT_NE(ip_check_target_addr_for_local_subnet(va_, host_order("10.0.3.1")), 0u);
}

TEST_F(IpdAddressesTest, AHostAddressHasNoSubnet) {
  add("10.0.4.7/32");
  expect_the_kernels_list();
  EXPECT_EQ(ip_get_iod_for_local_address("default", host_order("10.0.4.7")), va_);
  EXPECT_EQ(ip_get_local_mask(va_), 0xffffffffu);
  EXPECT_EQ(ip_check_target_addr_for_local_subnet(va_, host_order("10.0.4.8")), 0u);
  uint32_t out = 5;
  EXPECT_EQ(ip_get_best_intf_addr(va_, host_order("10.0.4.8"), &out), 0u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(dotted(ip_get_best_local_addr(va_, host_order("10.0.4.8"))), "10.0.4.7") << "it has no other";
}

TEST_F(IpdAddressesTest, OnlyTheOwnEndOfAPointToPointAddressIsLocal) {
  ip("addr add 10.3.0.1 peer 10.3.0.2/32 dev va");
  EXPECT_TRUE(wait_until([&] { return ip_get_iod_for_local_address("default", host_order("10.3.0.1")) == va_; }));
  // Published one after the other.
  EXPECT_TRUE(wait_until([&] { return ip_get_local_mask_len(host_order("10.3.0.1"), va_) == 32; }));
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_best_local_addr(va_, host_order("10.3.0.2"))) == "10.3.0.1"; }));
  EXPECT_EQ(ip_get_iod_for_local_address("default", host_order("10.3.0.2")), 0u);
  KernelRoutes kernel;
  EXPECT_EQ(kernel.way({.dest = host_order("10.3.0.1")}).type, RTN_LOCAL);
  const KernelAnswer peer = kernel.way({.dest = host_order("10.3.0.2")});
  EXPECT_EQ(peer.type, RTN_UNICAST);
  EXPECT_EQ(dotted(peer.source), "10.3.0.1");
}

TEST_F(IpdAddressesTest, AMovedAddressIsOnItsNewInterface) {
  for (int round = 0; round < 5; ++round) {
    add("10.1.0.1/24");
    EXPECT_TRUE(wait_until([&] { return ip_is_addr_local_intf(default_context, host_order("10.1.0.1")) == va_; }));
    remove("10.1.0.1/24");
    ip("addr add 10.1.0.1/24 dev vb");
    EXPECT_TRUE(wait_until([] { return ip_is_addr_local_intf(default_context, host_order("10.1.0.1")) == iod("vb"); }));
    EXPECT_TRUE(
        wait_until([] { return ip_is_addr_local_configured(default_context, host_order("10.1.0.1")) == iod("vb"); }));
    ip("addr del 10.1.0.1/24 dev vb");
  }
  EXPECT_TRUE(wait_until([] { return ip_is_addr_local_intf(default_context, host_order("10.1.0.1")) == 0; }));
}

TEST_F(IpdAddressesTest, TheAddressesOfAContextComeInAscendingOrder) {
  for (const char *address : {"10.9.0.1/24", "10.0.0.1/8", "10.200.0.1/32", "10.9.0.2/24"}) add(address);
  ip("addr add 10.100.0.1/30 dev vb");
  expect_the_kernels_list();
  EXPECT_TRUE(wait_until([] { return ip_is_addr_local_intf(default_context, host_order("10.100.0.1")) != 0; }));
  Prefixes walked;
  for (uint32_t addr = ip_get_next_address("default", 0); addr != 0; addr = ip_get_next_address("default", addr)) {
    walked.push_back(dotted(addr));
  }
  EXPECT_EQ(walked, (Prefixes{"10.0.0.1", "10.9.0.1", "10.9.0.2", "10.100.0.1", "10.200.0.1", "127.0.0.1"}));
}

TEST_F(IpdAddressesTest, AnInterfaceThatIsDownHoldsItsAddressesButNoneIsActive) {
  add("10.1.0.1/24");
  ip("addr add 10.2.0.1/24 dev vb");
  EXPECT_TRUE(wait_until([] { return dotted(ip_get_active_local_address(default_context)) == "10.1.0.1"; }));
  ip("link set va down");
  // Its peer has lost its carrier: both are out, and the loopback address is what is left.
  EXPECT_TRUE(wait_until([] { return dotted(ip_get_active_local_address(default_context)) == "127.0.0.1"; }));
  EXPECT_EQ(ip_get_iod_for_local_address("default", host_order("10.1.0.1")), va_) << "still configured";
  EXPECT_EQ(ip_is_addr_local_configured(default_context, host_order("10.1.0.1")), va_);
  EXPECT_EQ(im_is_adminup(va_), 0u);
  EXPECT_NE(im_is_adminup(iod("vb")), 0u) << "without a carrier, but nobody took it down";
  EXPECT_EQ(im_is_if_up(iod("vb")), 0u);
  expect_the_kernels_list();
  ip("link set va up");
  EXPECT_TRUE(wait_until([] { return dotted(ip_get_active_local_address(default_context)) == "10.1.0.1"; }));
  ip("link set vb down");
  EXPECT_TRUE(wait_until([] { return dotted(ip_get_active_local_address(default_context)) == "127.0.0.1"; }));
  EXPECT_NE(im_is_adminup(va_), 0u);
}

}  // namespace
