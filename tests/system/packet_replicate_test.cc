// SPDX-License-Identifier: Apache-2.0
// Copies of a multicast packet on exactly the links that are to have them, with a neighbour's tshark on each.
#include <array>
#include <memory>

#include "ipd_fixture.h"
#include "kernel_memberships.h"
#include "packet_wire.h"
#include "reception_rig.h"
#include "support/peer_namespace.h"

namespace {

using namespace ipd_test;
using namespace reception_rig;
using test_support::PacketWire;
using test_support::PeerNamespace;

constexpr size_t links = 3;
constexpr uint8_t experimental = 253;  // RFC 3692
constexpr uint32_t far_source = 0xc0000201;

class PacketReplicateTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    for (size_t i = 0; i < links; ++i) {
      const std::string number = std::to_string(i);
      const std::string net = "10.0." + number + ".";
      ASSERT_EQ(test_support::connect("v" + number, net + "1/24", peers_[i], "p" + number, net + "2/24"), "");
    }
    start_ipd();
    attach();
    expect_same_as_kernel();
    for (size_t i = 0; i < links; ++i) {
      const std::string number = std::to_string(i);
      wires_[i] = std::make_unique<PacketWire>(peers_[i], "p" + number, "ip.proto == 253",
                                               std::vector<std::string>{"ip.src", "ip.dst", "ip.ttl", "data.data"});
      ASSERT_TRUE(wires_[i]->captures("10.0." + number + ".2")) << wires_[i]->output();
    }
  }

  // What a link has seen, by the packets' numbers and TTLs, up to the last packet, which goes to all of them.
  std::vector<std::string> seen(size_t link, uint32_t last) {
    const std::string end = hex(payload(last));
    std::vector<std::string> all;
    EXPECT_TRUE(wait_until(
        [&] {
          all.clear();
          for (auto &packet : wires_[link]->packets()) all.push_back(packet["data.data"] + " ttl " + packet["ip.ttl"]);
          return !all.empty() && all.back().starts_with(end);
        },
        deadline))
        << wires_[link]->output();
    if (!all.empty()) all.pop_back();
    return all;
  }
  // Requests and packets have queues of their own: what was joined first need not be known first.
  static bool joined(const std::string &link, uint32_t group) {
    return wait_until([&] { return test_support::kernel_groups(link).contains(group); }, deadline);
  }
  static std::string packet(uint32_t number, uint32_t destination = stream, uint8_t ttl = 5) {
    return packet_of({.source = far_source, .destination = destination, .protocol = experimental, .ttl = ttl},
                     payload(number));
  }
  static std::string copy(uint32_t number, const std::string &ttl = "5") {
    return hex(payload(number)) + " ttl " + ttl;
  }

  std::array<PeerNamespace, links> peers_;
  std::array<std::unique_ptr<PacketWire>, links> wires_;
};

TEST_F(PacketReplicateTest, ACopyGoesToEachLinkThatJoinedButTheOneItCameFrom) {
  constexpr uint32_t last_group = 0xef0a0a0a, last = 99;
  Client member({"register",     "member",     "253",     "join",         "239.1.2.3",    "v0",     "join",
                 "239.1.2.3",    "v1",         "channel", "239.9.9.9",    "192.0.2.1",    "v2",     "channel",
                 "239.8.8.8",    "192.0.2.77", "v2",      "join",         "239.10.10.10", "v0",     "join",
                 "239.10.10.10", "v1",         "join",    "239.10.10.10", "v2",           "receive"});
  ASSERT_TRUE(member.receives() && joined("v2", last_group)) << member.output();
  // Its queue for packets is the one that it registers with.
  Client router({"register",  "router",
                 "0",         "packet",
                 packet(1),   "replicate",
                 "v0",
                 "0",  // v1 alone
                 "packet",    packet(2, stream, 1),
                 "replicate", "v2",
                 "1",  // v0, v1, and locally
                 "packet",    packet(3, 0xef090909),
                 "replicate", "v0",
                 "0",  // v2, from that source
                 "packet",    packet(4, 0xef080808),
                 "replicate", "v0",
                 "0",  // nobody, from that source
                 "packet",    packet(5, 0xe00000fb),
                 "replicate", "v0",
                 "0",  // stays on its link
                 "packet",    packet(last, last_group),
                 "replicate", "lo",
                 "1",         "wait"});
  ASSERT_TRUE(router.says("waits 1\n")) << router.output();
  EXPECT_EQ(seen(0, last), (Words{copy(2, "1")})) << ipd_.output();
  EXPECT_EQ(seen(1, last), (Words{copy(1), copy(2, "1")}));
  EXPECT_EQ(seen(2, last), (Words{copy(3)}));
}

TEST_F(PacketReplicateTest, ALocalCopyGoesToThisSystemsMembers) {
  Client member({"register", "member", "253", "join", "239.1.2.3", "v0", "receive"});
  ASSERT_TRUE(member.receives() && joined("v0", stream)) << member.output();
  // Its queue for packets is the one that it registers with.
  Client router({"register", "router", "0", "packet", packet(1), "replicate", "v0", "0", "packet", packet(2),
                 "replicate", "v0", "1", "wait"});
  ASSERT_TRUE(router.says("waits 1\n")) << router.output();
  ASSERT_TRUE(member.gets(2)) << member.output() << ipd_.output();
  EXPECT_FALSE(member.has(1)) << "nobody asked for that copy: " << member.output();
}

}  // namespace
