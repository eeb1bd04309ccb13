// SPDX-License-Identifier: Apache-2.0
#include "ipd/state/address_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

using namespace ipd;

AddressState primary(uint32_t addr, uint8_t scope = 0) {
  return {.addr = addr, .mask_len = 24, .secondary = false, .scope = scope};
}
AddressState secondary(uint32_t addr) {
  return {.addr = addr, .mask_len = 24, .secondary = true, .scope = 0};
}

using List = std::vector<AddressState>;

int kind(const AddressState &address) {
  return address.secondary ? 256 : 255 - address.scope;
}

// The publisher's rule, said plainly: an address that is new, or of another kind now, comes last of its kind.
List applied(List list, const AddressPlan &plan) {
  const auto same = [](const AddressState &a, const AddressState &b) {
    return a.addr == b.addr && a.mask_len == b.mask_len;
  };
  for (const AddressState &address : plan.remove) {
    EXPECT_EQ(std::erase_if(list, [&](const AddressState &other) { return same(address, other); }), 1u);
  }
  for (const AddressState &address : plan.set) {
    const auto there = std::find_if(list.begin(), list.end(), [&](const auto &other) { return same(address, other); });
    if (there != list.end() && kind(*there) == kind(address)) {
      *there = address;
      continue;
    }
    if (there != list.end()) list.erase(there);
    list.push_back(address);
    std::stable_sort(list.begin(), list.end(), [](const auto &a, const auto &b) { return kind(a) < kind(b); });
  }
  return list;
}

TEST(AddressPlan, NothingIsDoneWhenNothingDiffers) {
  const List list = {primary(1, 253), primary(2), secondary(3)};
  const AddressPlan plan = plan_addresses(list, list);
  EXPECT_TRUE(plan.remove.empty());
  EXPECT_TRUE(plan.set.empty());
}

TEST(AddressPlan, AnAddressAtTheEndIsOneCall) {
  const AddressPlan plan = plan_addresses({primary(1), primary(2)}, {primary(1), primary(2), primary(3)});
  EXPECT_TRUE(plan.remove.empty());
  EXPECT_EQ(plan.set, List{primary(3)});
}

TEST(AddressPlan, AnAddressThatGoesDisturbsNoOther) {
  const AddressPlan plan = plan_addresses({primary(1), primary(2), primary(3)}, {primary(1), primary(3)});
  EXPECT_EQ(plan.remove, List{primary(2)});
  EXPECT_TRUE(plan.set.empty());
}

TEST(AddressPlan, APromotedAddressIsSetAndNotTakenAway) {
  const AddressPlan plan = plan_addresses({primary(1), secondary(2)}, {primary(2)});
  EXPECT_EQ(plan.remove, List{primary(1)});
  EXPECT_EQ(plan.set, List{primary(2)});
}

TEST(AddressPlan, KindsDoNotDisturbEachOther) {
  const AddressPlan plan =
      plan_addresses({primary(1), secondary(5), secondary(6)}, {primary(9), primary(1), secondary(5), secondary(6)});
  EXPECT_EQ(plan.remove, List{primary(1)});
  EXPECT_EQ(plan.set, (List{primary(9), primary(1)}));
}

TEST(AddressPlan, AnyListBecomesAnyOther) {
  std::mt19937 random(7);
  const auto some_list = [&random] {
    List list;
    std::vector<uint32_t> numbers = {1, 2, 3, 4, 5, 6, 7};
    std::shuffle(numbers.begin(), numbers.end(), random);
    numbers.resize(random() % 8);
    for (uint32_t number : numbers) {
      const auto choice = random() % 3;
      list.push_back(choice == 0 ? secondary(number) : primary(number, choice == 1 ? 0 : 253));
    }
    std::stable_sort(list.begin(), list.end(), [](const auto &a, const auto &b) { return kind(a) < kind(b); });
    return list;
  };
  for (int round = 0; round < 5000; ++round) {
    const List told = some_list();
    const List wanted = some_list();
    ASSERT_EQ(applied(told, plan_addresses(told, wanted)), wanted);
  }
}

}  // namespace
