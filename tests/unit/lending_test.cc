// SPDX-License-Identifier: Apache-2.0
// The address of an interface, its own or a borrowed one, and which of several suits a destination. The guard around
// these questions is tested in interface_guard_test.cc.
//
// Who borrows: ip_get_local_addr, ip_get_local_prefix and ip_get_best_local_addr on an unnumbered interface only;
// ip_get_best_intf_addr also on one that merely has no address.
#include "unit/library_test.h"
#include "unit/random_words.h"

namespace unit {
namespace {

constexpr uint32_t iod = 5;
constexpr uint32_t lender = 6;
constexpr uint32_t own = address(10, 0, 0, 1);
constexpr uint32_t lent = address(192, 0, 2, 6);
constexpr uint32_t elsewhere = address(203, 0, 113, 1);
constexpr uint32_t untouched = 0xabcdef01;

class LendingFixture : public LibraryTest {
 protected:
  LendingFixture() : record(database.interface(iod)) {}

  void own_addresses(const std::vector<AddressAndLength> &list) { database.addresses(record, list); }
  ip_iftype *borrow_from(const std::vector<AddressAndLength> &list) {
    database.unnumbered(record, lender, "lo0");
    return database.interface(lender, list);
  }

  static uint32_t best_interface_address(uint32_t dest) {
    uint32_t addr = untouched;
    const uint32_t result = ip_get_best_intf_addr(iod, dest, &addr);
    if (result == 0) {
      EXPECT_EQ(addr, untouched) << "a failure leaves it";
      return 0;
    }
    EXPECT_EQ(result, 1u);
    return addr;
  }

  ip_iftype *record;
};

// ------------------------------------------------------------ all four, where they agree

struct Question {
  const char *name;
  uint32_t (*ask)();
};

uint32_t local_prefix_address() {
  ip_prefixtype prefix = {.addr = untouched, .mask_len = 99};
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 1u);
  EXPECT_EQ(prefix.mask_len == 0, prefix.addr == 0);
  return prefix.addr;
}

const Question questions[] = {
    {"LocalAddress", [] { return ip_get_local_addr(iod); }},
    {"LocalPrefix", local_prefix_address},
    {"BestLocalAddress", [] { return ip_get_best_local_addr(iod, address(192, 0, 2, 99)); }},
    {"BestInterfaceAddress",
     [] {
       uint32_t addr = 0;
       return ip_get_best_intf_addr(iod, address(192, 0, 2, 99), &addr) == 0 ? 0 : addr;
     }},
};

class BorrowedAddress : public LendingFixture, public testing::WithParamInterface<Question> {};

TEST_P(BorrowedAddress, IsTheLendersPrimary) {
  borrow_from({{lent, 24}, {address(192, 0, 2, 7), 24}});
  attach();
  EXPECT_EQ(GetParam().ask(), lent);
}

TEST_P(BorrowedAddress, IsReadUnderTheSameLock) {
  borrow_from({{lent, 24}});
  attach();
  GetParam().ask();
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)",
                            "lcache_im_get_extension1(6, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(BorrowedAddress, StandsBeforeItsOwn) {
  own_addresses({{address(192, 0, 2, 1), 25}});
  borrow_from({{lent, 24}});
  attach();
  EXPECT_EQ(GetParam().ask(), lent);
}

TEST_P(BorrowedAddress, IsNoneWhenTheLenderHasNone) {
  own_addresses({{address(192, 0, 2, 1), 25}});
  borrow_from({});
  attach();
  EXPECT_EQ(GetParam().ask(), 0u);
}

TEST_P(BorrowedAddress, IsNoneWhenTheLenderIsGone) {
  database.unnumbered(record, lender, "lo0");
  attach();
  EXPECT_EQ(GetParam().ask(), 0u);
}

TEST_P(BorrowedAddress, IsNoneWithoutALender) {
  database.unnumbered(record, 0, "lo0");
  attach();
  EXPECT_EQ(GetParam().ask(), 0u);
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 1u);
}

TEST_P(BorrowedAddress, IsNoneWhenTheInterfaceManagerFailsForTheLender) {
  borrow_from({{lent, 24}});
  attach();
  platform().scripts.fail_call("lcache_im_get_extension1", 2);
  EXPECT_EQ(GetParam().ask(), 0u);
}

TEST_P(BorrowedAddress, IsNotLentOn) {
  database.unnumbered(borrow_from({}), 7, "lo1");
  database.interface(7, {{lent, 24}});
  attach();
  EXPECT_EQ(GetParam().ask(), 0u);
}

TEST_P(BorrowedAddress, IsTheLendersOwnEvenWhenThatBorrowsToo) {
  database.unnumbered(borrow_from({{lent, 24}}), 7, "lo1");
  database.interface(7, {{address(192, 0, 2, 7), 24}});
  attach();
  EXPECT_EQ(GetParam().ask(), lent);
}

INSTANTIATE_TEST_SUITE_P(Questions, BorrowedAddress, testing::ValuesIn(questions),
                         [](const auto &of) { return std::string(of.param.name); });

// ------------------------------------------------------------ where they differ

class LendingTest : public LendingFixture {};

TEST_F(LendingTest, WithoutAddressesOrBorrowingOnlyTheBestInterfaceAddressIsLent) {
  record->unnum_src_iod = lender;
  database.interface(lender, {{lent, 24}});
  attach();
  EXPECT_EQ(best_interface_address(address(192, 0, 2, 99)), lent);
  EXPECT_EQ(ip_get_local_addr(iod), 0u);
  EXPECT_EQ(ip_get_best_local_addr(iod, address(192, 0, 2, 99)), 0u);
  EXPECT_EQ(local_prefix_address(), 0u);
}

TEST_F(LendingTest, WithAddressesASourceInterfaceAloneLendsNothing) {
  own_addresses({{own, 24}});
  record->unnum_src_iod = lender;
  database.interface(lender, {{lent, 24}});
  attach();
  EXPECT_EQ(ip_get_local_addr(iod), own);
  EXPECT_EQ(local_prefix_address(), own);
  EXPECT_EQ(ip_get_best_local_addr(iod, lent), own);
  EXPECT_EQ(best_interface_address(lent), 0u);
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 4u) << "the lender is not asked for";
}

TEST_F(LendingTest, OnlyTheBestInterfaceAddressTestsTheLendersSubnets) {
  borrow_from({{lent, 24}, {address(198, 51, 100, 6), 24}});
  attach();
  EXPECT_EQ(ip_get_best_local_addr(iod, elsewhere), lent);
  EXPECT_EQ(best_interface_address(elsewhere), 0u);
  EXPECT_EQ(ip_get_best_local_addr(iod, address(198, 51, 100, 99)), lent) << "no subnet test at all";
  EXPECT_EQ(best_interface_address(address(198, 51, 100, 99)), address(198, 51, 100, 6));
}

TEST_F(LendingTest, TheMaskIsThatOfTheInterfacesOwnRecord) {
  own_addresses({{own, 20}, {address(10, 0, 0, 2), 28}});
  attach();
  EXPECT_EQ(ip_get_local_mask(iod), 0xfffff000u);
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)",
                   "tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(LendingTest, TheMaskOfABorrowedAddressIsEmptyBecauseItIsNotInTheOwnList) {
  borrow_from({{lent, 24}});
  attach();
  EXPECT_EQ(ip_get_local_mask(iod), 0u);
}

TEST_F(LendingTest, TheMaskIsEmptyWithoutAnAddress) {
  EXPECT_EQ(ip_get_local_mask(iod), 0u) << "detached";
  attach();
  for (uint32_t of : {0u, iod, 99u}) EXPECT_EQ(ip_get_local_mask(of), 0u) << of;
}

TEST_F(LendingTest, TheMaskOfEachLength) {
  attach();
  for (uint32_t length = 0; length <= 32; length++) {
    own_addresses({{own, static_cast<uint8_t>(length)}});
    EXPECT_EQ(ip_get_local_mask(iod), ip_bits2mask(static_cast<uint8_t>(length))) << length;
  }
}

TEST_F(LendingTest, VirtualAddressCountIsTheRecordsOwnValue) {
  attach();
  for (uint32_t value : {0u, 1u, 0xffffffffu}) {
    record->vaddr_count = value;
    EXPECT_EQ(ip_get_vaddr_count_for_iod(iod), value);
  }
}

// ------------------------------------------------------------ the prefix

class LocalPrefixTest : public LendingFixture {
 protected:
  ip_prefixtype prefix = {.addr = untouched, .mask_len = 99};

  void expect_prefix(uint32_t addr, uint8_t mask_len) const {
    EXPECT_EQ(prefix.addr, addr);
    EXPECT_EQ(prefix.mask_len, mask_len);
  }
};

TEST_F(LocalPrefixTest, IsThePrimaryAndItsLength) {
  own_addresses({{own, 20}, {address(10, 0, 0, 2), 28}});
  attach();
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 1u);
  expect_prefix(own, 20);
}

TEST_F(LocalPrefixTest, IsTheLendersWithItsLength) {
  borrow_from({{lent, 24}});
  attach();
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 1u);
  expect_prefix(lent, 24);
}

TEST_F(LocalPrefixTest, ANullOutIsNoAndAsksNobody) {
  attach();
  EXPECT_EQ(ip_get_local_prefix(iod, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(LocalPrefixTest, WithoutAddressIsStillYesAndCleared) {
  attach();
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 1u);
  expect_prefix(0, 0);
}

TEST_F(LocalPrefixTest, WithoutInterfaceOrRecordIsStillYesAndCleared) {
  attach();
  for (uint32_t of : {0u, 99u}) {
    prefix = {.addr = untouched, .mask_len = 99};
    EXPECT_EQ(ip_get_local_prefix(of, &prefix), 1u) << of;
    expect_prefix(0, 0);
  }
}

TEST_F(LocalPrefixTest, WhenTheInterfaceManagerFailsIsStillYesAndCleared) {
  own_addresses({{own, 20}});
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 1u);
  expect_prefix(0, 0);
}

TEST_F(LocalPrefixTest, DetachedIsNoAndCleared) {
  own_addresses({{own, 20}});
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 0u);
  expect_prefix(0, 0);
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 0u);
}

TEST_F(LocalPrefixTest, DetachedTakesNoLock) {
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(LocalPrefixTest, IsNoAndClearedWhenAttachmentIsLostWhileItWaitsForTheLock) {
  own_addresses({{own, 20}});
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 0u);
  expect_prefix(0, 0);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(LocalPrefixTest, TakesNoLockInTheIpProcess) {
  own_addresses({{own, 20}});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ip_get_local_prefix(iod, &prefix), 1u);
  expect_prefix(own, 20);
  EXPECT_EQ(calls(), Calls{"lcache_im_get_extension1(5, 267)"});
}

// ------------------------------------------------------------ the best address for a destination

class BestAddressTest : public LendingFixture {};

TEST_F(BestAddressTest, TheLongestSubnetThatHoldsTheDestinationWins) {
  own_addresses({{own, 8}, {address(10, 1, 0, 1), 16}, {address(10, 1, 2, 1), 12}});
  attach();
  EXPECT_EQ(ip_get_best_local_addr(iod, address(10, 1, 2, 3)), address(10, 1, 0, 1));
  EXPECT_EQ(best_interface_address(address(10, 1, 2, 3)), address(10, 1, 0, 1));
  EXPECT_EQ(ip_get_best_local_addr(iod, address(10, 200, 2, 3)), own);
  EXPECT_EQ(best_interface_address(address(10, 200, 2, 3)), own);
}

TEST_F(BestAddressTest, ElsewhereThePrimaryIsGivenOrNone) {
  own_addresses({{own, 8}, {address(10, 1, 0, 1), 16}});
  attach();
  EXPECT_EQ(ip_get_best_local_addr(iod, address(192, 168, 1, 1)), own);
  EXPECT_EQ(best_interface_address(address(192, 168, 1, 1)), 0u);
}

TEST_F(BestAddressTest, TheEarlierOneWinsATie) {
  own_addresses({{own, 24}, {address(10, 0, 0, 2), 24}});
  attach();
  EXPECT_EQ(ip_get_best_local_addr(iod, address(10, 0, 0, 9)), own);
  EXPECT_EQ(best_interface_address(address(10, 0, 0, 9)), own);
  own_addresses({{address(172, 16, 0, 1), 24}, {address(10, 0, 0, 3), 24}, {address(10, 0, 0, 2), 24}});
  EXPECT_EQ(ip_get_best_local_addr(iod, address(10, 0, 0, 9)), address(10, 0, 0, 3));
  EXPECT_EQ(best_interface_address(address(10, 0, 0, 9)), address(10, 0, 0, 3));
}

TEST_F(BestAddressTest, APrimaryAloneIsGivenInAnyCase) {
  own_addresses({{own, 24}});
  attach();
  EXPECT_EQ(ip_get_best_local_addr(iod, elsewhere), own);
  EXPECT_EQ(best_interface_address(elsewhere), 0u);
}

TEST_F(BestAddressTest, TheAddressItselfIsADestination) {
  own_addresses({{own, 24}, {address(10, 0, 0, 2), 32}});
  attach();
  EXPECT_EQ(ip_get_best_local_addr(iod, address(10, 0, 0, 2)), address(10, 0, 0, 2));
  EXPECT_EQ(best_interface_address(own), own);
}

TEST_F(BestAddressTest, LengthZeroCountsAsNoSubnet) {
  own_addresses({{own, 0}, {address(10, 0, 0, 2), 0}});
  attach();
  EXPECT_EQ(ip_get_best_local_addr(iod, elsewhere), own);
  EXPECT_EQ(best_interface_address(elsewhere), 0u);
  own_addresses({{own, 24}, {address(10, 0, 0, 2), 0}});
  EXPECT_EQ(ip_get_best_local_addr(iod, elsewhere), own);
  EXPECT_EQ(best_interface_address(elsewhere), 0u);
}

TEST_F(BestAddressTest, ANullOutIsNoAndAsksNobody) {
  own_addresses({{own, 24}});
  attach();
  EXPECT_EQ(ip_get_best_intf_addr(iod, own, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(BestAddressTest, BothAnswerLikeATwinOnRandomLists) {
  RandomWords random;
  attach();
  platform().log.record(false);
  uint32_t matched = 0;
  for (int round = 0; round < 3000; round++) {
    std::vector<AddressAndLength> list;
    for (uint32_t n = 1 + random.below(6); n != 0; n--) {
      list.push_back({address(10, 0, 0, 0) | (random() & 0x80030003), static_cast<uint8_t>(random.below(33))});
    }
    own_addresses(list);
    const uint32_t dest = address(10, 0, 0, 0) | (random() & 0x80030003);
    uint32_t expected = 0;
    for (uint32_t length = 32; length >= 1 && expected == 0; length--) {
      for (const auto &[addr, mask_len] : list) {
        if (mask_len != length || addr >> (32 - length) != dest >> (32 - length)) continue;
        expected = addr;
        break;
      }
    }
    ASSERT_EQ(ip_get_best_local_addr(iod, dest), expected != 0 ? expected : list.front().addr);
    ASSERT_EQ(best_interface_address(dest), expected);
    matched += expected != 0 ? 1 : 0;
  }
  EXPECT_GT(matched, 500u);
  EXPECT_LT(matched, 2999u);
}

}  // namespace
}  // namespace unit
