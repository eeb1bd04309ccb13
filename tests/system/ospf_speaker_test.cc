// SPDX-License-Identifier: Apache-2.0
// examples/ospf_hello and FRR's ospfd reach 2-Way, which is as far as two routers go that are not to be designated.
#include <signal.h>

#include "packet_wire.h"
#include "speaker_test.h"

namespace {

using speaker_test::deadline;
using test_support::wait_until;

constexpr char neighbors[] = "show ip ospf neighbor json";
constexpr char us[] = R"("10.0.0.11")";

class OspfSpeakerTest : public speaker_test::SpeakerTest {
 protected:
  void start_router(int hello, int priority) {
    SpeakerTest::start_router("ospfd", "interface rb\n ip ospf area 0\n ip ospf hello-interval " +
                                           std::to_string(hello) + "\n ip ospf dead-interval 4\n ip ospf priority " +
                                           std::to_string(priority) + "\nrouter ospf\n ospf router-id 10.0.0.22\n");
  }
  void start_speaker() { SpeakerTest::start_speaker({OSPF_HELLO, "ra", "10.0.0.11", "1", "4"}); }
  bool router_is_two_way() {
    return router_shows(neighbors, us) && router_shows(neighbors, R"("nbrState":"2-Way\/DROther")");
  }

  // How many hellos the router has sent; -1 when it does not say.
  int hellos_of_the_router() {
    const std::string answer = router_->show("show ip ospf interface traffic json");
    const std::string key = R"("helloOut":)";
    const size_t at = answer.find(key);
    return at == std::string::npos ? -1 : std::stoi(answer.substr(at + key.size()));
  }
};

TEST_F(OspfSpeakerTest, ARouterAndItReachTwoWay) {
  start_router(1, 0);
  start_speaker();
  EXPECT_TRUE(router_is_two_way());
  EXPECT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: 2-Way\n"));
  EXPECT_EQ(stop_speaker(), 0) << speaker_.output();
  EXPECT_TRUE(router_shows_no(neighbors, us));
}

TEST_F(OspfSpeakerTest, ARouterThatHasForgottenItIsInInitUntilItHearsAgain) {
  start_router(1, 0);
  start_speaker();
  ASSERT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: 2-Way\n"));
  speaker_.signal(SIGSTOP);
  ASSERT_TRUE(router_shows_no(neighbors, us));
  const int before = hellos_of_the_router();
  ASSERT_GE(before, 0);
  ASSERT_TRUE(wait_until([&] { return hellos_of_the_router() > before + 1; }, deadline));
  speaker_.signal(SIGCONT);
  EXPECT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: Init\n"));
  EXPECT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: 2-Way\n", 2));
  EXPECT_TRUE(router_is_two_way());
}

TEST_F(OspfSpeakerTest, ARouterThatFallsSilentIsDown) {
  start_router(1, 0);
  start_speaker();
  ASSERT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: 2-Way\n"));
  router_->kill_now();
  EXPECT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: Down\n"));
}

TEST_F(OspfSpeakerTest, ItReachesTwoWayAgainWhenIpdIsStartedAgain) {
  start_router(1, 0);
  start_speaker();
  ASSERT_TRUE(router_is_two_way());
  ASSERT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: 2-Way\n"));
  ipd_.kill_now();
  ASSERT_TRUE(says("ipd is gone\n"));
  ASSERT_TRUE(router_shows_no(neighbors, us));
  ASSERT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: Down\n"));
  start_ipd();
  EXPECT_TRUE(says("ipd is back\n"));
  EXPECT_TRUE(router_is_two_way());
  EXPECT_TRUE(says("neighbor 10.0.0.22 at 10.0.0.2: 2-Way\n", 2));
}

TEST_F(OspfSpeakerTest, ARouterWithOtherIntervalsIsNoNeighbor) {
  start_router(2, 0);
  start_speaker();
  EXPECT_TRUE(says("no neighbor of ours: 10.0.0.2: its hello interval differs\n"));
  EXPECT_EQ(speaker_.output().find("neighbor 10.0.0.22"), std::string::npos) << speaker_.output();
}

// The router is designated as soon as it has waited for others to say that they are.
TEST_F(OspfSpeakerTest, ItsHellosAreGoodOnTheWireAndNameTheDesignatedRouter) {
  test_support::PacketWire wire(
      *peer_, "rb", "ospf.msg.hello and ip.src == 10.0.0.1",
      {"ip.dst", "ip.ttl", "ip.dsfield", "ip.checksum.status", "ospf.srcrouter", "ospf.hello.network_mask",
       "ospf.hello.router_priority", "ospf.hello.designated_router"});
  ASSERT_TRUE(wire.captures("10.0.0.2")) << wire.output();
  start_router(1, 1);
  start_speaker();
  std::vector<test_support::SeenPacket> packets;
  const bool named = wait_until(
      [&] {
        packets = wire.packets();
        return !packets.empty() && packets.back()["ospf.hello.designated_router"] == "10.0.0.2";
      },
      deadline);
  EXPECT_TRUE(named) << wire.output();
  for (auto packet : packets) {
    EXPECT_EQ(packet["ip.dst"], "224.0.0.5");
    EXPECT_EQ(packet["ip.ttl"], "1");
    EXPECT_EQ(packet["ip.dsfield"], "0xc0");
    EXPECT_EQ(packet["ip.checksum.status"], "1");
    EXPECT_EQ(packet["ospf.srcrouter"], "10.0.0.11");
    EXPECT_EQ(packet["ospf.hello.network_mask"], "255.255.255.0");
    EXPECT_EQ(packet["ospf.hello.router_priority"], "0");
  }
}

TEST_F(OspfSpeakerTest, ItSaysWhyItDoesNotStart) {
  std::string output;
  for (const std::vector<std::string> &words : {std::vector<std::string>{},
                                                {"--help"},
                                                {"ra", "10.0.0"},
                                                {"ra", "10.0.0.256"},
                                                {"ra", "10.0.0.1", "10", "4"}}) {
    std::vector<std::string> command{OSPF_HELLO};
    command.insert(command.end(), words.begin(), words.end());
    EXPECT_EQ(test_support::run(command, &output), 2) << output;
    EXPECT_NE(output.find("usage: ospf_hello INTERFACE ROUTER-ID"), std::string::npos) << output;
  }
  EXPECT_EQ(test_support::run({OSPF_HELLO, "nowhere", "10.0.0.11"}, &output), 1);
  EXPECT_NE(output.find("ospf_hello: ipd knows no such interface\n"), std::string::npos) << output;
  ipd_.kill_now();
  EXPECT_EQ(test_support::run({OSPF_HELLO, "ra", "10.0.0.11"}, &output), 1);
  EXPECT_NE(output.find("no ipd\n"), std::string::npos) << output;
}

}  // namespace
