// SPDX-License-Identifier: Apache-2.0
// Each pointer word of the shared records, one after the other, holds what cannot be an address: it counts as null, and
// each question answers as if nothing was there.
#include "unit/damaged_segment.h"

namespace unit {
namespace {

struct WildWord {
  const char *name;
  uint32_t (*word)(uint32_t bottom, uint32_t top);
};

class WildWords : public DamagedSegmentTest, public testing::WithParamInterface<WildWord> {
 protected:
  // Of interface 5, and of the one that borrows from it.
  static void expect_no_address() {
    for (const uint32_t iod : {5u, borrower}) {
      uint32_t out = 7;
      ip_prefixtype prefix{7, 7};
      EXPECT_EQ(ip_get_local_addr(iod), 0u);
      EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 1u);
      EXPECT_EQ(prefix.addr, 0u);
      EXPECT_EQ(ip_get_best_local_addr(iod, near_primary), 0u);
      EXPECT_EQ(ip_get_best_intf_addr(iod, near_primary, &out), 0u);
      EXPECT_EQ(ip_check_target_addr_for_local_subnet(iod, near_primary), 0u);
      EXPECT_EQ(ip_get_local_addr_for_subnet(iod, near_primary), 0u);
      EXPECT_EQ(ip_is_addr_directed_broadcast(address(10, 0, 0, 255), iod), 0u);
      EXPECT_EQ(ip_enabled(iod), 0u);
      EXPECT_EQ(out, 7u);
    }
    EXPECT_EQ(ip_get_each_enabled_iod(0), 0u);
    EXPECT_EQ(ip_get_each_multicast_iod(0), 0u);
    EXPECT_EQ(ip_get_loopback_addr(), 0u);
    EXPECT_EQ(ip_get_local_mcast_addr(2, nullptr), 0u);
    EXPECT_EQ(ip_is_addr_local_configured(2, primary), 0u);
  }
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
  EXPECT_EQ(ip_get_router_id(2), 0u);
  EXPECT_EQ(ip_get_next_address("red", 0), 0u);
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
  expect_no_address();
  ask_everything();
}

uint32_t groups_met;
uint32_t count_group(uint32_t, uint32_t, uint32_t) {
  groups_met++;
  return 0;
}

TEST_P(WildWords, EndTheListOfGroups) {
  set_word(record->group_list.get()->next, wild());
  attach();
  groups_met = 0;
  ip_get_each_group(5, count_group, 0);
  EXPECT_EQ(groups_met, 1u);
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
  EXPECT_EQ(ip_get_iod_for_local(context, primary), 0u);
  EXPECT_EQ(ip_is_addr_local("red", primary), 0u);
  EXPECT_EQ(ip_is_addr_local_intf(2, primary), 0u);
  EXPECT_EQ(ip_is_addr_local_vip(2, virtual_address), 0u);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(ip_get_next_address("red", 0), primary) << "the node alone is the answer";
}

TEST_P(WildWords, OfASubnetAreASubnetThatNobodyHolds) {
  set_word(subnet_node->info, wild());
  set_word(node->info, wild());
  set_word(vip_node->info, wild());
  attach();
  uint32_t out = 7;
  EXPECT_EQ(ip_get_iod_for_local_subnet("red", address(10, 0, 0, 0), 24), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Local PT address not found for context red ip 10.0.0.0/24");
  EXPECT_EQ(ip_find_overlap_interface(context, primary, 25, 0, &out), 0u);
  EXPECT_EQ(ip_check_for_prefix_overlap(context, primary, 25, &out), 0u);
  EXPECT_EQ(ip_check_for_prefix_overlap_no_state(context, primary, 25, &out), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_P(WildWords, OfAListOfHoldersOfASubnetAreNoHolder) {
  for (const ip_local_addr_node *each : {subnet_node, node, vip_node}) set_word(each->info.get()->iod_list, wild());
  attach();
  uint32_t out = 7;
  EXPECT_EQ(ip_get_iod_for_local_subnet("red", address(10, 0, 0, 0), 24), 0u);
  EXPECT_EQ(ip_find_overlap_interface(context, primary, 25, 0, &out), 0u);
  EXPECT_EQ(ip_check_for_prefix_overlap(context, primary, 25, &out), 0u);
  EXPECT_EQ(ip_check_for_prefix_overlap_no_state(context, primary, 25, &out), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(ip_is_addr_local("red", primary), 0u);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
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

TEST_P(WildWords, OfATreeAreATreeWithoutPrefixes) {
  set_word(context->local_pt, wild());
  attach();
  uint32_t out = 7;
  EXPECT_EQ(ip_get_iod_for_local(context, primary), 0u);
  EXPECT_EQ(ip_get_iod_for_local_subnet("red", address(10, 0, 0, 0), 24), 0u);
  EXPECT_EQ(ip_find_overlap_interface(context, primary, 8, 0, &out), 0u);
  EXPECT_EQ(ip_check_for_prefix_overlap(context, primary, 8, &out), 0u);
  EXPECT_EQ(ip_check_for_prefix_overlap_no_state(context, primary, 8, &out), 0u);
  EXPECT_EQ(ip_get_next_address("red", 0), 0u);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(ip_is_addr_local_configured(2, primary), 5u) << "the tree is not asked";
}

TEST_P(WildWords, AreNoStatistics) {
  set_word(record->stats, wild());
  attach();
  uint32_t packets = 7;
  uint64_t bytes = 7;
  EXPECT_EQ(ip_get_mcast_pkt_stats_orig(5, &packets, nullptr, nullptr, nullptr, nullptr), 0u);
  EXPECT_EQ(ip_get_mcast_byte_stats_orig(5, nullptr, &bytes), 0u);
  EXPECT_EQ(packets, 7u);
  EXPECT_EQ(bytes, 7u);
}

TEST_P(WildWords, AreNoLendersName) {
  set_word(borrowing->unnum_data, wild());
  attach();
  char name[16] = "before";
  uint32_t addr = 7;
  uint32_t flag = 7;
  EXPECT_EQ(ip_get_unnumbered_info(borrower, &addr, name, &flag), 1u);
  EXPECT_STREQ(name, "before");
  EXPECT_EQ(flag, 0u);
  EXPECT_STREQ(ip_api_get_error(), "Not an unnumbered interface 6");
  EXPECT_EQ(ip_get_local_addr(borrower), primary) << "it borrows all the same: the word alone says so";
  ask_everything();
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

}  // namespace
}  // namespace unit
