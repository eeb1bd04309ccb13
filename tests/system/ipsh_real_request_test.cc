// SPDX-License-Identifier: Apache-2.0
// ipsh asks a real ipd, and the kernel shows what became of it.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <sstream>

#include "ipd_fixture.h"
#include "ipsh_fixture.h"

namespace {

using ipsh_test::ipsh;
using ipsh_test::Outcome;
using ipsh_test::words_of;
using test_support::Process;
using test_support::wait_until;

constexpr std::chrono::milliseconds long_wait(60000);

class IpshOfIpd : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add eth0 type veth peer name peer0");
    ip("link add eth1 type veth peer name peer1");
    ip("addr add 10.0.0.1/24 dev eth0");
    for (const char *name : {"eth0", "peer0", "eth1", "peer1"}) ip("link set " + std::string(name) + " up");
    start_ipd();
  }
  static Process started(const std::string &line) {
    std::vector<std::string> words = words_of(line);
    words.insert(words.begin(), IPSH);
    return Process(words);
  }
};

// Whether the kernel has a membership on the interface; the group as /proc/net/igmp writes it.
bool kernel_has(const std::string &interface, const std::string &group) {
  std::ifstream table("/proc/thread-self/net/igmp");
  std::string current;
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string first, second;
    words >> first >> second;
    if (line.front() != '\t') current = second;
    if (current == interface && first == group) return true;
  }
  return false;
}

TEST_F(IpshOfIpd, AMembershipIsInTheKernelWhileAJoinHoldsIt) {
  Process join = started("join 239.1.2.3 --interface eth0 --timeout 60");
  EXPECT_TRUE(wait_until([&] { return join.output().find("held") != std::string::npos; }, long_wait)) << join.output();
  EXPECT_TRUE(kernel_has("eth0", "030201EF"));
  EXPECT_FALSE(kernel_has("eth1", "030201EF"));
  const Outcome left = ipsh(words_of("leave 239.1.2.3 --interface eth0"));
  EXPECT_EQ(left.exit_code, 0) << left.err;
  EXPECT_EQ(join.wait(long_wait), 0) << join.output();
  EXPECT_TRUE(wait_until([] { return !kernel_has("eth0", "030201EF"); }, long_wait));
}

TEST_F(IpshOfIpd, AKilledJoinLeavesNothingBehind) {
  Process join = started("join 232.1.2.3 --source 192.0.2.1 --interface eth1 --timeout 60");
  EXPECT_TRUE(wait_until([&] { return join.output().find("held") != std::string::npos; }, long_wait)) << join.output();
  EXPECT_TRUE(kernel_has("eth1", "030201E8"));
  join.kill_now();
  EXPECT_TRUE(wait_until([] { return !kernel_has("eth1", "030201E8"); }, long_wait));
}

TEST_F(IpshOfIpd, AJoinEndsWithIpd) {
  Process join = started("join 239.1.2.3 --interface eth0 --timeout 60");
  EXPECT_TRUE(wait_until([&] { return join.output().find("held") != std::string::npos; }, long_wait)) << join.output();
  ipd_.kill_now();
  EXPECT_EQ(join.wait(long_wait), 3);
  EXPECT_NE(join.output().find("ipd is gone"), std::string::npos) << join.output();
}

TEST_F(IpshOfIpd, AnAddressIsConfiguredOnceAndStays) {
  const Outcome done = ipsh(words_of("configure 10.0.1.1/24 --interface eth1 --timeout 60"));
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_NE(done.out.find("the address is on the interface"), std::string::npos) << done.out;
  EXPECT_NE(ipsh(words_of("show addresses --interface eth1")).out.find("10.0.1.1/24"), std::string::npos);
  std::string shown;
  EXPECT_EQ(test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -4 addr show dev eth1"}, &shown),
            0);
  EXPECT_NE(shown.find("inet 10.0.1.1/24"), std::string::npos) << shown;
}

TEST_F(IpshOfIpd, AnOverlappingAddressIsRefusedWithTheOtherInterface) {
  const Outcome refused = ipsh(words_of("configure 10.0.0.9/24 --interface eth1 --timeout 60"));
  EXPECT_EQ(refused.exit_code, 1) << refused.err;
  EXPECT_NE(refused.out.find("another interface of the context has that prefix: eth0 (iod "), std::string::npos)
      << refused.out;
}

TEST_F(IpshOfIpd, ALoanLastsAsLongAsTheIpshThatAsked) {
  Process set = started("unnumbered set --interface eth1 --from eth0 --timeout 60");
  EXPECT_TRUE(wait_until([&] { return set.output().find("held") != std::string::npos; }, long_wait)) << set.output();
  EXPECT_NE(ipsh(words_of("show interfaces --interface eth1")).out.find("unnumbered(eth0)"), std::string::npos);
  set.signal(SIGTERM);
  EXPECT_EQ(set.wait(long_wait), 0) << set.output();
  EXPECT_TRUE(wait_until(
      [] {
        return ipsh(words_of("show interfaces --interface eth1")).out.find("unnumbered(eth0)") == std::string::npos;
      },
      long_wait));
}

TEST_F(IpshOfIpd, ALoanIsEndedByUnset) {
  Process set = started("unnumbered set --interface eth1 --from eth0 --timeout 60");
  EXPECT_TRUE(wait_until([&] { return set.output().find("held") != std::string::npos; }, long_wait)) << set.output();
  const Outcome unset = ipsh(words_of("unnumbered unset --interface eth1 --timeout 60"));
  EXPECT_EQ(unset.exit_code, 0) << unset.err;
  EXPECT_EQ(set.wait(long_wait), 0) << set.output();
  EXPECT_EQ(ipsh(words_of("unnumbered unset --interface eth1")).exit_code, 1);
}

TEST_F(IpshOfIpd, AllMulticastIsTakenIn) {
  Process on = started("multicast on --interface eth0 --timeout 60");
  EXPECT_TRUE(wait_until([&] { return on.output().find("held") != std::string::npos; }, long_wait)) << on.output();
  const Outcome off = ipsh(words_of("multicast off --interface eth0"));
  EXPECT_EQ(off.exit_code, 0) << off.err;
  EXPECT_EQ(on.wait(long_wait), 0) << on.output();
}

}  // namespace
