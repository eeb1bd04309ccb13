// SPDX-License-Identifier: Apache-2.0
// Questions about ways to destinations, answered from the routes that ipd mirrors, beside the kernel's own answers.
#include <arpa/inet.h>

#include <fstream>
#include <random>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "ipd_fixture.h"
#include "route_agreement.h"
#include "support/kernel_routes.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::host_order;
using test_support::RouteAgreement;
using test_support::wait_until;

constexpr uint32_t default_context = 1;
constexpr uint32_t lab_context = 5;
constexpr uint32_t wan_context = 6;

// va 10.1.0.1/24 and 10.1.1.1/25, its other end vb 10.2.0.1/24.
class IpdRouteQueriesTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    ip("addr add 10.1.0.1/24 dev va");
    ip("addr add 10.1.1.1/25 dev va");
    ip("addr add 10.2.0.1/24 dev vb");
  }

  void batch(const std::string &lines) {
    const std::string file = run_directory_.path() + "/batch";
    std::ofstream(file) << lines;
    ip("-batch " + file);
  }

  struct Way {
    uint32_t iod = 0;
    std::string source;
    bool operator==(const Way &) const = default;
  };
  static void PrintTo(const Way &way, std::ostream *out) { *out << "iod " << way.iod << " source " << way.source; }

  static Way way(const std::string &dest, uint32_t context = default_context) {
    Way found;
    found.source = dotted(ip_get_route(context, htonl(host_order(dest)), &found.iod));
    return found;
  }
  static Way no_way() { return {0, "0.0.0.0"}; }

  // Destinations on and around the connected subnets, in 20.0.0.0/8, on the loopback and anywhere.
  std::vector<uint32_t> destinations(int count) {
    std::vector<uint32_t> out;
    for (int i = 0; i < count; ++i) {
      const auto any = static_cast<uint32_t>(random_());
      const uint32_t kind = static_cast<uint32_t>(random_()) % 8;
      const uint32_t subnets[] = {0x0a000000u + any % 0x800u, 0x0a010000u + any % 0x200u, 0x0a020000u + any % 0x140u};
      out.push_back(kind == 0   ? any
                    : kind == 1 ? 0x7f000000u + any % 0x200u
                    : kind < 5  ? subnets[kind - 2]
                                : 0x14000000u + any % 0x1000000u);
    }
    return out;
  }

  test_support::DestinationsSeen expect_agreement(const std::string &context = "default", uint32_t mark = 0) {
    constexpr int count = 4000;
    const auto result = RouteAgreement(context, mark).wait_for(destinations(count));
    EXPECT_EQ(result.differences, 0) << "of " << count << " in " << context << ", seed " << seed
                                     << ", the first: " << result.first;
    EXPECT_GT(result.seen.unicast, count / 20);
    return result.seen;
  }

  static constexpr uint32_t seed = 18081;
  std::mt19937 random_{seed};
};

constexpr char every_kind[] =
    "route add 20.0.0.0/10 via 10.1.0.2\n"
    "route add 20.16.0.0/12 via 10.2.0.2\n"
    "route add 20.17.0.0/16 nexthop via 10.1.0.3 weight 3 nexthop via 10.2.0.3\n"
    "route add 20.18.0.0/16 nexthop dev va nexthop via 10.2.0.4\n"
    "route add 20.19.0.0/16 dev vb\n"
    "route add 20.20.0.0/16 via 192.168.9.9 dev va onlink\n"
    "route add 20.21.0.0/16 via 10.1.0.9 metric 10\n"
    "route add 20.21.0.0/16 via 10.2.0.9 metric 5\n"
    "route add unreachable 20.22.0.0/16\n"
    "route add blackhole 20.23.0.0/16\n"
    "route add prohibit 20.24.0.0/16\n"
    "route add 20.22.7.0/24 via 10.1.0.2\n"
    "route add throw 20.25.0.0/16\n"
    "route add unreachable 20.64.0.0/10\n"
    "route add 20.64.1.1/32 via 10.2.0.7\n"
    "nexthop add id 1 via 10.1.0.5 dev va\n"
    "nexthop add id 2 via 10.2.0.5 dev vb\n"
    "nexthop add id 3 group 1/2,2\n"
    "nexthop add id 4 blackhole\n"
    "route add 20.128.0.0/10 nhid 3\n"
    "route add 20.160.0.0/12 nhid 1\n"
    "route add 20.176.0.0/12 nhid 4\n";

TEST_F(IpdRouteQueriesTest, EveryKindOfRouteLeadsWhereTheKernelWouldSendIt) {
  start_ipd();
  attach();
  batch(every_kind);
  const auto seen = expect_agreement();
  EXPECT_GT(seen.multipath, 50);
  EXPECT_GT(seen.none, 50);
  EXPECT_GT(seen.local, 50);
  EXPECT_EQ(way("20.64.1.1"), (Way{iod("vb"), "10.2.0.1"})) << "one host in a net that is refused";
  EXPECT_EQ(way("20.64.1.2"), no_way());
  // Everything changes its way at once.
  batch(
      "nexthop replace id 1 via 10.2.0.6 dev vb\n"
      "route replace 20.0.0.0/10 via 10.2.0.2\n"
      "route del 20.21.0.0/16 via 10.2.0.9 metric 5\n"
      "route del unreachable 20.22.0.0/16\n");
  expect_agreement();
  EXPECT_TRUE(wait_until([] { return way("20.160.0.1") == Way{iod("vb"), "10.2.0.1"}; }));
}

TEST_F(IpdRouteQueriesTest, WhatIsThereWhenIpdStartsIsThereForItsClients) {
  batch(every_kind);
  start_ipd();
  attach();
  expect_agreement();
}

TEST_F(IpdRouteQueriesTest, ADefaultRouteTakesWhatNothingElseDoes) {
  start_ipd();
  attach();
  batch("route add default via 10.1.0.2\n");
  EXPECT_TRUE(wait_until([] { return way("8.8.8.8") == Way{iod("va"), "10.1.0.1"}; }));
  EXPECT_EQ(expect_agreement().none > 0, true) << "multicast is never routed so";
  batch("route replace default via 10.2.0.2\n");
  EXPECT_TRUE(wait_until([] { return way("8.8.8.8") == Way{iod("vb"), "10.2.0.1"}; }));
  batch("route del default\n");
  EXPECT_TRUE(wait_until([] { return way("8.8.8.8") == no_way(); }));
}

TEST_F(IpdRouteQueriesTest, PointToPointPeersAreDirectWithoutASubnet) {
  batch(
      "addr add 10.0.3.0/31 dev va\n"
      "addr add 10.0.4.7/32 dev vb\n"
      "addr add 10.0.5.1 peer 10.0.5.2/32 dev va\n"
      "addr add 10.0.6.1 peer 10.0.7.0/31 dev vb\n");
  start_ipd();
  attach();
  expect_agreement();
  const uint32_t va = iod("va");
  const uint32_t vb = iod("vb");
  EXPECT_EQ(way("10.0.5.2"), (Way{va, "10.1.0.1"})) << "an address with a peer has no subnet to be chosen for";
  EXPECT_EQ(ip_is_addr_attached("default", host_order("10.0.3.1")), va) << "both hosts of a /31 are on it";
  EXPECT_EQ(ip_get_iod_for_subnet("default", host_order("10.0.3.0"), 31), va);
  EXPECT_EQ(ip_get_iod_from_addr("default", host_order("10.0.4.7")), vb) << "an own address is direct";
  EXPECT_EQ(ip_is_addr_attached("default", host_order("10.0.4.7")), 0u) << "but on no subnet";
  EXPECT_EQ(ip_get_iod_for_address("default", host_order("10.0.4.7")), vb);
  EXPECT_EQ(ip_is_route_direct("default", host_order("10.0.5.2")), va) << "a peer";
  EXPECT_EQ(ip_is_addr_attached("default", host_order("10.0.5.2")), 0u);
  EXPECT_EQ(ip_is_route_direct("default", host_order("10.0.7.1")), vb) << "a peer's subnet";
  EXPECT_EQ(ip_is_addr_on_iod(nullptr, host_order("10.0.7.1"), vb), 1u);
  EXPECT_EQ(ip_is_addr_on_iod(nullptr, host_order("10.0.7.1"), va), 0u);
}

TEST_F(IpdRouteQueriesTest, RoutesGoAndComeWithTheirInterface) {
  batch(every_kind);
  start_ipd();
  attach();
  expect_agreement();
  ip("link set va down");
  EXPECT_TRUE(wait_until([] { return ip_is_addr_attached("default", host_order("10.1.0.2")) == 0; }));
  expect_agreement();
  EXPECT_EQ(ip_get_iod_for_subnet("default", host_order("10.1.0.0"), 24), 0u);
  EXPECT_EQ(ip_is_addr_local_in_urib("default", host_order("10.1.0.1")), iod("va")) << "its own address stays local";
  ip("link set va up");
  EXPECT_TRUE(wait_until([] { return ip_is_addr_attached("default", host_order("10.1.0.2")) == iod("va"); }));
  // The kernel brought back the connected routes only.
  EXPECT_EQ(way("20.0.0.1"), no_way());
  expect_agreement();
  ip("route add 20.0.0.0/10 via 10.1.0.2");
  EXPECT_TRUE(wait_until([] { return way("20.0.0.1") == Way{iod("va"), "10.1.0.1"}; }));
}

// The kernel goes on to use a device that has lost its carrier, as it does by default, and so do its clients.
TEST_F(IpdRouteQueriesTest, ALostCarrierTakesNoRouteAway) {
  start_ipd();
  attach();
  batch("route add 20.0.0.0/10 via 10.1.0.2\n");
  EXPECT_TRUE(wait_until([] { return way("20.0.0.1").iod == iod("va"); }));
  ip("link set vb down");
  EXPECT_TRUE(wait_until([] { return ip_is_addr_attached("default", host_order("10.2.0.9")) == 0; }));
  EXPECT_EQ(way("20.0.0.1"), (Way{iod("va"), "10.1.0.1"}));
  expect_agreement();
}

// Contexts by interface pattern, each with a table; rules lead packets with a mark to the same tables.
class IpdContextRoutesTest : public IpdRouteQueriesTest {
 protected:
  void SetUp() override {
    IpdRouteQueriesTest::SetUp();
    batch(
        "link add name hub type bridge\nlink set hub up\n"
        "link add link hub name lab1 type macvlan mode bridge\nlink set lab1 up\n"
        "link add link hub name wan0 type macvlan mode bridge\nlink set wan0 up\n"
        "addr add 10.0.16.1/24 dev lab1\naddr add 10.0.17.1/24 dev wan0\n"
        "rule add pref 10 fwmark 1005 lookup 1005\nrule add pref 11 fwmark 1005 unreachable\n"
        "rule add pref 12 fwmark 1006 lookup 1006\nrule add pref 13 fwmark 1006 unreachable\n"
        // What the kernel would not find by itself in a table that it does not know to be theirs.
        "route add 10.0.16.0/24 dev lab1 proto kernel scope link src 10.0.16.1 table 1005\n"
        "route add 10.0.17.0/24 dev wan0 proto kernel scope link src 10.0.17.1 table 1006\n"
        "route add 20.0.0.0/8 via 10.0.16.2 table 1005\n"
        "route add unreachable 20.32.0.0/11 table 1005\n"
        "route add 20.0.0.0/8 via 10.0.17.2 table 1006\n"
        "route add 20.64.0.0/10 via 10.0.17.3 table 1006\n");
  }

  void start(const std::string &more = "", const std::string &lab = "lab*", const std::string &wan = "wan0") {
    configure(more, lab, wan);
    start_ipd({"--config", configuration_file()});
    attach();
  }

  void configure(const std::string &more, const std::string &lab, const std::string &wan) {
    write_configuration(R"({"contexts": [{"name": "lab", "id": 5, "table": 1005, "interfaces": [")" + lab +
                        R"("]}, {"name": "wan", "id": 6, "table": 1006, "interfaces": [")" + wan + R"("]}])" + more +
                        "}");
  }

  // Own addresses of other contexts are left out: the kernel has them all in one table, which it asks first.
  void expect_agreement_in(const std::string &context, uint32_t mark, const std::string &own_net) {
    std::vector<uint32_t> questions;
    for (int i = 0; i < 2000; ++i) {
      const auto any = static_cast<uint32_t>(random_());
      questions.push_back(i % 4 == 0 ? host_order(own_net) + any % 255 : 0x14000000u + any % 0x1000000u);
    }
    const auto result = RouteAgreement(context, mark).wait_for(questions);
    EXPECT_EQ(result.differences, 0) << context << ", the first: " << result.first;
    EXPECT_GT(result.seen.unicast, 500);
    EXPECT_GT(result.seen.local, 0);
  }
};

TEST_F(IpdContextRoutesTest, EachContextAsksItsOwnTable) {
  start();
  expect_agreement_in("lab", 1005, "10.0.16.0");
  expect_agreement_in("wan", 1006, "10.0.17.0");
  EXPECT_EQ(way("20.1.0.1", lab_context), (Way{iod("lab1"), "10.0.16.1"}));
  EXPECT_EQ(way("20.1.0.1", wan_context), (Way{iod("wan0"), "10.0.17.1"}));
  EXPECT_EQ(way("20.1.0.1"), no_way());
  EXPECT_EQ(way("20.33.0.1", lab_context), no_way());
  EXPECT_EQ(ip_is_addr_attached("lab", host_order("10.0.16.9")), iod("lab1"));
  EXPECT_EQ(ip_is_addr_attached("wan", host_order("10.0.16.9")), 0u);
  EXPECT_EQ(ip_is_addr_local_in_urib("lab", host_order("10.0.16.1")), iod("lab1"));
  EXPECT_EQ(ip_is_addr_local_in_urib("wan", host_order("10.0.16.1")), 0u);
}

TEST_F(IpdContextRoutesTest, AnInterfaceTakesItsConnectedRoutesAlongToAnotherContext) {
  start();
  EXPECT_TRUE(wait_until([] { return ip_is_addr_local_in_urib("lab", host_order("10.0.16.1")) == iod("lab1"); }));
  for (int round = 0; round < 3; ++round) {
    configure("", "nothing", "*[0-9]");
    ipd_.signal(SIGHUP);
    EXPECT_TRUE(wait_until([] {
      return ip_is_addr_local_in_urib("wan", host_order("10.0.16.1")) == iod("lab1") &&
             ip_is_addr_attached("wan", host_order("10.0.16.9")) == iod("lab1") &&
             ip_is_addr_local_in_urib("lab", host_order("10.0.16.1")) == 0;
    }));
    EXPECT_EQ(ip_is_addr_on_iod(nullptr, host_order("10.0.16.9"), iod("lab1")), 1u);
    configure("", "lab*", "wan0");
    ipd_.signal(SIGHUP);
    EXPECT_TRUE(wait_until([] {
      return ip_is_addr_local_in_urib("lab", host_order("10.0.16.1")) == iod("lab1") &&
             ip_is_addr_local_in_urib("wan", host_order("10.0.16.1")) == 0 &&
             ip_is_addr_attached("wan", host_order("10.0.16.9")) == 0;
    }));
  }
  expect_agreement_in("lab", 1005, "10.0.16.0");
  expect_agreement_in("wan", 1006, "10.0.17.0");
}

// A packet by a leaked route leaves by the other context's interface, with an address of the own one.
TEST_F(IpdContextRoutesTest, ALeakedRouteLeadsThroughTheOtherContext) {
  const std::string leak = R"(, "leaks": [{"prefix": "20.0.0.0/8", "from": "lab", "to": "wan"},
                                          {"prefix": "20.64.0.0/10", "from": "wan", "to": "default"}])";
  batch("route del 20.0.0.0/8 table 1006\n");
  start(leak);
  EXPECT_TRUE(wait_until([] { return way("20.1.0.1", wan_context) == Way{iod("lab1"), "10.0.17.1"}; }));
  EXPECT_TRUE(wait_until([] { return way("20.65.0.1") == Way{iod("wan0"), "10.1.0.1"}; }));
  EXPECT_EQ(way("20.65.0.1", wan_context), (Way{iod("wan0"), "10.0.17.1"})) << "its own one is longer";
  EXPECT_EQ(way("20.33.0.1", wan_context), no_way()) << "refused in the table that it was leaked from";
  EXPECT_EQ(way("20.1.0.1"), no_way());
  // The leaked route goes with the route that it stands for.
  batch("route del 20.0.0.0/8 table 1005\n");
  EXPECT_TRUE(wait_until([] { return way("20.1.0.1", wan_context) == no_way(); }));
}

TEST_F(IpdContextRoutesTest, MulticastStaticRoutesNameTheNeighbourOfASource) {
  start(R"(, "multicast_routes": [{"prefix": "20.0.0.0/8", "context": "lab",
                                   "next_hops": [{"interface": "lab1", "address": "10.0.16.7"}]},
                                  {"prefix": "10.0.16.0/25", "context": "lab",
                                   "next_hops": [{"interface": "lab1", "address": "10.0.16.8"}]}])");
  const uint32_t source = host_order("20.1.0.1");
  // This question starts the route tables' client, which the multicast ones count on.
  EXPECT_TRUE(wait_until([] { return way("20.1.0.1", lab_context) == Way{iod("lab1"), "10.0.16.1"}; }));
  EXPECT_TRUE(wait_until([&] { return dotted(ip_get_mstatic_rpf("lab", source, 0)) == "10.0.16.7"; }));
  EXPECT_EQ(ip_is_addr_mattached("lab", source, 0), iod("lab1"));
  EXPECT_EQ(ip_get_mstatic_rpf("wan", source, 0), 0u);
  // A source that is connected needs none, whatever the configuration says.
  const uint32_t connected = host_order("10.0.16.20");
  EXPECT_EQ(ip_get_mstatic_rpf("lab", connected, 0), 0u);
  EXPECT_EQ(dotted(ip_get_mstatic_rpf_no_mpath("lab", connected, 0)), "10.0.16.8");
  EXPECT_EQ(ip_is_addr_mattached("lab", connected, 0), iod("lab1"));
  EXPECT_EQ(way("20.1.0.1", lab_context), (Way{iod("lab1"), "10.0.16.1"})) << "unicast as before";
  configure("", "lab*", "wan0");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([&] { return ip_get_mstatic_rpf("lab", source, 0) == 0; }));
}

}  // namespace
