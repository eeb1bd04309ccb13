// SPDX-License-Identifier: Apache-2.0
// examples/pim_hello and FRR's pimd become neighbors, and stop being that.
#include <signal.h>

#include "packet_wire.h"
#include "speaker_test.h"

namespace {

using speaker_test::deadline;

constexpr char neighbors[] = "show ip pim neighbor json";
constexpr char us[] = R"("neighbor":"10.0.0.1")";

class PimSpeakerTest : public speaker_test::SpeakerTest {
 protected:
  void start_router() { SpeakerTest::start_router("pimd", "interface rb\n ip pim\n ip pim hello 1 4\n"); }
  void start_speaker(const std::string &period) { SpeakerTest::start_speaker({PIM_HELLO, "ra", period}); }
};

TEST_F(PimSpeakerTest, ARouterAndItAreNeighborsUntilItSaysGoodbye) {
  start_router();
  start_speaker("30");
  EXPECT_TRUE(router_shows(neighbors, us));
  EXPECT_TRUE(router_shows(neighbors, R"("holdTimeMax":105)"));
  EXPECT_TRUE(router_shows(neighbors, R"("drPriority":1)"));
  EXPECT_TRUE(says("neighbor 10.0.0.2 up: holdtime 4, DR priority 1, generation "));
  EXPECT_EQ(stop_speaker(), 0) << speaker_.output();
  // Long before its holdtime is over.
  EXPECT_TRUE(router_shows_no(neighbors, us));
}

TEST_F(PimSpeakerTest, ARouterThatFallsSilentIsANeighborNoMore) {
  start_router();
  start_speaker("1");
  ASSERT_TRUE(says("neighbor 10.0.0.2 up"));
  router_->kill_now();
  EXPECT_TRUE(says("neighbor 10.0.0.2 gone: silent for 4 s\n"));
  start_router();
  EXPECT_TRUE(says("neighbor 10.0.0.2 up", 2));
  EXPECT_TRUE(router_shows(neighbors, us));
}

TEST_F(PimSpeakerTest, ItIsANeighborAgainWhenIpdIsStartedAgain) {
  start_router();
  start_speaker("1");
  ASSERT_TRUE(router_shows(neighbors, us));
  ASSERT_TRUE(says("neighbor 10.0.0.2 up"));
  ipd_.kill_now();
  ASSERT_TRUE(says("ipd is gone\n"));
  ASSERT_TRUE(router_shows_no(neighbors, us));
  ASSERT_TRUE(says("neighbor 10.0.0.2 gone"));
  start_ipd();
  EXPECT_TRUE(says("ipd is back\n"));
  EXPECT_TRUE(router_shows(neighbors, us));
  EXPECT_TRUE(says("neighbor 10.0.0.2 up", 2));
}

TEST_F(PimSpeakerTest, AnInterfaceThatIsMadeAnewIsTheSameToIt) {
  start_router();
  start_speaker("1");
  ASSERT_TRUE(says("neighbor 10.0.0.2 up"));
  ip("link del ra");
  ASSERT_TRUE(says("neighbor 10.0.0.2 gone"));
  ASSERT_EQ(test_support::connect("ra", "10.0.0.1/24", *peer_, "rb", "10.0.0.2/24"), "");
  EXPECT_TRUE(router_shows(neighbors, us));
  EXPECT_TRUE(says("neighbor 10.0.0.2 up", 2));
}

TEST_F(PimSpeakerTest, ItsHellosAreGoodOnTheWireAndStayOnTheLink) {
  test_support::PacketWire wire(*peer_, "rb", "pim",
                                {"ip.src", "ip.dst", "ip.ttl", "ip.dsfield", "ip.checksum.status", "pim.cksum.status",
                                 "pim.type", "pim.holdtime"});
  ASSERT_TRUE(wire.captures("10.0.0.2")) << wire.output();
  start_speaker("2");
  const auto packets = wire.wait_for(2);
  ASSERT_GE(packets.size(), 2u) << wire.output();
  for (auto packet : packets) {
    EXPECT_EQ(packet["ip.src"], "10.0.0.1");
    EXPECT_EQ(packet["ip.dst"], "224.0.0.13");
    EXPECT_EQ(packet["ip.ttl"], "1");
    EXPECT_EQ(packet["ip.dsfield"], "0xc0");
    EXPECT_EQ(packet["ip.checksum.status"], "1");
    EXPECT_EQ(packet["pim.cksum.status"], "1");
    EXPECT_EQ(packet["pim.type"], "0");
    EXPECT_EQ(packet["pim.holdtime"], "7");
  }
}

TEST_F(PimSpeakerTest, ItSaysWhyItDoesNotStart) {
  std::string output;
  EXPECT_EQ(test_support::run({PIM_HELLO}, &output), 2);
  EXPECT_NE(output.find("usage: pim_hello INTERFACE"), std::string::npos) << output;
  EXPECT_EQ(test_support::run({PIM_HELLO, "--help"}, &output), 2);
  EXPECT_EQ(test_support::run({PIM_HELLO, "nowhere"}, &output), 1);
  EXPECT_NE(output.find("pim_hello: ipd knows no such interface\n"), std::string::npos) << output;
  start_speaker("30");
  ASSERT_TRUE(says("hello on ra every 30 s"));
  EXPECT_EQ(test_support::run({PIM_HELLO, "ra"}, &output), 1);
  EXPECT_NE(output.find("pim_hello: ipd refuses: "), std::string::npos) << output;
  EXPECT_EQ(stop_speaker(), 0);
  ipd_.kill_now();
  EXPECT_EQ(test_support::run({PIM_HELLO, "ra"}, &output), 1);
  EXPECT_NE(output.find("no ipd\n"), std::string::npos) << output;
}

}  // namespace
