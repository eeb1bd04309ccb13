// SPDX-License-Identifier: Apache-2.0
// Memberships while interfaces go, come back and change their names; and all of it beside a naive twin.
#include <algorithm>
#include <cerrno>
#include <random>

#include "control_memberships_fixture.h"

namespace memberships_test {
namespace {

TEST_F(MembershipsTest, AnInterfaceThatComesBackUnderItsNameHasItsGroupsAgain) {
  join(ospf, group);
  join(pim, group, source);
  remove(iod);
  EXPECT_EQ(kernel_.forgotten, std::vector<uint32_t>{ifindex});
  EXPECT_EQ(kernel_.joined, Joined{});
  change(9, 90, "eth1");
  EXPECT_EQ(kernel_.joined, Joined{}) << "not on another one";
  change(10, 100, "eth0");
  EXPECT_EQ(kernel_.joined, (Joined{{100, group, 0}, {100, group, source}}));
  EXPECT_EQ(leave(ospf, group, 0, 10), Refusal::none);
  EXPECT_EQ(leave(pim, group, source, iod), Refusal::no_interface) << "it has another iod now";
  EXPECT_EQ(kernel_.joined, (Joined{{100, group, source}}));
}

TEST_F(MembershipsTest, AnotherInterfaceUnderTheSameIfindexIsToldAfterTheOldOneIsForgotten) {
  join(ospf, group);
  box_.interfaces.clear();
  change(10, ifindex, "eth0");
  EXPECT_EQ(kernel_.forgotten, std::vector<uint32_t>{ifindex});
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}})) << "it is back";
  box_.interfaces.clear();
  change(11, ifindex, "wan");
  EXPECT_EQ(kernel_.joined, Joined{}) << "it has the ifindex and nothing else";
}

TEST_F(MembershipsTest, GroupsOfAnAbsentInterfaceCanBeLeftUnderTheIodThatWas) {
  join(ospf, group);
  join(ospf, other_group);
  remove(iod);
  EXPECT_EQ(leave(pim, group), Refusal::no_interface) << "it holds nothing there";
  EXPECT_EQ(leave(ospf, group), Refusal::none);
  EXPECT_EQ(leave(ospf, group), Refusal::no_interface);
  EXPECT_EQ(memberships_.held_by(ospf), 1u);
  change(10, 100, "eth0");
  EXPECT_EQ(kernel_.joined, (Joined{{100, other_group, 0}}));
}

TEST_F(MembershipsTest, AnAbsentInterfaceIsNotWhateverHasItsIodNow) {
  join(ospf, group);
  remove(iod);
  change(iod, 51, "wan");
  EXPECT_EQ(leave(ospf, group), Refusal::not_registered);
  EXPECT_EQ(join(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{51, group, 0}}));
  change(10, 100, "eth0");
  EXPECT_EQ(kernel_.joined, (Joined{{51, group, 0}, {100, group, 0}}));
}

TEST_F(MembershipsTest, ARenamedInterfaceKeepsItsGroups) {
  join(ospf, group);
  change(iod, ifindex, "uplink");
  EXPECT_EQ(kernel_.calls, 1u);
  remove(iod);
  change(10, 100, "eth0");
  EXPECT_EQ(kernel_.joined, Joined{}) << "it was not its name any more";
  change(11, 110, "uplink");
  EXPECT_EQ(kernel_.joined, (Joined{{110, group, 0}}));
}

TEST_F(MembershipsTest, TwoInterfacesThatChangeNamesKeepTheirGroups) {
  set(6, 60, "eth1");
  join(ospf, group);
  join(ospf, other_group, 0, 6);
  set(iod, ifindex, "eth1");
  set(6, 60, "eth0");
  memberships_.interfaces_changed({ifindex, 60});
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}, {60, other_group, 0}}));
  EXPECT_EQ(kernel_.calls, 2u);
}

TEST_F(MembershipsTest, AnInterfaceThatTakesTheNameOfAnAbsentOneTakesItsGroupsToItsOwn) {
  set(6, 60, "eth1");
  join(ospf, group);
  join(ospf, other_group);
  join(ospf, group, 0, 6);
  join(pim, group);
  EXPECT_EQ(memberships_.held_by(ospf), 3u);
  box_.interfaces.erase(iod);
  set(6, 60, "eth0");
  memberships_.interfaces_changed({ifindex, 60});
  EXPECT_EQ(kernel_.joined, (Joined{{60, group, 0}, {60, other_group, 0}}));
  EXPECT_EQ(memberships_.held_by(ospf), 2u) << "what it held on both it holds once";
  memberships_.process_gone(ospf);
  EXPECT_EQ(kernel_.joined, (Joined{{60, group, 0}})) << "the other process's";
}

TEST_F(MembershipsTest, AnInterfaceThatGoesAgainUnderTheNameOfAnAbsentOneJoinsIt) {
  join(ospf, group);
  remove(iod);
  change(6, 60, "tmp");
  join(pim, other_group, 0, 6);
  box_.interfaces.erase(6);
  set(7, 60, "tmp2");
  memberships_.interfaces_changed({60});
  change(8, 80, "eth0");
  change(9, 90, "tmp");
  EXPECT_EQ(kernel_.joined, (Joined{{80, group, 0}, {90, other_group, 0}}));
}

TEST_F(MembershipsTest, AnInterfaceThatLostItsIpv4StateIsJoinedAgainWhenThatIsBack) {
  join(ospf, group);
  change(iod, ifindex, "eth0", 67);
  EXPECT_EQ(kernel_.forgotten, std::vector<uint32_t>{ifindex});
  EXPECT_EQ(join(pim, other_group), Refusal::none) << "kept until then";
  change(iod, ifindex, "eth0", 60);
  tick();
  EXPECT_EQ(kernel_.joined, Joined{});
  change(iod, ifindex, "eth0", 68);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}, {ifindex, other_group, 0}}));
}

TEST_F(MembershipsTest, AnInterfaceWithoutIpv4StateThatComesBackWithItIsJoined) {
  join(ospf, group);
  remove(iod);
  change(10, 100, "eth0", 60);
  EXPECT_EQ(kernel_.joined, Joined{});
  change(10, 100, "eth0");
  EXPECT_EQ(kernel_.joined, (Joined{{100, group, 0}}));
}

TEST_F(MembershipsTest, ChangesThatConcernNoMembershipAskNothingOfTheKernel) {
  join(ospf, group);
  change(iod, ifindex, "eth0", 9000);
  change(6, 60, "eth1");
  memberships_.interfaces_changed({1, 2, 3});
  tick();
  EXPECT_EQ(kernel_.calls, 1u);
}

// What processes hold, kept naively: by interface name.
TEST_F(MembershipsTest, RandomJoinsLeavesDeathsAndInterfacesAgreeWithANaiveTwin) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  struct Held {
    std::string name;
    uint32_t group, source;
    int32_t pid;
    auto operator<=>(const Held &) const = default;
  };
  std::set<Held> twin;
  uint32_t next_iod = 100;
  const auto free_ifindex = [&](uint32_t wanted) {
    while (box_.interface_by_ifindex(wanted)) ++wanted;
    return wanted;
  };
  for (int step = 0; step < 20000; ++step) {
    const std::string name = "eth" + std::to_string(below(4));
    const auto named = std::find_if(box_.interfaces.begin(), box_.interfaces.end(),
                                    [&](const auto &each) { return each.second.state.name == name; });
    const bool there = named != box_.interfaces.end();
    const auto pid = static_cast<int32_t>(1 + below(3));
    const uint32_t its_group = below(4) == 0 ? 0 : group + below(2);
    const uint32_t its_source = its_group == 0 ? 0 : below(3);
    const Held held{name, its_group, its_source, pid};
    switch (below(12)) {
      case 0:
        if (!there) change(++next_iod, free_ifindex(1 + below(6)), name, below(4) == 0 ? 60 : 1500);
        break;
      case 1:
        if (there) remove(named->first);
        break;
      case 2:
        if (there) change(named->first, named->second.state.ifindex, name, below(2) == 0 ? 60 : 1500);
        break;
      case 3:
        memberships_.process_gone(pid);
        std::erase_if(twin, [pid](const Held &each) { return each.pid == pid; });
        break;
      case 4:
        kernel_.join_error = below(3) == 0 ? ENOBUFS : 0;
        tick();
        break;
      case 5:
      case 6:
      case 7:
        if (!there) break;
        EXPECT_EQ(leave(pid, its_group, its_source, named->first),
                  twin.erase(held) == 1 ? Refusal::none : Refusal::not_registered);
        break;
      default:
        if (!there) break;
        const Refusal refusal = join(pid, its_group, its_source, named->first);
        EXPECT_TRUE(refusal == Refusal::none || (refusal == Refusal::kernel && kernel_.join_error == ENOBUFS));
        twin.insert(held);
    }
    Joined expected;
    for (const Held &each : twin) {
      for (const auto &[unused, facts] : box_.interfaces) {
        if (facts.state.name == each.name && facts.state.mtu >= 68) {
          expected.insert({facts.state.ifindex, each.group, each.source});
        }
      }
    }
    ASSERT_TRUE(std::includes(expected.begin(), expected.end(), kernel_.joined.begin(), kernel_.joined.end()))
        << "step " << step;
    if (kernel_.join_error != 0) continue;
    tick();
    ASSERT_EQ(kernel_.joined, expected) << "step " << step;
    for (const int32_t each : {1, 2, 3}) {
      const auto count = std::count_if(twin.begin(), twin.end(), [each](const Held &one) { return one.pid == each; });
      ASSERT_EQ(memberships_.held_by(each), static_cast<size_t>(count)) << "step " << step;
    }
  }
}

}  // namespace
}  // namespace memberships_test
