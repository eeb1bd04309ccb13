// SPDX-License-Identifier: Apache-2.0
#include "ipd/state/contexts.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "support/run_directory.h"

namespace {

using namespace ipd;

TEST(ContextIds, AreAllottedFromTwoAndStayWithTheirNames) {
  ContextIds ids("");
  EXPECT_EQ(ids.allot("a", {1}), 2u);
  EXPECT_EQ(ids.allot("b", {1}), 3u);
  EXPECT_EQ(ids.allot("a", {1}), 2u);
}

TEST(ContextIds, PassOverReservedOnes) {
  ContextIds ids("");
  EXPECT_EQ(ids.allot("a", {1, 2, 4}), 3u);
  EXPECT_EQ(ids.allot("b", {1, 2, 4}), 5u);
}

TEST(ContextIds, GiveWayWhenTheirIdIsReservedLater) {
  ContextIds ids("");
  EXPECT_EQ(ids.allot("a", {1}), 2u);
  EXPECT_EQ(ids.allot("a", {1, 2}), 3u);
  EXPECT_EQ(ids.allot("b", {1}), 2u);
}

TEST(ContextIds, OutliveTheProcess) {
  test_support::RunDirectory directory;
  const std::string file = directory.path() + "/ipd.contexts";
  std::string reason;
  {
    ContextIds ids(file);
    ids.load();
    ids.allot("a", {1});
    ids.allot("b", {1});
    ASSERT_TRUE(ids.save(&reason)) << reason;
  }
  ContextIds ids(file);
  ids.load();
  EXPECT_EQ(ids.allot("b", {1}), 3u);
  EXPECT_EQ(ids.allot("c", {1}), 4u);
}

TEST(ContextIds, ADamagedFileIsAnEmptyOneFromTheDamageOn) {
  test_support::RunDirectory directory;
  const std::string file = directory.path() + "/ipd.contexts";
  FILE *stream = fopen(file.c_str(), "w");
  ASSERT_NE(stream, nullptr);
  fputs("5 a\n5 twice\n0 zero\n1 one\nnonsense here\n6 b\n", stream);
  fclose(stream);
  ContextIds ids(file);
  ids.load();
  EXPECT_EQ(ids.allot("a", {1}), 5u);
  EXPECT_EQ(ids.allot("twice", {1}), 2u);
  EXPECT_EQ(ids.allot("zero", {1}), 3u);
  EXPECT_EQ(ids.allot("b", {1}), 4u);
}

TEST(ContextIds, SayWhenTheyCannotBeKept) {
  ContextIds ids("/nowhere-at-all/ipd.contexts");
  ids.allot("a", {1});
  std::string reason;
  EXPECT_FALSE(ids.save(&reason));
  EXPECT_NE(reason.find("/nowhere-at-all/ipd.contexts: "), std::string::npos);
}

kernel::LinkMessage vrf(uint32_t ifindex, const std::string &name, uint32_t table) {
  kernel::LinkMessage message;
  message.ifindex = ifindex;
  message.name = name;
  message.kind = "vrf";
  message.vrf_table = table;
  return message;
}

TEST(Contexts, TheKernelsTableBeatsTheConfiguredOneWithARemark) {
  Configuration configuration;
  configuration.contexts.push_back({.name = "blue", .id = 0, .table = 55, .router_id = 0, .interfaces = {}});
  ContextIds ids("");
  const ContextPlan plan = plan_contexts(configuration, {{9, vrf(9, "blue", 1001)}}, ids);
  EXPECT_EQ(plan.contexts.at(2).table_id, 1001u);
  ASSERT_EQ(plan.remarks.size(), 1u);
  EXPECT_NE(plan.remarks[0].find("1001"), std::string::npos);
}

TEST(Contexts, AVrfDeviceCalledDefaultIsPartOfTheDefaultContext) {
  ContextIds ids("");
  const ContextPlan plan = plan_contexts({}, {{9, vrf(9, "default", 1001)}}, ids);
  ASSERT_EQ(plan.contexts.size(), 1u);
  EXPECT_EQ(plan.contexts.at(1).table_id, 254u);
  EXPECT_EQ(plan.of_vrf.at(9), 1u);
}

TEST(Contexts, APatternRuleAndAVrfOfOneNameAreOneContext) {
  Configuration configuration;
  configuration.contexts.push_back({.name = "blue", .id = 6, .table = 55, .router_id = 0, .interfaces = {"eth*"}});
  ContextIds ids("");
  const ContextPlan plan = plan_contexts(configuration, {{9, vrf(9, "blue", 1001)}}, ids);
  EXPECT_EQ(plan.contexts.size(), 2u);
  EXPECT_EQ(plan.contexts.at(6).table_id, 1001u);
  kernel::LinkMessage link;
  link.name = "eth5";
  EXPECT_EQ(context_of(link, plan, configuration), 6u);
}

TEST(Contexts, TheConfiguredIdOfTheDefaultContextIsNoObstacle) {
  Configuration configuration;
  configuration.contexts.push_back({.name = "default", .id = 1, .table = 254, .router_id = 5, .interfaces = {}});
  ContextIds ids("");
  const ContextPlan plan = plan_contexts(configuration, {}, ids);
  ASSERT_EQ(plan.contexts.size(), 1u);
  EXPECT_EQ(plan.contexts.at(1).router_id, 5u);
}

}  // namespace
