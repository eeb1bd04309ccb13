// SPDX-License-Identifier: Apache-2.0
// Groups laid over each other from dumps and events, counters that only grow, and what the publisher is told of both.
#include <gtest/gtest.h>

#include <fstream>

#include "ipd/kernel/load_share.h"
#include "ipd/recording_publisher.h"
#include "ipd/state/multicast.h"
#include "support/run_directory.h"

namespace {

using ipd::GroupState;
using ipd::InterfaceCounters;
using ipd::MulticastCounters;
using ipd::MulticastState;
using ipd::kernel::GroupMessage;
using ipd::kernel::Groups;
using ipd::kernel::KernelCounts;
using List = Groups::List;

constexpr uint32_t a = 0xe0000001, b = 0xe0000002, c = 0xe0000003;

GroupMessage join(uint32_t ifindex, uint32_t group) {
  return {.ifindex = ifindex, .group = group, .left = false};
}
GroupMessage leave(uint32_t ifindex, uint32_t group) {
  return {.ifindex = ifindex, .group = group, .left = true};
}

TEST(Groups, EventsPutTheLastJoinedInFront) {
  Groups groups;
  for (const auto &message : {join(1, a), join(1, b), join(2, c), join(1, b), leave(1, c), leave(2, c), join(1, c)}) {
    groups.event(message);
  }
  EXPECT_EQ(groups.groups(1), (List{c, b, a}));
  EXPECT_EQ(groups.groups(2), List{});
  EXPECT_EQ(groups.take_changes(), (std::set<uint32_t>{1, 2}));
  EXPECT_EQ(groups.take_changes(), std::set<uint32_t>{});
}

TEST(Groups, ADumpReplacesAndOnlyDifferencesAreChanges) {
  Groups groups;
  groups.event(join(1, a));
  groups.event(join(2, b));
  groups.event(join(3, c));
  groups.take_changes();
  groups.begin_dump();
  groups.dump_entry(join(1, a));
  groups.dump_entry(join(2, c));
  groups.dump_entry(join(2, b));
  EXPECT_EQ(groups.groups(3), List{c}) << "until the end of the dump";
  groups.end_dump();
  EXPECT_EQ(groups.groups(1), List{a});
  EXPECT_EQ(groups.groups(2), (List{c, b})) << "in the dump's order";
  EXPECT_EQ(groups.groups(3), List{});
  EXPECT_EQ(groups.take_changes(), (std::set<uint32_t>{2, 3}));
}

TEST(Groups, AnEventDuringADumpIsRightWhateverTheDumpSaw) {
  for (const bool dump_saw_it : {false, true}) {
    Groups groups;
    groups.event(join(1, a));
    groups.begin_dump();
    groups.event(join(1, b));
    groups.event(leave(1, a));
    if (!dump_saw_it) groups.dump_entry(join(1, a));
    if (dump_saw_it) groups.dump_entry(join(1, b));
    EXPECT_EQ(groups.groups(1), List{b}) << "shown at once";
    groups.end_dump();
    EXPECT_EQ(groups.groups(1), List{b});
  }
}

TEST(Groups, AForgottenInterfaceHasNoneUntilTheNextDump) {
  Groups groups;
  groups.event(join(1, a));
  groups.forget(1);
  EXPECT_EQ(groups.groups(1), List{});
}

KernelCounts counts(uint64_t received) {
  return {.received = received, .forwarding = {}, .forwards = false};
}
KernelCounts counts(uint64_t received, uint64_t forwarded) {
  return {.received = received,
          .forwarding = {.bytes_in = forwarded * 100,
                         .bytes_out = forwarded * 200,
                         .packets_in = forwarded,
                         .packets_out = forwarded * 2},
          .forwards = true};
}

TEST(InterfaceCounters, StandWhereTheyBelong) {
  InterfaceCounters counters(std::nullopt);
  EXPECT_EQ(counters.read(counts(7, 3)), (MulticastCounters{.packets = {7, 3, 6, 0, 0}, .bytes = {300, 600}}));
}

TEST(InterfaceCounters, GoOnWhenTheKernelsBeginAnew) {
  InterfaceCounters counters(std::nullopt);
  counters.read(counts(100, 50));
  EXPECT_EQ(counters.read(counts(100)).packets[1], 50u) << "the daemon is gone, what was forwarded is not";
  EXPECT_EQ(counters.read(counts(100, 4)).packets[1], 54u);
  EXPECT_EQ(counters.read(counts(5, 5)).packets[0], 105u);
  EXPECT_EQ(counters.read(counts(5, 5)).bytes[1], 55u * 200);
}

TEST(InterfaceCounters, AreTheKernelsAfterARestart) {
  InterfaceCounters counters(MulticastCounters{.packets = {100, 50, 100, 0, 0}, .bytes = {5000, 10000}});
  EXPECT_EQ(counters.read(counts(120, 60)),
            (MulticastCounters{.packets = {120, 60, 120, 0, 0}, .bytes = {6000, 12000}}));
}

TEST(InterfaceCounters, NeverRunBackwardsOverARestart) {
  InterfaceCounters counters(MulticastCounters{.packets = {100, 50, 100, 0, 0}, .bytes = {5000, 10000}});
  EXPECT_EQ(counters.read(counts(3)), (MulticastCounters{.packets = {100, 50, 100, 0, 0}, .bytes = {5000, 10000}}));
  EXPECT_EQ(counters.read(counts(4, 2)), (MulticastCounters{.packets = {101, 50, 100, 0, 0}, .bytes = {5000, 10000}}));
  EXPECT_EQ(counters.read(counts(5, 3)), (MulticastCounters{.packets = {102, 51, 102, 0, 0}, .bytes = {5100, 10200}}));
}

TEST(InterfaceCounters, WrapAroundAsTheirWidthSays) {
  const uint64_t kernel = (uint64_t{3} << 32) + 5;
  InterfaceCounters counters(MulticastCounters{.packets = {0xfffffff0u, 0, 0, 0, 0}, .bytes = {}});
  EXPECT_EQ(counters.read(counts(kernel)).packets[0], 5u) << "the kernel went on over the edge meanwhile";
  EXPECT_EQ(counters.read(counts(kernel + 10)).packets[0], 15u);
}

class MulticastStateTest : public testing::Test {
 protected:
  MulticastStateTest() {
    publisher.set_context({.id = 1, .name = "default", .table_id = 254, .router_id = 0});
    add(2);
  }
  void add(uint32_t ifindex) {
    ipd::InterfaceState interface {};
    interface.ifindex = ifindex;
    interface.name = "port" + std::to_string(ifindex);
    interface.context_id = 1;
    publisher.set_interface(interface);
  }
  [[nodiscard]] std::vector<GroupState> told(uint32_t ifindex) const { return publisher.interfaces.at(ifindex).groups; }

  test_support::RecordingPublisher publisher;
  Groups groups;
  MulticastState state{publisher, groups};
};

TEST_F(MulticastStateTest, GroupsThatCameBeforeTheirInterfaceAreToldWithIt) {
  groups.event(join(2, a));
  groups.event(join(2, b));
  EXPECT_FALSE(state.tell_groups()) << "not seen yet";
  EXPECT_FALSE(state.interfaces_changed({2}));
  EXPECT_EQ(told(2), (std::vector<GroupState>{{.group = b, .data = 0}, {.group = a, .data = 0}}));
}

TEST_F(MulticastStateTest, OnlyWhatChangedIsTold) {
  add(3);
  state.interfaces_changed({2, 3});
  publisher.calls.clear();
  groups.event(join(3, a));
  EXPECT_TRUE(state.tell_groups());
  EXPECT_EQ(publisher.calls, std::vector<std::string>{"set_groups 3 1"});
  EXPECT_FALSE(state.tell_groups());
}

TEST_F(MulticastStateTest, AnotherInterfaceUnderTheIfindexStartsWithoutTheOldOnes) {
  state.interfaces_changed({2});
  groups.event(join(2, a));
  state.tell_groups();
  state.tell_counters({{2, counts(500)}});
  publisher.remove_interface(2);
  add(2);
  EXPECT_TRUE(state.interfaces_changed({2})) << "the groups have to be read again";
  EXPECT_TRUE(told(2).empty());
  state.tell_counters({{2, counts(500)}});
  EXPECT_EQ(publisher.multicast_counters(2), std::nullopt) << "these may be the old one's still";
  state.tell_counters({{2, counts(1)}});
  EXPECT_EQ(publisher.multicast_counters(2)->packets[0], 1u);
}

TEST_F(MulticastStateTest, AnInterfaceThatIsGoneIsToldNothing) {
  state.interfaces_changed({2});
  publisher.remove_interface(2);
  EXPECT_TRUE(state.interfaces_changed({2}));
  publisher.calls.clear();
  groups.event(join(2, a));
  state.tell_groups();
  state.tell_counters({{2, counts(1)}});
  EXPECT_TRUE(publisher.calls.empty());
}

TEST(LoadShare, IsTheKernelsPolicy) {
  const test_support::RunDirectory directory;
  const auto write = [&](const char *name, const std::string &text) {
    std::ofstream(directory.path() + "/" + name) << text << std::flush;
  };
  const auto read = [&] { return ipd::kernel::read_load_share(directory.path()); };
  EXPECT_EQ(read(), (ipd::kernel::LoadShare{.mode = 0, .value = 0})) << "a kernel without the setting";
  write("fib_multipath_hash_policy", "1\n");
  write("fib_multipath_hash_fields", "55\n");
  EXPECT_EQ(read(), (ipd::kernel::LoadShare{.mode = 1, .value = 0}));
  write("fib_multipath_hash_policy", "3\n");
  EXPECT_EQ(read(), (ipd::kernel::LoadShare{.mode = 3, .value = 55}));
  write("fib_multipath_hash_policy", "300\n");
  EXPECT_EQ(read(), (ipd::kernel::LoadShare{.mode = 0, .value = 0}));
  write("fib_multipath_hash_policy", "many\n");
  EXPECT_EQ(read(), (ipd::kernel::LoadShare{.mode = 0, .value = 0}));
}

}  // namespace
