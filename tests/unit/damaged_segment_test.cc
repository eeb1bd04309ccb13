// SPDX-License-Identifier: Apache-2.0
// A client must come back from every question, without a fault, whatever the words of the shared database hold.
//
// Where the descriptor's root lies inside the descriptor's own window, words that lead out of the window or to an
// unaligned place count as null, and every walk ends after 1 << 20 records.
#include <algorithm>
#include <cstring>

#include "unit/damaged_segment.h"
#include "unit/random_words.h"

namespace unit {
namespace {

TEST_F(DamagedSegmentTest, ARingOfAddressesIsWalkedAndEnds) {
  ip_addrtype *last = record->addr_list.get();
  while (last->next.get() != nullptr) last = last->next.get();
  last->next = record->addr_list.get();
  attach();
  EXPECT_EQ(ip_is_address_on_interface(absent, 5), 0u);
  EXPECT_EQ(ip_get_local_mask_len(absent, 5), 0u);
  EXPECT_EQ(ip_get_secondary_count(5), most_steps - 1);
  EXPECT_EQ(ip_is_address_on_interface(address(10, 0, 0, 3), 5), 1u);
  EXPECT_EQ(ip_get_local_mask_len(address(10, 0, 0, 3), 5), 24u) << "what is there is found";
  EXPECT_EQ(ip_check_target_addr_for_local_subnet(5, absent), 0u);
  EXPECT_EQ(ip_get_local_addr_for_subnet(5, near_primary), primary);
  EXPECT_EQ(ip_is_addr_directed_broadcast(absent, 5), 0u);
  EXPECT_EQ(ip_get_best_local_addr(5, absent), primary);
  uint32_t out = 7;
  EXPECT_EQ(ip_get_best_intf_addr(borrower, absent, &out), 0u);
  EXPECT_EQ(out, 7u);
  EXPECT_EQ(ip_is_addr_local_configured(2, absent), 0u);
  EXPECT_EQ(ip_is_addr_local_configured(2, address(10, 0, 0, 3)), 5u);
}

uint32_t groups_met;
uint32_t count_group(uint32_t, uint32_t, uint32_t) {
  groups_met++;
  return 0;
}

TEST_F(DamagedSegmentTest, ARingOfGroupsIsHandedOutAndEnds) {
  record->group_list.get()->next = record->group_list.get();
  attach();
  groups_met = 0;
  ip_get_each_group(5, count_group, 0);
  EXPECT_EQ(groups_met, most_steps);
}

TEST_F(DamagedSegmentTest, ARecordThatIsItsOwnSuccessorEndsEveryWalk) {
  record->addr_list.get()->next = record->addr_list.get();
  record->group_list.get()->next = record->group_list.get();
  context->next = context;
  attach();
  EXPECT_EQ(ip_get_local_mask_len(absent, 5), 0u);
  EXPECT_EQ(ip_is_group_joined(absent, 5), 0u);
  EXPECT_EQ(ip_get_api_context(77), nullptr);
  EXPECT_EQ(ip_get_api_context_by_name("green"), nullptr);
  EXPECT_EQ(ip_get_api_context_id("green"), 0u);
  EXPECT_EQ(ip_get_api_context_name(77), nullptr);
  EXPECT_EQ(ip_get_router_id(77), 0u);
  EXPECT_EQ(ip_get_router_id_iod_by_name("green"), 0u);
  EXPECT_EQ(ip_is_route_direct("green", primary), 0u);
  test_support::ask_every_query({"red", 2, 5, primary, 24});
}

TEST_F(DamagedSegmentTest, ATreeThatNeverEndsIsLeft) {
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(node));
  platform().log.record(false);
  uint32_t out = 0;
  EXPECT_EQ(ip_get_best_intf_vip(2, primary, 77, &out), 0u);
}

TEST_F(DamagedSegmentTest, ATreeThatNeverEndsHoldsNoActiveAddress) {
  platform().interfaces[5].up = false;
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(node));
  platform().log.record(false);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

TEST_F(DamagedSegmentTest, ATreeThatNeverEndsHoldsNoOverlap) {
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(node));
  platform().log.record(false);
  uint32_t out = 7;
  EXPECT_EQ(ip_find_overlap_interface(context, primary, 16, 5, &out), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_F(DamagedSegmentTest, ATreeOfSubnetsThatNeverEndsHoldsNoNextAddress) {
  platform().trees[context->local_pt.get()] = {};
  database.node(context, address(10, 0, 0, 0), {5}, {.length = 24});
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(subnet_node));
  platform().log.record(false);
  EXPECT_EQ(ip_get_next_address("red", 0), 0u);
}

TEST_F(DamagedSegmentTest, ALenderOfItselfIsAskedOnce) {
  borrowing->unnum_src_iod = borrower;
  attach();
  EXPECT_EQ(ip_get_local_addr(borrower), 0u);
  EXPECT_EQ(ip_get_best_local_addr(borrower, primary), 0u);
  EXPECT_EQ(ip_enabled(borrower), 0u);
  ask_everything();
}

TEST_F(DamagedSegmentTest, ALendersNameWithoutItsTerminatorIsCopiedToTheNextZero) {
  constexpr size_t unterminated = 3 * 4096;
  auto *text = static_cast<char *>(platform().memory.allocate(unterminated));
  memset(text, 'n', unterminated);
  borrowing->unnum_data = reinterpret_cast<ip_unnumbered *>(text);
  attach();
  std::vector<char> name(unterminated + 64, '#');
  uint32_t addr = 0;
  uint32_t flag = 0;
  EXPECT_EQ(ip_get_unnumbered_info(borrower, &addr, name.data(), &flag), 1u);
  EXPECT_EQ(strlen(name.data()), unterminated);
  EXPECT_EQ(name[unterminated + 1], '#') << "nothing behind the terminator";
  EXPECT_EQ(flag, 1u);
  EXPECT_EQ(addr, primary);
}

TEST_F(DamagedSegmentTest, ALendersNameAtTheEndOfTheWindowEndsInTheUnusedPage) {
  auto *text = reinterpret_cast<char *>(static_cast<uintptr_t>(platform().memory.top() - 4096 - 4));
  memset(text, 'n', 4);
  borrowing->unnum_data = reinterpret_cast<ip_unnumbered *>(text);
  attach();
  char name[16];
  uint32_t addr = 0;
  uint32_t flag = 0;
  EXPECT_EQ(ip_get_unnumbered_info(borrower, &addr, name, &flag), 1u);
  EXPECT_STREQ(name, "nnnn");
}

TEST_F(DamagedSegmentTest, ASummaryIsOneLineOfLimitedLengthWhateverTheNameOfTheLender) {
  constexpr size_t unterminated = 3 * 4096;
  auto *text = static_cast<char *>(platform().memory.allocate(unterminated));
  memset(text, 'n', unterminated);
  borrowing->unnum_data = reinterpret_cast<ip_unnumbered *>(text);
  attach();
  ip_print_addr_summary(borrower, test_support::nowhere(), nullptr);
  ASSERT_EQ(platform().command_output.size(), 1u);
  EXPECT_LT(platform().command_output[0].size(), 100u);
}

TEST_F(DamagedSegmentTest, ASummaryOfARingOfAddressesShowsItsFirst) {
  record->addr_list.get()->next = record->addr_list.get();
  attach();
  ip_print_addr_summary(5, test_support::nowhere(), nullptr);
  ASSERT_EQ(platform().command_output.size(), 1u);
  EXPECT_EQ(platform().command_output[0], "  IP address: 10.0.0.1, IP subnet: 10.0.0.0/24\n");
}

TEST_F(DamagedSegmentTest, ASummaryOfAWordThatLeadsNowhereShowsNone) {
  set_word(record->addr_list, 0xfffffffc);
  attach();
  ip_print_addr_summary(5, test_support::nowhere(), nullptr);
  ASSERT_EQ(platform().command_output.size(), 1u);
  EXPECT_EQ(platform().command_output[0], "  IP address: none\n");
}

TEST_F(DamagedSegmentTest, AListOfAllStepsIsWalkedToItsEnd) {
  ip_addrtype *first = nullptr;
  for (uint32_t i = 0; i < most_steps; i++) {
    auto *made = platform().memory.make<ip_addrtype>();
    made->addr = i + 1;
    made->mask_len = 32;
    made->next = first;
    first = made;
  }
  record->addr_list = first;
  attach();
  EXPECT_EQ(ip_get_secondary_count(5), most_steps - 1);
  EXPECT_EQ(ip_is_address_on_interface(1, 5), 1u) << "the last record";
}

TEST_F(DamagedSegmentTest, TheLastRecordBeforeTheUnusedPageIsRead) {
  auto *last = reinterpret_cast<ip_addrtype *>(static_cast<uintptr_t>(platform().memory.top() - 4096 - 4));
  last->addr = address(192, 0, 2, 1);
  last->mask_len = 30;
  record->addr_list.get()->next = last;
  attach();
  EXPECT_EQ(ip_get_local_mask_len(address(192, 0, 2, 1), 5), 30u);
}

TEST_F(DamagedSegmentTest, TheFirstRecordOfTheWindowIsRead) {
  auto *first = reinterpret_cast<ip_addrtype *>(static_cast<uintptr_t>(platform().memory.bottom()));
  first->addr = address(192, 0, 2, 1);
  first->mask_len = 30;
  record->addr_list.get()->next = first;
  attach();
  EXPECT_EQ(ip_get_local_mask_len(address(192, 0, 2, 1), 5), 30u);
}

TEST_F(DamagedSegmentTest, ADescriptorThatDoesNotHoldItsRootBoundsNothing) {
  platform().descriptor.bottom = 0x1000;
  platform().descriptor.top = 0x9000;
  attach();
  EXPECT_EQ(ip_get_api_context(3), second_context);
  EXPECT_EQ(ip_get_secondary_count(5), 2u);
  EXPECT_EQ(ip_get_iod_for_local_address("red", primary), 5u);
}

// A platform that keeps records where it likes, beside a window that holds its root.
TEST_F(DamagedSegmentTest, AWindowThatIsNotSaidToHoldAllRecordsBoundsNothing) {
  platform().descriptor.bounded = 0;
  platform().descriptor.bottom = platform().descriptor.root;
  platform().descriptor.top = platform().descriptor.root + 4096 + 32;
  attach();
  EXPECT_EQ(ip_get_api_context(2), context);
  EXPECT_EQ(ip_get_secondary_count(5), 2u);
  EXPECT_EQ(ip_get_iod_for_local_address("red", primary), 5u);
}

TEST_F(DamagedSegmentTest, ADescriptorOfZerosBoundsNothing) {
  platform().descriptor.bottom = platform().descriptor.top = 0;
  attach();
  EXPECT_EQ(ip_get_api_context(3), second_context);
  EXPECT_EQ(ip_get_secondary_count(5), 2u);
}

TEST_F(DamagedSegmentTest, WithoutAWindowARingStillEnds) {
  platform().descriptor.bottom = platform().descriptor.top = 0;
  record->addr_list.get()->next = record->addr_list.get();
  context->next = context;
  attach();
  EXPECT_EQ(ip_get_local_mask_len(absent, 5), 0u);
  EXPECT_EQ(ip_get_api_context(77), nullptr);
}

TEST_F(DamagedSegmentTest, TheWindowIsThatOfTheSegmentAttachedLast) {
  attach();
  ip_api_close();
  platform().descriptor.bottom = platform().descriptor.top = 0;
  attach();
  EXPECT_EQ(ip_get_secondary_count(5), 2u);
}

TEST_F(DamagedSegmentTest, AfterADetachNothingIsBounded) {
  platform().descriptor.bottom = platform().descriptor.root;
  platform().descriptor.top = platform().descriptor.root + 4096 + 32;
  attach();
  EXPECT_EQ(ip_get_api_context(2), nullptr) << "the window holds the root alone";
  ip_api_close();
  ip_api_init_mts_q();
  ip_api_contexts_queue = database.root();
  EXPECT_EQ(ip_get_api_context(2), context);
}

TEST_F(DamagedSegmentTest, AContextNameWithoutItsTerminatorMatchesNothingLonger) {
  memset(context->name, 'n', sizeof context->name);
  context->table_id = 0;  // a NUL right behind the name
  attach();
  EXPECT_EQ(ip_get_api_context_by_name("n"), nullptr);
  EXPECT_EQ(ip_get_api_context_by_name(std::string(36, 'n').c_str()), nullptr);
  EXPECT_EQ(ip_get_api_context_id("blue"), 3u);
}

TEST_F(DamagedSegmentTest, AMaskLengthOutOfRangeIsHandedOutAsItStands) {
  record->addr_list.get()->mask_len = 255;
  attach();
  EXPECT_EQ(ip_get_local_mask_len(primary, 5), 255u);
  uint32_t out = 0;
  ip_get_best_intf_vip(2, primary, 5, &out);
}

TEST_F(DamagedSegmentTest, RandomWordsInAllRecordsNeverFault) {
  RandomWords random;
  attach();
  platform().log.record(false);
  const uint32_t bottom = platform().memory.bottom();
  constexpr uint32_t used = 4096;  // the records of this fixture
  std::vector<uint32_t> before(used / 4);
  auto *words = reinterpret_cast<uint32_t *>(static_cast<uintptr_t>(bottom + 4096));
  std::copy(words, words + before.size(), before.begin());
  for (int round = 0; round < 100; round++) {
    const uint32_t hits = 1 + random.below(20);
    for (uint32_t i = 0; i < hits; i++) {
      uint32_t &word = words[random.below(300)];
      switch (random.below(3)) {
        case 0:
          word = random();
          break;
        case 1:
          word = bottom + random.below(2 * 4096);
          break;
        default:
          word = bottom + 4096 + (random.below(used) & ~3u);
      }
    }
    ask_everything();
    std::copy(before.begin(), before.end(), words);
  }
  EXPECT_EQ(ip_get_secondary_count(5), 2u) << "the undamaged database is whole again";
  // A virtual address of a context whose table was damaged to 0: URIB's lock is released, not taken.
  EXPECT_LE(platform().locks.urib_depth, 0);
  expect_urib_depth(platform().locks.urib_depth);
}

}  // namespace
}  // namespace unit
