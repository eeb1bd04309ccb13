// SPDX-License-Identifier: Apache-2.0
// Groups, counters and the load-sharing setting: the listings, and the queries of the same.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ipsh_asked.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

class IpshStatisticsQuery : public IpshWithSystem, public ::testing::WithParamInterface<Asked> {};
TEST_P(IpshStatisticsQuery, AnswersFromTheSharedDatabase) {
  expect_answer(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    OfCountersAndSettings, IpshStatisticsQuery,
    ::testing::Values(Asked{"ip_get_mcast_pkt_stats_orig --iod eth0", "1", 0, "c1=11 c2=12 c3=13 c4=14 c5=15"},
                      Asked{"ip_get_mcast_pkt_stats_orig --iod lo", "0", 1, "c1=0 c2=0 c3=0 c4=0 c5=0"},
                      Asked{"ip_get_mcast_byte_stats_orig --iod eth0", "1", 0, "b1=1099511627776 b2=22"},
                      Asked{"ip_get_pim_assert_sent_count --iod eth0", "3", 0},
                      Asked{"ip_get_pim_assert_sent_count --iod lo", "0", 1},
                      Asked{"ip_get_ecmp_loadshare_status", "1", 0, "mode=2 value=5"}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

TEST_F(IpshWithSystem, EachCallOfAWalkOverGroupsIsShown) {
  EXPECT_EQ(ipsh(words_of("query ip_get_each_group --iod eth0 --arg 9")).out,
            "call      ip_get_each_group(iod=2 (eth0), callback=0, arg=9)\n"
            "  called  group=224.0.0.5, group_data=1, arg=9\n"
            "  called  group=239.1.2.3, group_data=7, arg=9\n"
            "reads as  the callback was called once for each group\n");
  EXPECT_EQ(ipsh(words_of("query ip_get_each_group --iod lo")).exit_code, 1);
}

TEST_F(IpshWithSystem, AWalkOverGroupsEndsWhenItsCallbackSaysSo) {
  const json answer = json::parse(ipsh(words_of("query ip_get_each_group --iod eth0 --callback 1 --json")).out);
  ASSERT_EQ(answer["calls"].size(), 1u);
  EXPECT_EQ(answer["calls"][0]["group"]["text"], "224.0.0.5");
  EXPECT_EQ(answer["calls"][0]["group_data"]["value"], 1);
}

TEST_F(IpshWithSystem, GroupsAreATable) {
  EXPECT_EQ(ipsh({"show", "groups"}).out,
            "GROUP      DATA  INTERFACE  IOD  CONTEXT\n"
            "224.0.0.5     1  eth0         2  default\n"
            "239.1.2.3     7  eth0         2  default\n");
  EXPECT_EQ(ipsh(words_of("show groups --context red")).exit_code, 1);
}

TEST_F(IpshWithSystem, CountersAreATableWithTheLoadSharingSettingBelow) {
  EXPECT_EQ(ipsh({"show", "counters"}).out,
            "IOD  INTERFACE  C1  C2  C3  C4  C5             B1  B2  PIM-ASSERTS\n"
            "  1  lo          -   -   -   -   -              -   -            0\n"
            "  2  eth0       11  12  13  14  15  1099511627776  22            3\n"
            "  3  eth1        -   -   -   -   -              -   -            0\n"
            "  4  tun0        -   -   -   -   -              -   -            0\n"
            "load sharing: mode 2, value 5\n");
  const json listing = json::parse(ipsh(words_of("show counters --interface eth0 --json")).out);
  ASSERT_EQ(listing["counters"].size(), 1u);
  EXPECT_EQ(listing["counters"][0]["b1"], 1ull << 40);
  EXPECT_EQ(listing["load_share"]["value"], 5);
}

}  // namespace
}  // namespace ipsh_test
