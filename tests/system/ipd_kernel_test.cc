// SPDX-License-Identifier: Apache-2.0
// A client's view beside the kernel's, while the kernel changes.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "system_pictures.h"

namespace {

using ipd_test::IpdTest;
using test_support::wait_until;
using Clock = std::chrono::steady_clock;

class IpdKernelTest : public IpdTest {};

TEST_F(IpdKernelTest, PublishesWhatIsThereWhenItStarts) {
  ip("link add va type veth peer name vb");
  ip("link set va up mtu 1400");
  ip("link set vb up");
  ip("link add bridge0 type bridge");
  ip("link add ib type ifb");
  for (const char *address : {"10.1.0.1/24", "10.1.0.2/24", "10.2.0.1/16", "10.1.0.3/24", "169.254.9.9/16 scope link",
                              "10.9.9.9/32 scope host", "10.3.0.1 peer 10.3.0.2/32", "10.3.0.1 peer 10.4.0.0/24"}) {
    ip(std::string("addr add ") + address + " dev va");
  }
  start_ipd();
  attach();
  expect_same_as_kernel();
  EXPECT_NE(test_support::published_picture().find("10.1.0.3/24"), std::string::npos);
}

TEST_F(IpdKernelTest, FollowsEveryKindOfChange) {
  start_ipd();
  attach();
  for (const char *change : {"link add va type veth peer name vb",
                             "link set va up",
                             "link set vb up",
                             "addr add 10.1.0.1/24 dev va",
                             "addr add 10.1.0.2/24 dev va",
                             "addr add 10.2.0.1/24 dev va",
                             "addr add 10.2.0.2/24 dev va",
                             "addr add 10.5.0.1/24 scope link dev va",
                             "addr add 10.6.0.1/24 scope host dev va",
                             "link set va mtu 1300",
                             "link set va multicast off",
                             "addr del 10.1.0.2/24 dev va",
                             "link set vb down",
                             "link set va down",
                             "link set va name vz",
                             "link set vz up",
                             "addr add 10.3.0.1 peer 10.3.0.2/32 dev vz",
                             "addr add 10.3.0.1 peer 10.3.0.3/32 dev vz",
                             "addr del 10.3.0.1 peer 10.3.0.2/32 dev vz",
                             "addr del 10.3.0.1 peer 10.3.0.3/32 dev vz",
                             "addr flush dev vz",
                             "link add bridge0 type bridge",
                             "link set vz master bridge0",
                             "link set vz nomaster",
                             "addr add 10.7.0.1/24 dev bridge0",
                             "link del bridge0",
                             "link del vz"}) {
    ip(change);
    expect_same_as_kernel();
  }
}

TEST_F(IpdKernelTest, KeepsTheKernelsOrderWhenAPrimaryGoes) {
  ip("link add ib type ifb");
  ip("link set ib up");
  start_ipd();
  attach();
  for (const char *promotion : {"0", "1"}) {
    set_sysctl("conf/ib/promote_secondaries", promotion);
    for (const char *address :
         {"10.1.0.1/24", "10.2.0.1/24", "10.3.0.1/24", "10.1.0.2/24", "10.3.0.2/24", "10.1.0.3/24", "10.3.0.3/24"}) {
      ip(std::string("addr add ") + address + " dev ib");
    }
    expect_same_as_kernel();
    for (const char *address : {"10.3.0.1/24", "10.1.0.1/24"}) {
      ip(std::string("addr del ") + address + " dev ib");
      expect_same_as_kernel();
    }
    ip("addr flush dev ib");
    expect_same_as_kernel();
  }
}

TEST_F(IpdKernelTest, FollowsForwardingAndDirectedBroadcast) {
  ip("link add ib type ifb");
  ip("link set ib up");
  start_ipd();
  attach();
  const uint32_t there = iod("ib");
  ASSERT_NE(there, 0u);
  EXPECT_EQ(ip_allow_directed_broadcast(there), 0u);
  set_sysctl("conf/ib/bc_forwarding", "1");
  set_sysctl("conf/all/bc_forwarding", "1");
  EXPECT_TRUE(wait_until([&] { return ip_allow_directed_broadcast(there) != 0; }));
  set_sysctl("conf/all/bc_forwarding", "0");
  EXPECT_TRUE(wait_until([&] { return ip_allow_directed_broadcast(there) == 0; }));
}

TEST_F(IpdKernelTest, AnEventIsVisibleWithinTenMilliseconds) {
  ip("link add ib type ifb");
  ip("link set ib up");
  start_ipd();
  attach();
  const uint32_t there = iod("ib");
  ASSERT_NE(there, 0u);
  test_support::AddressChanger changer;
  const int index = ifindex("ib");
  std::vector<double> milliseconds;
  // The median, and that of the best of some series: a machine that is busy with other things may stop us or ipd for
  // longer, now and then or for a while.
  for (uint32_t series = 0; series < 20; ++series) {
    milliseconds.clear();
    for (uint32_t i = 0; i < 200; ++i) {
      const uint32_t addr = 0x0a000001 + series * 256 + i;
      // From before the kernel is asked: often the reader sees the address before the kernel's answer is read.
      const auto begin = Clock::now();
      ASSERT_EQ(changer.add(index, addr, 24), 0);
      ASSERT_TRUE(wait_until([&] { return ip_is_address_on_interface(addr, there) != 0; }));
      milliseconds.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    if (milliseconds[100] < 10.0) break;
  }
  RecordProperty("median_ms", std::to_string(milliseconds[100]));
  RecordProperty("p99_ms", std::to_string(milliseconds[198]));
  EXPECT_LT(milliseconds[100], 10.0) << "p99 " << milliseconds[198] << " ms";
}

TEST_F(IpdKernelTest, EventsThatDoNotFitIntoTheReceiveBufferAreMadeUpFor) {
  ip("link add ib type ifb");
  ip("link set ib up");
  start_ipd({"--receive-buffer", "1"});
  attach();
  test_support::AddressChanger changer;
  const int index = ifindex("ib");
  ipd_.signal(SIGSTOP);  // so that the buffer is sure to be too small
  for (uint32_t i = 0; i < 4000; ++i) ASSERT_EQ(changer.add(index, 0x0a000001 + i, 32), 0);
  for (uint32_t i = 0; i < 4000; i += 3) ASSERT_EQ(changer.remove(index, 0x0a000001 + i, 32), 0);
  ipd_.signal(SIGCONT);
  for (uint32_t i = 0; i < 2000; ++i) ASSERT_EQ(changer.add(index, 0x0b000001 + i, 32), 0);
  expect_same_as_kernel();
  EXPECT_TRUE(wait_until([this] { return ipd_said("events were lost"); }));
  ASSERT_EQ(changer.add(index, 0x0c000001, 32), 0);
  expect_same_as_kernel();
}

TEST_F(IpdKernelTest, AnInterfaceThatWasReplacedUnseenIsANewOne) {
  ip("link add ib index 77 type ifb");
  ip("link set ib up");
  ip("addr add 10.0.0.1/24 dev ib");
  start_ipd({"--receive-buffer", "1"});
  attach();
  const uint32_t before = iod("ib");
  ASSERT_NE(before, 0u);
  test_support::AddressChanger changer;
  ipd_.signal(SIGSTOP);
  for (uint32_t i = 0; i < 500; ++i) ASSERT_EQ(changer.add(ifindex("lo"), 0x0a000101 + i, 32), 0);
  ip("link del ib");
  ip("link add ib index 77 type ifb");
  ip("link set ib up");
  ip("addr add 10.0.0.2/24 dev ib");
  ipd_.signal(SIGCONT);
  expect_same_as_kernel();
  EXPECT_TRUE(wait_until([&] { return iod("ib") != 0 && iod("ib") != before; }));
  EXPECT_EQ(ip_is_address_on_interface(0x0a000001, before), 0u);
}

TEST_F(IpdKernelTest, AnIfindexThatIsUsedAgainIsANewInterface) {
  ip("link add ib index 77 type ifb");
  start_ipd();
  attach();
  const uint32_t before = iod("ib");
  ASSERT_NE(before, 0u);
  ip("link del ib");
  ip("link add ib index 77 type ifb");
  EXPECT_TRUE(wait_until([&] { return iod("ib") != 0 && iod("ib") != before; }));
  expect_same_as_kernel();
}

TEST_F(IpdKernelTest, ARenamedInterfaceKeepsItsIod) {
  ip("link add ib type ifb");
  ip("addr add 10.0.0.1/24 dev ib");
  start_ipd();
  attach();
  const uint32_t before = iod("ib");
  ASSERT_NE(before, 0u);
  ip("link set ib name other");
  expect_same_as_kernel();
  EXPECT_EQ(iod("other"), before);
  EXPECT_STREQ(im_get_if_name(before), "other");
}

// A device that exists only as long as a program holds it open.
TEST_F(IpdKernelTest, FollowsADeviceThatGoesWithItsProgram) {
  start_ipd();
  attach();
  const int tap = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (tap < 0) {
    // Without the device there is a veth pair to do the same with.
    ip("link add tap9 type veth peer name tap8");
    ip("addr add 10.8.0.1/24 dev tap9");
    expect_same_as_kernel();
    ip("link del tap9");
  } else {
    ifreq request{};
    std::strncpy(request.ifr_name, "tap9", IFNAMSIZ - 1);
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    ASSERT_EQ(ioctl(tap, TUNSETIFF, &request), 0);
    ip("addr add 10.8.0.1/24 dev tap9");
    expect_same_as_kernel();
    EXPECT_NE(test_support::published_picture().find("10.8.0.1/24"), std::string::npos);
    close(tap);
  }
  expect_same_as_kernel();
  EXPECT_EQ(test_support::published_picture().find("10.8.0.1/24"), std::string::npos);
}

// Any sequence of changes, compared now and then.
TEST_F(IpdKernelTest, RandomChangesLeadToTheKernelsPicture) {
  std::mt19937 random(20240607);
  ip("link add ia type ifb");
  ip("link add ib type ifb");
  ip("link set ia up");
  ip("link set ib up");
  set_sysctl("conf/ia/promote_secondaries", "1");
  start_ipd();
  attach();
  test_support::AddressChanger changer;
  const int interfaces[] = {ifindex("ia"), ifindex("ib"), ifindex("lo")};
  for (int round = 0; round < 20; ++round) {
    for (int change = 0; change < 100; ++change) {
      const int index = interfaces[random() % 3];
      const auto addr = static_cast<uint32_t>(0x0a000001 + (random() % 4) * 256 + random() % 12);
      const uint8_t mask_len = random() % 4 == 0 ? 32 : 24;
      // Half of these meet an address that is there already, or is not: the kernel refuses, and nothing changes.
      (void)(random() % 2 == 0 ? changer.add(index, addr, mask_len) : changer.remove(index, addr, mask_len));
    }
    if (round % 5 == 4) {
      ip(random() % 2 == 0 ? "link set ib down" : "link set ib up");
      ip("link add tmp" + std::to_string(round) + " type ifb");
    }
    expect_same_as_kernel();
  }
}

}  // namespace
