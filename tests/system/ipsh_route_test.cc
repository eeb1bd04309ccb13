// SPDX-License-Identifier: Apache-2.0
// What ipsh says about routes: the listing, the queries that routes answer, virtual addresses by their routes.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "ipsh_asked.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

class IpshRouteQuery : public IpshWithRoutes, public ::testing::WithParamInterface<Asked> {};
TEST_P(IpshRouteQuery, AnswersFromTheRouteTables) {
  expect_answer(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    OfRoutes, IpshRouteQuery,
    ::testing::Values(Asked{"ip_is_route_direct --name default --addr 10.0.0.77", "2 (eth0)", 0},
                      Asked{"ip_is_route_direct --name default --addr 198.51.100.7", "0", 1},
                      Asked{"ip_get_iod_from_addr --name default --addr 10.0.0.1", "2 (eth0)", 0},
                      Asked{"ip_is_addr_attached --name default --addr 10.0.0.77", "2 (eth0)", 0},
                      Asked{"ip_is_addr_attached --name default --addr 10.0.0.1", "0", 1},
                      Asked{"ip_is_addr_on_iod --addr 10.0.0.77 --iod eth0", "1", 0},
                      Asked{"ip_is_addr_on_iod --addr 10.0.0.77 --iod lo", "0", 1},
                      Asked{"ip_is_addr_local_in_urib --name default --addr 127.0.0.1", "1 (lo)", 0},
                      Asked{"ip_is_addr_local_in_urib --name default --addr 10.0.0.77", "0", 1},
                      Asked{"ip_get_iod_for_address --name red --addr 192.0.2.1", "3 (eth1)", 0},
                      Asked{"ip_get_iod_for_subnet --name default --addr 10.0.0.0 --len 24", "2 (eth0)", 0},
                      Asked{"ip_get_iod_for_subnet --name default --addr 10.0.0.0 --len 25", "0", 1},
                      Asked{"ip_get_route --context-id default --dest-net 10.0.1.77", "10.0.1.1", 0, "iod=2 (eth0)"},
                      Asked{"ip_get_route --context-id default --dest-net 198.51.100.7", "10.0.0.1", 0, "iod=2 (eth0)"},
                      Asked{"ip_get_route --context-id default --dest-net 192.0.2.9", "10.0.0.1", 0, "iod=3 (eth1)"},
                      Asked{"ip_get_route --context-id default --dest-net 198.18.0.9", "10.0.0.1", 0, "iod=4 (tun0)"},
                      Asked{"ip_get_route --context-id default --dest-net 203.0.113.9", "0.0.0.0", 1, "iod=0"},
                      Asked{"ip_local_from_remote --context-id default --remote-net 10.0.1.77", "10.0.1.1", 0, ""},
                      Asked{"ip_local_from_remote --context-id default --remote-net 127.0.0.1", "127.0.0.1", 0, ""},
                      Asked{"ip_local_from_remote --context-id default --remote-net 203.0.113.9", "0.0.0.0", 1, ""},
                      Asked{"ip_packet_stats_type --addr 10.0.0.77 --iod eth0", "0", 1, ""},
                      Asked{"ip_packet_stats_type --addr 224.0.0.5 --iod eth0", "1", 0, ""},
                      Asked{"ip_packet_stats_type --addr 255.255.255.255 --iod eth0", "2", 0, ""},
                      Asked{"ip_is_addr_mattached --name default --addr 10.0.0.77", "2 (eth0)", 0},
                      Asked{"ip_is_addr_mattached --name default --addr 198.51.100.7", "2 (eth0)", 0},
                      Asked{"ip_is_addr_mattached --name default --addr 203.0.113.9 --selector 3", "0", 1},
                      Asked{"ip_get_mstatic_rpf --name default --addr 198.51.100.7", "10.0.0.7", 0},
                      Asked{"ip_get_mstatic_rpf --name default --addr 10.0.1.77", "0.0.0.0", 1},
                      Asked{"ip_get_mstatic_rpf_no_mpath --name default --addr 10.0.1.77", "10.0.0.7", 0},
                      Asked{"ip_urib_is_addr_active_local --table-id default --addr 127.0.0.1", "1", 0},
                      Asked{"ip_urib_is_addr_active_local --table-id default --addr 10.0.0.100", "0", 1},
                      Asked{"ip_is_addr_local_active --name default --addr 10.0.0.100", "0", 1},
                      Asked{"ip_get_active_local_address --context-id default", "10.0.0.1", 0}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

TEST_F(IpshWithRoutes, RoutesAreATable) {
  const Outcome outcome = ipsh({"show", "routes"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "TABLE  PREFIX           KIND      ACTION     PROTOCOL  METRIC  KERNEL-TABLE  NEXT-HOPS\n"
            "  100  192.0.2.0/25     attached  -          kernel         0           254  on eth1\n"
            "  100  192.0.2.1/32     local     -          kernel         0           255  on eth1\n"
            "  254  0.0.0.0/0        other     -          dhcp         100           254  10.0.0.254 on eth0\n"
            "  254  10.0.0.0/24      attached  -          kernel         0           254  on eth0\n"
            "  254  10.0.0.1/32      local     -          kernel         0           255  on eth0\n"
            "  254  10.0.0.2/32      local     -          kernel         0           255  on eth0\n"
            "  254  10.0.0.100/32    local     -          -              0             -  on eth0 inactive\n"
            "  254  10.0.1.0/24      attached  -          kernel         0           254  on eth0\n"
            "  254  10.0.1.1/32      local     -          kernel         0           255  on eth0\n"
            "  254  127.0.0.1/32     local     -          kernel         0           255  on lo\n"
            "  254  192.0.2.0/25     static    -          -              0             -  in table 100\n"
            "  254  198.18.0.0/15    static    -          static         0           254  on tun0\n"
            "  254  198.51.100.0/24  static    -          static         0           254  10.0.0.9\n"
            "  254  198.51.101.0/24  other     -          bgp            0           254  10.0.0.9 on eth0, "
            "10.0.1.9 on eth0 weight 3\n"
            "  254  203.0.113.0/24   static    blackhole  static         0           254  -\n");
}

TEST_F(IpshWithRoutes, RoutesAreRestrictedByTableContextInterfaceAndView) {
  const auto prefixes = [](const std::string &options) {
    std::vector<std::string> words = words_of("show routes --json " + options);
    std::string text;
    const json listing = json::parse(ipsh(words).out);
    for (const json &route : listing["routes"]) {
      text += route["address"].get<std::string>() + " ";
    }
    return text;
  };
  EXPECT_EQ(prefixes("--table 100"), "192.0.2.0 192.0.2.1 ");
  EXPECT_EQ(prefixes("--context red"), "192.0.2.0 192.0.2.1 ");
  EXPECT_EQ(prefixes("--interface tun0"), "198.18.0.0 ");
  EXPECT_EQ(prefixes("--view multicast"), "10.0.1.0 198.51.100.0 ");
  EXPECT_EQ(prefixes("--table 77"), "");
  EXPECT_EQ(ipsh(words_of("show routes --table 77")).exit_code, 1);
  EXPECT_EQ(ipsh(words_of("show routes --table red --context red")).exit_code, 2);
  EXPECT_EQ(ipsh(words_of("show routes --view any")).err,
            "ipsh: --view: 'any' is not accepted here; give unicast or multicast\n");
}

TEST_F(IpshWithRoutes, ALimitLeavesRoutesOutAndSaysHowMany) {
  const Outcome outcome = ipsh(words_of("show routes --limit 2"));
  EXPECT_EQ(outcome.err, "ipsh: 2 of 15 routes are shown\n");
  const json listing = json::parse(ipsh(words_of("show routes --limit 2 --json")).out);
  EXPECT_EQ(listing["routes"].size(), 2u);
  EXPECT_EQ(listing["left_out"], 13);
}

TEST_F(IpshWithSystem, WithoutRouteTablesThereIsNothingToListAndNothingToExplain) {
  for (const char *line : {"show routes", "explain 10.0.0.1"}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 3) << line;
    EXPECT_NE(outcome.err.find("ipd has published no route tables"), std::string::npos) << outcome.err;
  }
}

TEST_F(IpshWithRoutes, AVirtualAddressIsActiveWhileItsRouteIsLive) {
  EXPECT_EQ(ipsh({"show", "vips"}).out,
            "ADDRESS     STATE     INTERFACE  IOD  CONTEXT  TABLE\n"
            "10.0.0.100  inactive  eth0         2  default    254\n");
  ASSERT_TRUE(system_.routes->set(
      254, {.addr = 0x0a000064, .len = 32, .kind = rsw::RouteKind::local, .next_hops = {{.iod = 2}}}));
  ASSERT_TRUE(system_.routes->commit());
  const json vips = json::parse(ipsh({"show", "vips", "--json"}).out)["vips"];
  ASSERT_EQ(vips.size(), 1u);
  EXPECT_EQ(vips[0]["active"], true);
  EXPECT_EQ(ipsh(words_of("show vips --interface lo")).exit_code, 1);
}

TEST_F(IpshWithSystem, RouterIdsAreATableWithTheirInterfaces) {
  EXPECT_EQ(ipsh({"show", "router-id"}).out,
            "CONTEXT  ROUTER-ID  INTERFACE  IOD\n"
            "default  10.0.1.1   eth0         2\n"
            "red      192.0.2.1  eth1         3\n");
  EXPECT_EQ(json::parse(ipsh(words_of("show router-id --context red --json")).out)["router_ids"].size(), 1u);
}

// Each route of a large table is a row, and all of them come.
TEST_F(IpshWithRoutes, ALongTableIsListedWhole) {
  constexpr uint32_t count = 50000;
  std::vector<rsw::Route> many;
  for (uint32_t i = 0; i < count; ++i) {
    many.push_back({.addr = 0x14000000 + (i << 8), .len = 24, .next_hops = {{.iod = 2, .addr = 0x0a000009}}});
  }
  ASSERT_TRUE(system_.routes->load(100, many)) << system_.routes->last_error();
  ASSERT_TRUE(system_.routes->commit());
  const Outcome table = ipsh(words_of("show routes --table 100"));
  EXPECT_EQ(std::ranges::count(table.out, '\n'), count + 1);
  const json listing = json::parse(ipsh(words_of("show routes --table 100 --json")).out);
  ASSERT_EQ(listing["routes"].size(), count);
  EXPECT_EQ(listing["routes"][count - 1]["address"], "20.195.79.0");
}

}  // namespace
}  // namespace ipsh_test
