// SPDX-License-Identifier: Apache-2.0
// A client must come back from every question, without a fault, whatever the words of the shared database hold.
//
// Where the descriptor's root lies inside the descriptor's own window, words that lead out of the window or to an
// unaligned place count as null, and every walk ends after 1 << 20 records.
#include <algorithm>
#include <cstring>

#include "unit/library_test.h"
#include "unit/random_words.h"

namespace unit {
namespace {

constexpr uint32_t most_steps = 1u << 20;
constexpr uint32_t primary = address(10, 0, 0, 1);
constexpr uint32_t absent = address(203, 0, 113, 99);

class DamagedSegmentTest : public LibraryTest {
 protected:
  DamagedSegmentTest() {
    context = database.context(2, "red", 20);
    second_context = database.context(3, "blue", 30);
    record = database.interface(5, {{primary, 24}, {address(10, 0, 0, 2), 24}, {address(10, 0, 0, 3), 24}});
    database.groups(record, {address(239, 1, 1, 1), address(239, 1, 1, 2)});
    node = database.node(context, primary, {5});
    vip_node = database.node(context, address(10, 0, 0, 9), {6}, {.vip = true});
  }

  // All queries that follow words of the segment; what they answer is checked by the tests that know.
  static void ask_everything() {
    ip_get_api_context(2);
    ip_get_api_context(77);
    ip_get_api_context_by_name("green");
    ip_get_api_context_id("blue");
    ip_get_api_context_name(77);
    ip_is_address_on_interface(absent, 5);
    ip_get_local_mask_len(absent, 5);
    uint32_t addr = absent;
    uint8_t len = 32;
    ip_get_next_secondary(5, &addr, &len);
    addr = 0;
    ip_get_next_secondary(5, &addr, &len);
    ip_get_secondary_count(5);
    ip_is_group_joined(absent, 5);
    ip_allow_directed_broadcast(5);
    ip_is_iod_unnumbered(5);
    ip_is_multicast_enabled(5);
    ip_get_iod_for_local_address("red", primary);
    ip_get_alliod_for_address("red", primary);
    uint32_t out = 0;
    ip_get_best_intf_vip(2, 0, 5, &out);
  }

  template <class T>
  static void set_word(ip_shm_ptr<T> &pointer, uint32_t word) {
    pointer.word = word;
  }
  [[nodiscard]] static uint32_t word_of(const void *target) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(target));
  }

  ip_api_context_type *context;
  ip_api_context_type *second_context;
  ip_iftype *record;
  ip_local_addr_node *node;
  ip_local_addr_node *vip_node;
};

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
  ask_everything();
}

TEST_F(DamagedSegmentTest, ATreeThatNeverEndsIsLeft) {
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(node));
  platform().log.record(false);
  uint32_t out = 0;
  EXPECT_EQ(ip_get_best_intf_vip(2, primary, 77, &out), 0u);
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

struct WildWord {
  const char *name;
  uint32_t (*word)(uint32_t bottom, uint32_t top);
};

class WildWords : public DamagedSegmentTest, public testing::WithParamInterface<WildWord> {
 protected:
  [[nodiscard]] uint32_t wild() const { return GetParam().word(platform().memory.bottom(), platform().memory.top()); }
};

TEST_P(WildWords, EndTheListOfContexts) {
  set_word(context->next, wild());
  attach();
  EXPECT_EQ(ip_get_api_context(3), nullptr);
  EXPECT_EQ(ip_get_api_context(2), context);
  ask_everything();
}

TEST_P(WildWords, AtTheRootAreAnEmptyListOfContexts) {
  set_word(database.root()->contexts, wild());
  attach();
  EXPECT_EQ(ip_get_api_context(2), nullptr);
  EXPECT_EQ(ip_get_api_context_id("red"), 0u);
  ask_everything();
}

TEST_P(WildWords, EndTheListOfAddresses) {
  set_word(record->addr_list.get()->next, wild());
  attach();
  EXPECT_EQ(ip_get_secondary_count(5), 0u);
  EXPECT_EQ(ip_get_local_mask_len(primary, 5), 24u);
  uint32_t addr = 0;
  uint8_t len = 9;
  ip_get_next_secondary(5, &addr, &len);
  EXPECT_EQ(addr, 0u);
  EXPECT_EQ(len, 0u);
  ask_everything();
}

TEST_P(WildWords, AtTheHeadAreAnInterfaceWithoutAddressesAndGroups) {
  set_word(record->addr_list, wild());
  set_word(record->group_list, wild());
  attach();
  EXPECT_EQ(ip_get_secondary_count(5), 0u);
  EXPECT_EQ(ip_is_address_on_interface(primary, 5), 0u);
  EXPECT_EQ(ip_is_group_joined(address(239, 1, 1, 1), 5), 0u);
  ask_everything();
}

TEST_P(WildWords, EndTheListOfGroups) {
  set_word(record->group_list.get()->next, wild());
  attach();
  EXPECT_EQ(ip_is_group_joined(address(239, 1, 1, 2), 5), 0u);
  EXPECT_EQ(ip_is_group_joined(address(239, 1, 1, 1), 5), 1u);
}

TEST_P(WildWords, OfANodeAreAnAddressOfWhichNothingIsKnown) {
  set_word(node->info, wild());
  set_word(vip_node->info, wild());
  attach();
  EXPECT_EQ(ip_get_iod_for_local_address("red", primary), 0u);
  uint32_t out = 7;
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 6, &out), 0u);
  EXPECT_EQ(out, 7u);
}

TEST_P(WildWords, OfAListOfHoldersAreNoHolder) {
  set_word(node->info.get()->iod_list, wild());
  set_word(vip_node->info.get()->iod_list, wild());
  attach();
  EXPECT_EQ(ip_get_iod_for_local_address("red", primary), 0u);
  uint32_t out = 7;
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 6, &out), 0u);
  EXPECT_EQ(out, address(10, 0, 0, 9));
}

TEST_P(WildWords, OfATreeAreATreeWithoutTheAddress) {
  set_word(context->local_pt, wild());
  attach();
  EXPECT_EQ(ip_get_iod_for_local_address("red", primary), 0u);
  uint32_t out = 7;
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 6, &out), 0u);
}

TEST_P(WildWords, StillSayThatAnInterfaceIsUnnumbered) {
  set_word(record->unnum_data, wild());
  attach();
  EXPECT_EQ(ip_is_iod_unnumbered(5), 1u) << "the word alone is the answer";
}

INSTANTIATE_TEST_SUITE_P(
    Words, WildWords,
    testing::Values(WildWord{"LowPage", [](uint32_t, uint32_t) { return 8u; }},
                    WildWord{"JustBelow", [](uint32_t bottom, uint32_t) { return bottom - 4; }},
                    WildWord{"AtTheUnusedPage", [](uint32_t, uint32_t top) { return top - 4096; }},
                    WildWord{"AtTheTop", [](uint32_t, uint32_t top) { return top; }},
                    WildWord{"Highest", [](uint32_t, uint32_t) { return 0xfffffffcu; }},
                    WildWord{"AllOnes", [](uint32_t, uint32_t) { return 0xffffffffu; }},
                    WildWord{"UnalignedByOne", [](uint32_t bottom, uint32_t) { return bottom + 4097; }},
                    WildWord{"UnalignedByTwo", [](uint32_t bottom, uint32_t) { return bottom + 4098; }},
                    WildWord{"Text", [](uint32_t, uint32_t) { return 0x41414141u; }}),
    [](const auto &of) { return std::string(of.param.name); });

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
  for (int round = 0; round < 300; round++) {
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
}

}  // namespace
}  // namespace unit
