// SPDX-License-Identifier: Apache-2.0
// ipsh explain: each rule by which a route or a source address is chosen, in sentences and as facts.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ipsh_fixture.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

class IpshExplain : public IpshWithRoutes {
 protected:
  static json facts(const std::string &line) {
    std::vector<std::string> words = words_of("explain --json " + line);
    const Outcome outcome = ipsh(words);
    EXPECT_NE(outcome.out, "") << outcome.err;
    return json::parse(outcome.out);
  }
};

TEST_F(IpshExplain, ARecursiveRouteIsFollowedStepByStep) {
  const Outcome outcome = ipsh(words_of("explain 198.51.100.7"));
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "asked      198.51.100.7 in context default (table 254)\n"
            "address    It is no address of this system and on no attached subnet.\n"
            "route      In table 254 (default), 198.51.100.7 matches 198.51.100.0/24, static: 10.0.0.9 has to be found "
            "in table 254 (default).\n"
            "           In table 254 (default), 10.0.0.9 matches 10.0.0.0/24, attached: straight out of eth0.\n"
            "path       Packets leave by eth0 to the next hop 10.0.0.9.\n"
            "source     10.0.0.1: no subnet of eth0 holds the destination, so it is the primary address.\n"
            "multicast  Multicast traffic from it has to come in by eth0 from 10.0.0.7: the multicast static route "
            "198.51.100.0/24 says so.\n");
}

TEST_F(IpshExplain, ADestinationOnASubnetIsSpokenToFromThatSubnetsAddress) {
  const json about = facts("10.0.1.77");
  EXPECT_EQ(about["source"]["rule"], "longest-subnet");
  EXPECT_EQ(about["source"]["address"], "10.0.1.1");
  EXPECT_EQ(about["source"]["mask_len"], 24);
  EXPECT_EQ(about["facts"]["attached"]["interface"], "eth0");
  EXPECT_EQ(about["reverse_path"]["rule"], "attached");
  EXPECT_EQ(about["reverse_path"]["multicast_static"]["address"], "10.0.1.0");
  EXPECT_EQ(about["path"]["next_hop"], nullptr);
}

TEST_F(IpshExplain, ALeakedRouteTakesTheContextsOwnAddress) {
  const json about = facts("192.0.2.9");
  EXPECT_EQ(about["steps"].size(), 2u);
  EXPECT_EQ(about["path"]["table"], 100);
  EXPECT_EQ(about["path"]["interface"], "eth1");
  EXPECT_EQ(about["source"]["rule"], "leaked");
  EXPECT_EQ(about["source"]["address"], "10.0.0.1");
}

TEST_F(IpshExplain, AnUnnumberedInterfaceBorrowsItsLendersAddress) {
  const json about = facts("198.18.0.9");
  EXPECT_EQ(about["source"]["rule"], "borrowed");
  EXPECT_EQ(about["source"]["lender"], "eth0");
  EXPECT_EQ(about["source"]["address"], "10.0.0.1");
}

TEST_F(IpshExplain, ADroppedDestinationHasNoPathAndNoSource) {
  const Outcome outcome = ipsh(words_of("explain 203.0.113.9"));
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_NE(outcome.out.find("203.0.113.9 matches 203.0.113.0/24, static: packets are dropped.\n"), std::string::npos)
      << outcome.out;
  EXPECT_NE(outcome.out.find("path       It cannot be reached.\nsource     None: there is no path.\n"),
            std::string::npos)
      << outcome.out;
}

TEST_F(IpshExplain, AContextWithoutARouteSaysSo) {
  const json about = facts("203.0.113.9 --context red");
  EXPECT_EQ(about["context"], "red");
  EXPECT_EQ(about["steps"].size(), 0u);
  EXPECT_EQ(about["path"], nullptr);
  EXPECT_EQ(about["sentences"][1]["sentence"], "Table 100 (red) has no route for it.");
}

TEST_F(IpshExplain, AContextWithoutAnActiveAddressHasNoSourceForALeakedRoute) {
  ASSERT_TRUE(system_.routes->set(
      100, {.addr = 0x0a000000, .len = 24, .kind = rsw::RouteKind::static_, .next_hops = {{.table = 254}}}));
  ASSERT_TRUE(system_.routes->commit());
  const json about = facts("10.0.0.77 --context red");
  EXPECT_EQ(about["source"]["rule"], "leaked");
  EXPECT_EQ(about["source"]["address"], nullptr);
  EXPECT_EQ(about["path"]["interface"], "eth0");
}

TEST_F(IpshExplain, AnAddressOfTheSystemIsNamedWithItsInterface) {
  const json own = facts("10.0.0.1");
  EXPECT_EQ(own["facts"]["local"]["interface"], "eth0");
  EXPECT_EQ(own["facts"]["local"]["virtual"], false);
  EXPECT_EQ(own["steps"][0]["route"]["kind"], "local");
  const json standby = facts("10.0.0.100");
  EXPECT_EQ(standby["facts"]["local"]["virtual"], true);
  EXPECT_EQ(standby["facts"]["local"]["active"], false);
  EXPECT_EQ(standby["steps"][0]["route"]["kind"], "attached");  // the inactive local route gives way
}

TEST_F(IpshExplain, ABroadcastAddressNamesItsInterfaces) {
  const json about = facts("10.0.1.255");
  ASSERT_EQ(about["facts"]["broadcast_of"].size(), 1u);
  EXPECT_EQ(about["facts"]["broadcast_of"][0]["interface"], "eth0");
}

TEST_F(IpshExplain, AGroupHasNoSourceByRoute) {
  const json about = facts("224.0.0.5");
  EXPECT_EQ(about["facts"]["multicast"], true);
  EXPECT_EQ(about["source"]["rule"], "multicast-destination");
  EXPECT_EQ(about["source"]["address"], nullptr);
  EXPECT_EQ(about["reverse_path"]["rule"], "none");
}

TEST_F(IpshExplain, OneOfSeveralNextHopsIsTaken) {
  const json about = facts("198.51.101.7");
  const json &step = about["steps"][0];
  ASSERT_EQ(step["route"]["next_hops"].size(), 2u);
  const size_t taken = step["taken"];
  EXPECT_EQ(about["path"]["next_hop"], step["route"]["next_hops"][taken]["address"]);
}

}  // namespace
}  // namespace ipsh_test
