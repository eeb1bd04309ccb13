// SPDX-License-Identifier: Apache-2.0
#include "ipd/simulate/simulation.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "ipd/recording_publisher.h"

namespace {

using namespace ipd;

constexpr SimulationPlan small{.contexts = 3, .interfaces = 7, .addresses = 40, .measured_changes = 100, .seed = 5};

const auto no_progress = [](uint32_t) {};

TEST(Simulation, PublishesWhatThePlanSays) {
  test_support::RecordingPublisher publisher;
  Simulation simulation(publisher, small);
  std::string reason;
  ASSERT_TRUE(simulation.load(no_progress, &reason)) << reason;
  EXPECT_EQ(publisher.contexts.size(), 3u);
  EXPECT_EQ(publisher.contexts.at(1).name, "default");
  EXPECT_EQ(publisher.contexts.at(3).name, "ctx3");
  EXPECT_EQ(publisher.contexts.at(3).table_id, 1003u);
  EXPECT_EQ(publisher.use().interfaces, 7u);
  EXPECT_EQ(publisher.use().addresses, 40u);
  EXPECT_TRUE(publisher.interfaces.at(1).state.loopback);
  EXPECT_EQ(publisher.interfaces.at(1).state.name, "loop0");
  EXPECT_EQ(publisher.interfaces.at(5).state.name, "sim4");
  EXPECT_EQ(publisher.interfaces.at(5).state.context_id, 2u);
  EXPECT_EQ(publisher.commits, 1u);
}

TEST(Simulation, NoAddressIsGivenTwiceAndBlocksDoNotMeet) {
  for (const SimulationPlan &plan : {small, SimulationPlan{.interfaces = 3, .addresses = 1000},
                                     SimulationPlan{.contexts = 64, .interfaces = 16000, .addresses = 64000}}) {
    std::set<uint32_t> addresses;
    std::map<uint32_t, uint32_t> owner_of_block;
    uint32_t count = 0;
    for (uint32_t i = 0; i < plan.interfaces; ++i) {
      for (uint32_t j = 0; j < simulated_address_count(plan, i); ++j, ++count) {
        const SimulatedAddress address = simulated_address(plan, i, j);
        EXPECT_TRUE(addresses.insert(address.state.addr).second);
        const auto owner = owner_of_block.try_emplace(address.state.addr >> 8, i);
        EXPECT_EQ(owner.first->second, i);
        EXPECT_EQ(address.state.secondary, !owner.second) << "the first of a block is its primary";
        EXPECT_FALSE(address.flips && !address.state.secondary) << "primaries are permanent";
      }
    }
    EXPECT_EQ(count, plan.addresses);
  }
}

TEST(Simulation, OnlyAddressesThatFlipEverGo) {
  test_support::RecordingPublisher publisher;
  Simulation simulation(publisher, small);
  std::string reason;
  ASSERT_TRUE(simulation.load(no_progress, &reason)) << reason;
  std::set<uint32_t> ever_gone;
  for (int i = 0; i < 2000; ++i) {
    ASSERT_TRUE(simulation.change(&reason)) << reason;
    for (uint32_t interface = 0; interface < small.interfaces; ++interface) {
      const auto list = publisher.addresses(interface + 1);
      const std::set<uint32_t> there(list.begin(), list.end());
      for (uint32_t j = 0; j < simulated_address_count(small, interface); ++j) {
        const SimulatedAddress address = simulated_address(small, interface, j);
        if (there.contains(address.state.addr)) continue;
        ASSERT_TRUE(address.flips);
        ever_gone.insert(address.state.addr);
      }
    }
  }
  EXPECT_EQ(ever_gone.size(), simulation.flipping()) << "each of them had its turn";
}

TEST(Simulation, TheSameSeedMakesTheSameChanges) {
  const auto changes = [](uint64_t seed) {
    test_support::RecordingPublisher publisher;
    SimulationPlan plan = small;
    plan.seed = seed;
    Simulation simulation(publisher, plan);
    std::string reason;
    EXPECT_TRUE(simulation.load(no_progress, &reason));
    publisher.calls.clear();
    for (int i = 0; i < 200; ++i) EXPECT_TRUE(simulation.change(&reason));
    return publisher.calls;
  };
  EXPECT_EQ(changes(5), changes(5));
  EXPECT_NE(changes(5), changes(6));
}

TEST(Simulation, MeasuringLeavesEverythingInPlace) {
  test_support::RecordingPublisher publisher;
  Simulation simulation(publisher, small);
  std::string reason;
  ASSERT_TRUE(simulation.load(no_progress, &reason)) << reason;
  SimulationReport report;
  ASSERT_TRUE(simulation.measure(&report, &reason)) << reason;
  EXPECT_EQ(report.measured, 100u);
  EXPECT_EQ(publisher.commits, 101u);
  EXPECT_EQ(publisher.use().addresses, 40u);
  EXPECT_LE(report.median_ns, report.p99_ns);
  EXPECT_LE(report.p99_ns, report.most_ns);
  EXPECT_GT(report.resident_bytes, 0u);
}

TEST(Simulation, ASystemWithNothingToFlipIsMeasuredWithoutChanges) {
  test_support::RecordingPublisher publisher;
  Simulation simulation(publisher, {.interfaces = 4, .addresses = 4});
  std::string reason;
  ASSERT_TRUE(simulation.load(no_progress, &reason)) << reason;
  SimulationReport report;
  ASSERT_TRUE(simulation.measure(&report, &reason)) << reason;
  EXPECT_EQ(report.measured, 0u);
}

TEST(Simulation, ARefusalOfThePublisherEndsTheLoadWithItsReason) {
  test_support::RecordingPublisher publisher;
  publisher.room = 3;
  Simulation simulation(publisher, small);
  std::string reason;
  EXPECT_FALSE(simulation.load(no_progress, &reason));
  EXPECT_EQ(reason, "the table is full");
}

TEST(Simulation, TheReportIsWholeInBothForms) {
  SimulationReport report;
  report.load = std::chrono::milliseconds(12);
  report.use = {.contexts = 3, .interfaces = 7, .addresses = 40, .segment_bytes = 2097152};
  report.resident_bytes = 4096;
  report.measured = 10;
  report.mean_ns = 1500;
  const auto json = nlohmann::json::parse(print_report(report, true));
  EXPECT_EQ(json["version"], 1);
  EXPECT_EQ(json["interfaces"], 7);
  EXPECT_EQ(json["load_milliseconds"], 12.0);
  EXPECT_EQ(json["segment_bytes"], 2097152);
  EXPECT_EQ(json["changes"]["measured"], 10);
  EXPECT_EQ(json["changes"]["mean_nanoseconds"], 1500);
  const std::string text = print_report(report, false);
  EXPECT_NE(text.find("3 contexts, 7 interfaces, 40 addresses"), std::string::npos);
  EXPECT_NE(text.find("2.0 MiB"), std::string::npos);
  EXPECT_NE(text.find("1.50 us on average"), std::string::npos);
}

struct Mistake {
  const char *text;
  const char *reason;
};

TEST(Simulation, MistakesInItsFileAreRefusedWithFileKeyAndReason) {
  const Mistake mistakes[] = {
      {R"({"routers": 1})", "s: routers: unknown key"},
      {R"({"contexts": 0})", "s: contexts: must be a whole number from 1 to 4096"},
      {R"({"interfaces": "many"})", "s: interfaces: must be a whole number from 1 to 1000000"},
      {R"({"contexts": 9, "interfaces": 8})", "s: contexts: more than interfaces"},
      {R"({"interfaces": 4, "addresses": 4, "changes_per_second": 1})",
       "s: changes_per_second: no interface has a second address that could come and go"},
      {R"({"interfaces": 1000000, "addresses": 4000000, "seed": -1})",
       "s: seed: must be a whole number from 0 to 18446744073709551615"},
  };
  for (const Mistake &mistake : mistakes) {
    std::string reason;
    EXPECT_FALSE(parse_simulation(mistake.text, "s", &reason));
    EXPECT_EQ(reason, mistake.reason);
  }
}

TEST(Simulation, MissingKeysHaveDefaults) {
  std::string reason;
  const auto plan = parse_simulation("{}", "s", &reason);
  ASSERT_TRUE(plan) << reason;
  EXPECT_EQ(plan->contexts, 1u);
  EXPECT_EQ(plan->changes_per_second, 0u);
}

}  // namespace
