// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/announcement.h"

#include <gtest/gtest.h>

#include "ipd/packet_kernel_fakes.h"

namespace {

using ipd::packet::Announcements;
using ipd::packet::MacAddress;

constexpr uint32_t eth0 = 2, tun0 = 3;  // ifindexes
constexpr MacAddress ours = {0x02, 0, 0, 0, 0, 0x2a};

class PacketAnnouncementTest : public testing::Test {
 protected:
  PacketAnnouncementTest() { links.addresses[eth0] = ours; }

  test_support::FakeLinks links;
  test_support::FakeFrames frames;
  Announcements announcements{links, frames};
};

// The fields of RFC 826, filled in as RFC 5227, 2.3 says.
TEST_F(PacketAnnouncementTest, IsAnArpRequestToEverybodyFromAndAboutTheAddress) {
  announcements.announce(eth0, 0x0a000064);
  const std::vector<uint8_t> expected = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0,
                                         0,    0x2a, 0x08, 0x06,                       // to everybody, from us: ARP
                                         0,    1,    0x08, 0,    6,    4,    0,    1,  // Ethernet, IPv4: a request
                                         0x02, 0,    0,    0,    0,    0x2a, 10,   0, 0, 100,   // whose address is here
                                         0,    0,    0,    0,    0,    0,    10,   0, 0, 100};  // and whose is wanted
  ASSERT_EQ(frames.sent.size(), 1u);
  EXPECT_EQ(frames.sent[0].first, eth0);
  std::vector<uint8_t> bytes;
  for (const std::byte byte : frames.sent[0].second) bytes.push_back(std::to_integer<uint8_t>(byte));
  EXPECT_EQ(bytes, expected);
}

TEST_F(PacketAnnouncementTest, ALinkWithoutEthernetAddressesGetsNone) {
  announcements.announce(tun0, 0x0a000064);
  EXPECT_TRUE(frames.sent.empty());
}

}  // namespace
