// SPDX-License-Identifier: Apache-2.0
// The walk over the multicast groups of an interface, with the caller's function at each.
#include <vector>

#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t first = address(239, 1, 1, 1);
constexpr uint32_t second = address(239, 1, 1, 2);
constexpr uint32_t third = address(224, 0, 0, 5);

struct Visit {
  uint32_t group;
  uint32_t group_data;
  uint32_t arg;
  bool operator==(const Visit &) const = default;
};
void PrintTo(const Visit &visit, std::ostream *out) {
  *out << fake_platform::dotted(visit.group) << " data " << visit.group_data << " arg " << visit.arg;
}

// The callback is a plain function: what it saw, and when it says stop.
std::vector<Visit> visits;
uint32_t stop_at;
uint32_t stop_answer;
std::vector<int> lock_depths;
std::vector<uint32_t> answers_of_queries;
uint32_t visit_count;

uint32_t visit(uint32_t group, uint32_t group_data, uint32_t arg) {
  visits.push_back({group, group_data, arg});
  lock_depths.push_back(platform().locks.depth[lock_handle]);
  return group == stop_at ? stop_answer : 0;
}

uint32_t ask_another_query(uint32_t group, uint32_t, uint32_t iod) {
  answers_of_queries.push_back(ip_is_group_joined(group, iod));
  return 0;
}

uint32_t count(uint32_t, uint32_t, uint32_t) {
  visit_count++;
  return 0;
}

class EachGroupTest : public LibraryTest {
 protected:
  EachGroupTest() {
    visits.clear();
    lock_depths.clear();
    answers_of_queries.clear();
    stop_at = stop_answer = visit_count = 0;
    record = database.interface(5);
    ip_maddrtype *group = database.groups(record, {first, second, third});
    for (uint32_t data = 71; group != nullptr; group = group->next.get(), data++) group->group_data = data;
    database.interface(6);
    platform().interfaces[8].name = "without IP";
  }
  ip_iftype *record;
};

TEST_F(EachGroupTest, IsVisitedInTheOrderOfTheListWithItsDataAndTheCallersWord) {
  attach();
  ip_get_each_group(5, visit, 0xfedcba98);
  EXPECT_EQ(visits, (std::vector<Visit>{{first, 71, 0xfedcba98}, {second, 72, 0xfedcba98}, {third, 73, 0xfedcba98}}));
}

TEST_F(EachGroupTest, IsVisitedUnderTheLock) {
  attach();
  ip_get_each_group(5, visit, 1);
  EXPECT_EQ(lock_depths, (std::vector<int>{1, 1, 1}));
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(EachGroupTest, IsVisitedWithoutALockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  ip_get_each_group(5, visit, 1);
  EXPECT_EQ(lock_depths, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(calls(), Calls{"lcache_im_get_extension1(5, 267)"});
}

TEST_F(EachGroupTest, IsVisitedUntilTheCallerSaysStop) {
  attach();
  for (const uint32_t answer : {1u, 2u, 0x80000000u, ~0u}) {
    visits.clear();
    stop_at = second;
    stop_answer = answer;
    ip_get_each_group(5, visit, 1);
    EXPECT_EQ(visits, (std::vector<Visit>{{first, 71, 1}, {second, 72, 1}})) << answer;
    EXPECT_EQ(calls().back(), "tsp_lock_release_rdlock(7)");
  }
}

TEST_F(EachGroupTest, IsOnlyTheFirstWhenTheCallerSaysStopAtOnce) {
  attach();
  stop_at = first;
  stop_answer = 1;
  ip_get_each_group(5, visit, 1);
  EXPECT_EQ(visits, (std::vector<Visit>{{first, 71, 1}}));
}

TEST_F(EachGroupTest, LetsTheCallerAskOtherQuestions) {
  attach();
  ip_get_each_group(5, ask_another_query, 5);
  EXPECT_EQ(answers_of_queries, (std::vector<uint32_t>{1, 1, 1}));
}

TEST_F(EachGroupTest, OfAnInterfaceWithoutGroupsIsNone) {
  attach();
  for (const uint32_t iod : {6u, 8u, 99u}) {
    platform().log.clear();
    ip_get_each_group(iod, visit, 1);
    EXPECT_EQ(calls(),
              (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(" + std::to_string(iod) + ", 267)",
                     "tsp_lock_release_rdlock(7)"}));
  }
  EXPECT_TRUE(visits.empty());
}

TEST_F(EachGroupTest, IsNoneWhenTheInterfaceManagerFails) {
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  ip_get_each_group(5, visit, 1);
  EXPECT_TRUE(visits.empty());
}

TEST_F(EachGroupTest, OfNoInterfaceOrForNobodyTakesNoLock) {
  attach();
  ip_get_each_group(0, visit, 1);
  ip_get_each_group(5, nullptr, 1);
  EXPECT_TRUE(visits.empty());
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(EachGroupTest, WithoutTheDatabaseIsNoneUnderTheLockWithoutAMessage) {
  ip_get_each_group(5, visit, 1);
  EXPECT_TRUE(visits.empty());
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(0)", "tsp_lock_release_rdlock(0)"}));
}

TEST_F(EachGroupTest, IsNoneWhenTheAttachmentEndedWhileItWaitedForTheLock) {
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  ip_get_each_group(5, visit, 1);
  EXPECT_TRUE(visits.empty());
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(EachGroupTest, OfAListBentIntoARingComesToAnEnd) {
  record->group_list.get()->next = record->group_list.get();
  attach();
  ip_get_each_group(5, count, 1);
  EXPECT_EQ(visit_count, 1u << 20);
}

TEST_F(EachGroupTest, EndsAtAWordThatLeadsOutOfTheDatabase) {
  attach();
  for (const uint32_t word :
       {platform().memory.top(), platform().memory.bottom() - 4, platform().memory.bottom() + 2}) {
    visits.clear();
    record->group_list.get()->next.word = word;
    ip_get_each_group(5, visit, 1);
    EXPECT_EQ(visits, (std::vector<Visit>{{first, 71, 1}}));
  }
}

}  // namespace
}  // namespace unit
