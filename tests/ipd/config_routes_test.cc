// SPDX-License-Identifier: Apache-2.0
// Multicast static routes and leaks in the configuration file.
#include <gtest/gtest.h>

#include "ipd/config.h"

namespace {

using namespace ipd;

std::optional<Configuration> read(const std::string &json, std::string *reason) {
  return parse_configuration(json, "f", reason);
}

std::string refusal(const std::string &json) {
  std::string reason;
  EXPECT_FALSE(read(json, &reason)) << json;
  return reason;
}

TEST(ConfigRoutes, AMulticastRouteComesOutWhole) {
  std::string reason;
  const auto got = read(R"({"multicast_routes": [
      {"context": "blue", "prefix": "10.0.0.0/8", "metric": 7,
       "next_hops": [{"address": "10.1.0.1", "interface": "eth0"}, {"interface": "eth1"}]},
      {"prefix": "0.0.0.0/0", "next_hops": [{"address": "10.1.0.2"}]},
      {"table": 99, "prefix": "10.0.0.1/32", "next_hops": [{"address": "10.1.0.2"}]}]})",
                        &reason);
  ASSERT_TRUE(got) << reason;
  EXPECT_EQ(got->multicast_routes[0], (MulticastRouteRule{.table = {.context = "blue", .table = 0},
                                                          .addr = 0x0a000000,
                                                          .len = 8,
                                                          .metric = 7,
                                                          .next_hops = {{"eth0", 0x0a010001}, {"eth1", 0}}}));
  EXPECT_EQ(got->multicast_routes[1].table.context, "default");
  EXPECT_EQ(got->multicast_routes[2].table, (TableName{.context = "", .table = 99}));
}

TEST(ConfigRoutes, ALeakNamesContextsOrTables) {
  std::string reason;
  const auto got = read(R"({"leaks": [{"prefix": "10.0.0.0/8", "from": "blue", "to": "default"},
                                      {"prefix": "10.0.0.0/8", "from_table": 254, "to_table": 7}]})",
                        &reason);
  ASSERT_TRUE(got) << reason;
  EXPECT_EQ(got->leaks[0].from.context, "blue");
  EXPECT_EQ(got->leaks[0].to.context, "default");
  EXPECT_EQ(got->leaks[1].from.context, "default") << "254 by another name";
  EXPECT_EQ(got->leaks[1].to.table, 7u);
}

TEST(ConfigRoutes, TheyAreDescribedAsTheyAreInForce) {
  std::string reason;
  const auto got = read(R"({"multicast_routes": [{"prefix": "10.0.0.0/8", "metric": 2,
                             "next_hops": [{"address": "10.1.0.1", "interface": "eth0"}]}],
                            "leaks": [{"prefix": "11.0.0.0/8", "from": "blue", "to_table": 7}]})",
                        &reason);
  ASSERT_TRUE(got) << reason;
  EXPECT_EQ(describe(*got),
            "multicast route 10.0.0.0/8 in context default metric 2 via 10.1.0.1 eth0\n"
            "leak 11.0.0.0/8 from context blue to table 7\n");
}

TEST(ConfigRoutes, APrefixHasNoBitsBeyondItsLength) {
  using Prefix = std::pair<uint32_t, uint8_t>;
  EXPECT_EQ(parse_prefix("10.0.0.0/8"), (Prefix{0x0a000000, 8}));
  EXPECT_EQ(parse_prefix("0.0.0.0/0"), (Prefix{0, 0}));
  EXPECT_EQ(parse_prefix("10.0.0.1/32"), (Prefix{0x0a000001, 32}));
  for (const char *bad : {"10.0.0.1/8", "10.0.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/8 ", "/8",
                          "10.0.0/8", "1.0.0.0/0", "10.0.0.0/0x8"}) {
    EXPECT_FALSE(parse_prefix(bad)) << bad;
  }
}

TEST(ConfigRoutes, BadMulticastRoutesAreRefusedByKey) {
  const auto with = [](const std::string &members) { return R"({"multicast_routes": [{)" + members + "}]}"; };
  const std::string hops = R"("next_hops": [{"address": "10.1.0.1"}])";
  EXPECT_EQ(refusal(with(hops)), "f: multicast_routes[0].prefix: missing");
  EXPECT_EQ(refusal(with(R"("prefix": "10.0.0.0/8")")), "f: multicast_routes[0].next_hops: must name at least one");
  EXPECT_NE(refusal(with(R"("prefix": "10.0.0.1/8", )" + hops)).find("prefix: must be a prefix"), std::string::npos);
  EXPECT_NE(refusal(with(R"("prefix": "232.0.0.0/8", )" + hops)).find("sources are wanted"), std::string::npos);
  EXPECT_NE(
      refusal(with(R"("prefix": "10.0.0.0/8", "context": "blue", "table": 4, )" + hops)).find("table: given beside"),
      std::string::npos);
  EXPECT_NE(refusal(with(R"("prefix": "10.0.0.0/8", "table": 255, )" + hops)).find("kernel's own"), std::string::npos);
  EXPECT_NE(refusal(with(R"("prefix": "10.0.0.0/8", "next_hops": [{}])")).find("next_hops[0].address: missing"),
            std::string::npos);
  EXPECT_NE(refusal(with(R"("prefix": "10.0.0.0/8", "next_hops": [{"address": "224.0.0.5"}])"))
                .find("is not an address that a host can have"),
            std::string::npos);
  EXPECT_NE(refusal(with(R"("prefix": "10.0.0.0/8", "next_hops": [{"interface": "a"}, {"interface": "a"}])"))
                .find("next_hops[1]: given twice"),
            std::string::npos);
  EXPECT_NE(refusal(R"({"multicast_routes": [{"prefix": "10.0.0.0/8", )" + hops + R"(}, {"prefix": "10.0.0.0/8", )" +
                    hops + "}]}")
                .find("multicast_routes[1].prefix: given twice"),
            std::string::npos);
}

TEST(ConfigRoutes, BadLeaksAreRefusedByKey) {
  const auto with = [](const std::string &members) { return R"({"leaks": [{)" + members + "}]}"; };
  const std::string prefix = R"("prefix": "10.0.0.0/8", )";
  EXPECT_EQ(refusal(with(prefix + R"("from": "blue")")), "f: leaks[0].to: missing");
  EXPECT_EQ(refusal(with(prefix + R"("to": "blue")")), "f: leaks[0].from: missing");
  EXPECT_EQ(refusal(with(prefix + R"("from": "blue", "to": "blue")")), "f: leaks[0].to: must be another table");
  EXPECT_EQ(refusal(with(prefix + R"("from": "default", "to_table": 254)")), "f: leaks[0].to: must be another table");
  const std::string there = R"({"prefix": "10.0.0.0/8", "from": "a", "to": "b"})";
  EXPECT_NE(refusal(R"({"leaks": [)" + there + R"(, {"prefix": "10.0.0.0/8", "from": "c", "to": "b"}]})")
                .find("leaks[1].prefix: is leaked to this table already"),
            std::string::npos);
  EXPECT_NE(refusal(R"({"leaks": [)" + there + R"(, {"prefix": "10.0.0.0/8", "from": "b", "to": "a"}]})")
                .find("leaked the other way"),
            std::string::npos);
}

}  // namespace
