// SPDX-License-Identifier: Apache-2.0
// What protocols count and set up: PIM asserts, multicast counters of an interface, load sharing of equal-cost paths.
#include <array>
#include <cstring>

#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t untouched = 0xabcdef01;

// ------------------------------------------------------------ PIM asserts

class PimAssertTest : public LibraryTest {
 protected:
  PimAssertTest() {
    database.interface(5)->pim_assert_sent = 0xfffffff1;
    database.interface(6);
    platform().interfaces[8].name = "without IP";
  }
};

TEST_F(PimAssertTest, AreCountedPerInterface) {
  attach();
  EXPECT_EQ(ip_get_pim_assert_sent_count(5), 0xfffffff1u);
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)"}));
  EXPECT_EQ(ip_get_pim_assert_sent_count(6), 0u);
}

TEST_F(PimAssertTest, AreNoneOnAnInterfaceWithoutIpState) {
  attach();
  for (const uint32_t iod : {8u, 99u}) {
    EXPECT_EQ(ip_get_pim_assert_sent_count(iod), 0u);
    EXPECT_EQ(calls().back(), "tsp_lock_release_rdlock(7)");
  }
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(ip_get_pim_assert_sent_count(5), 0u);
}

TEST_F(PimAssertTest, AreNoneOnNoInterfaceUnderTheLock) {
  attach();
  EXPECT_EQ(ip_get_pim_assert_sent_count(0), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(PimAssertTest, AreCountedWithoutALockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ip_get_pim_assert_sent_count(5), 0xfffffff1u);
  EXPECT_EQ(calls(), Calls{"lcache_im_get_extension1(5, 267)"});
}

TEST_F(PimAssertTest, AreReportedAsUnknownWithoutTheDatabase) {
  const std::string message =
      limited("IP_INTERNAL_ERROR", "IP API not initialised when calling ip_get_pim_assert_sent_count()");
  EXPECT_EQ(ip_get_pim_assert_sent_count(5), 0u);
  EXPECT_EQ(ip_get_pim_assert_sent_count(0), 0u);
  EXPECT_EQ(calls(), (Calls{message, message}));
}

TEST_F(PimAssertTest, AreNoneWhenTheAttachmentEndedWhileTheyWaitedForTheLock) {
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ip_get_pim_assert_sent_count(5), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

// ------------------------------------------------------------ load sharing of equal-cost paths

class LoadshareTest : public LibraryTest {
 protected:
  ip_ecmp_loadshare_status status = {.mode = untouched, .value = untouched};
};

TEST_F(LoadshareTest, ModeIsWidenedAndValueTurnedIntoHostOrder) {
  database.root()->ecmp_loadshare_mode = 0xfe;
  database.root()->ecmp_loadshare_value = in_network_order(1);
  attach();
  EXPECT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
  EXPECT_EQ(status.mode, 0xfeu);
  EXPECT_EQ(status.value, 1u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(LoadshareTest, EveryByteOfTheValueIsTurned) {
  database.root()->ecmp_loadshare_value = in_network_order(0x01020384);
  attach();
  EXPECT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
  EXPECT_EQ(status.mode, 0u);
  EXPECT_EQ(status.value, 0x01020384u);
}

TEST_F(LoadshareTest, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(LoadshareTest, IsReportedAsUnknownWithoutTheDatabase) {
  EXPECT_EQ(ip_get_ecmp_loadshare_status(&status), 0u);
  EXPECT_EQ(calls(),
            Calls{limited("IP_INTERNAL_ERROR", "IP API not initialised when calling ip_get_ecmp_loadshare_status()")});
  EXPECT_EQ(status.mode, untouched);
  EXPECT_EQ(status.value, untouched);
}

TEST_F(LoadshareTest, IsUnknownWithQueuesOnlyWithoutLockOrMessage) {
  ip_api_init_mts_q();
  EXPECT_EQ(ip_get_ecmp_loadshare_status(&status), 0u);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(status.mode, untouched);
  EXPECT_EQ(status.value, untouched);
}

// ------------------------------------------------------------ multicast counters

// A statistics block in which each word says where it stands, so that a counter from elsewhere is seen.
class MulticastCounters : public LibraryTest {
 protected:
  static constexpr uint32_t block_bytes = 1024;

  MulticastCounters() {
    block = static_cast<uint8_t *>(platform().memory.allocate(block_bytes));
    for (uint32_t offset = 0; offset < block_bytes; offset += 4) {
      const uint32_t word = word_at(offset);
      std::memcpy(block + offset, &word, sizeof word);
    }
    record = database.interface(5);
    record->stats = block;
    database.interface(6);  // without statistics
    platform().interfaces[8].name = "without IP";
  }

  static uint32_t word_at(uint32_t offset) { return 0xc0de0000 | offset; }
  [[nodiscard]] uint64_t long_word_at(uint32_t offset) const {
    uint64_t value = 0;
    std::memcpy(&value, block + offset, sizeof value);
    return value;
  }

  uint32_t packets(uint32_t iod) { return ip_get_mcast_pkt_stats_orig(iod, &c[0], &c[1], &c[2], &c[3], &c[4]); }
  uint32_t bytes(uint32_t iod) { return ip_get_mcast_byte_stats_orig(iod, &b[0], &b[1]); }
  void expect_untouched() const {
    for (const uint32_t counter : c) EXPECT_EQ(counter, untouched);
    for (const uint64_t counter : b) EXPECT_EQ(counter, untouched);
  }

  uint8_t *block;
  ip_iftype *record;
  std::array<uint32_t, 5> c = {untouched, untouched, untouched, untouched, untouched};
  std::array<uint64_t, 2> b = {untouched, untouched};
};

TEST_F(MulticastCounters, OfPacketsAreTheFiveOfTheBlockInTheOrderOfTheArguments) {
  attach();
  EXPECT_EQ(packets(5), 1u);
  EXPECT_EQ(c, (std::array<uint32_t, 5>{word_at(584), word_at(600), word_at(616), word_at(696), word_at(680)}));
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(MulticastCounters, OfBytesAreTheTwoOfTheBlock) {
  attach();
  EXPECT_EQ(bytes(5), 1u);
  EXPECT_EQ(b[0], long_word_at(608));
  EXPECT_EQ(b[1], long_word_at(624));
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(MulticastCounters, OfBytesHaveAllSixtyFourBits) {
  for (const uint64_t value :
       {uint64_t{0}, ~uint64_t{0}, uint64_t{1} << 63, uint64_t{0xffffffff}, uint64_t{0x0123456789abcdef}}) {
    std::memcpy(block + 608, &value, sizeof value);
    if (ip_api_attached == 0) attach();
    EXPECT_EQ(bytes(5), 1u);
    EXPECT_EQ(b[0], value);
  }
}

TEST_F(MulticastCounters, ThatAreNotAskedForAreLeftOut) {
  attach();
  for (size_t wanted = 0; wanted < c.size(); wanted++) {
    const std::array<uint32_t, 5> all = {word_at(584), word_at(600), word_at(616), word_at(696), word_at(680)};
    uint32_t counter = untouched;
    std::array<uint32_t *, 5> out{};
    out[wanted] = &counter;
    EXPECT_EQ(ip_get_mcast_pkt_stats_orig(5, out[0], out[1], out[2], out[3], out[4]), 1u);
    EXPECT_EQ(counter, all[wanted]) << "counter " << wanted + 1;
  }
  EXPECT_EQ(ip_get_mcast_byte_stats_orig(5, nullptr, &b[1]), 1u);
  EXPECT_EQ(b[1], long_word_at(624));
  EXPECT_EQ(b[0], untouched);
  EXPECT_EQ(ip_get_mcast_byte_stats_orig(5, &b[0], nullptr), 1u);
  EXPECT_EQ(b[0], long_word_at(608));
}

TEST_F(MulticastCounters, NeedNotBeAskedForAtAll) {
  attach();
  EXPECT_EQ(ip_get_mcast_pkt_stats_orig(5, nullptr, nullptr, nullptr, nullptr, nullptr), 1u);
  EXPECT_EQ(ip_get_mcast_byte_stats_orig(5, nullptr, nullptr), 1u);
  EXPECT_EQ(ip_get_mcast_pkt_stats_orig(6, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
  EXPECT_EQ(ip_get_mcast_byte_stats_orig(6, nullptr, nullptr), 0u);
}

TEST_F(MulticastCounters, OfAnInterfaceWithoutStatisticsOrIpStateAreNone) {
  attach();
  for (const uint32_t iod : {6u, 8u, 99u}) {
    EXPECT_EQ(packets(iod), 0u) << iod;
    EXPECT_EQ(bytes(iod), 0u) << iod;
    EXPECT_EQ(calls().back(), "tsp_lock_release_rdlock(7)");
  }
  expect_untouched();
}

TEST_F(MulticastCounters, AreNoneWhenTheInterfaceManagerFails) {
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(packets(5), 0u);
  EXPECT_EQ(bytes(5), 0u);
  expect_untouched();
}

TEST_F(MulticastCounters, OfNoInterfaceAreNoneUnderTheLock) {
  attach();
  EXPECT_EQ(packets(0), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
  platform().log.clear();
  EXPECT_EQ(bytes(0), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
  expect_untouched();
}

TEST_F(MulticastCounters, WithoutTheDatabaseAreNoneUnderTheLockWithoutAMessage) {
  EXPECT_EQ(packets(5), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(0)", "tsp_lock_release_rdlock(0)"}));
  platform().log.clear();
  EXPECT_EQ(bytes(5), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(0)", "tsp_lock_release_rdlock(0)"}));
  expect_untouched();
}

TEST_F(MulticastCounters, AreReadWithoutALockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(packets(5), 1u);
  EXPECT_EQ(bytes(5), 1u);
  EXPECT_EQ(calls(), (Calls{"lcache_im_get_extension1(5, 267)", "lcache_im_get_extension1(5, 267)"}));
}

TEST_F(MulticastCounters, AreFoundInABlockThatBeginsAtAnyMultipleOfFour) {
  record->stats = block + 4;
  attach();
  EXPECT_EQ(packets(5), 1u);
  EXPECT_EQ(c, (std::array<uint32_t, 5>{word_at(588), word_at(604), word_at(620), word_at(700), word_at(684)}));
  EXPECT_EQ(bytes(5), 1u);
  EXPECT_EQ(b[0], long_word_at(612));
  EXPECT_EQ(b[1], long_word_at(628));
}

TEST_F(MulticastCounters, OfABlockOutsideTheDatabaseAreNone) {
  attach();
  for (const uint32_t word :
       {platform().memory.top(), platform().memory.top() - 4096, platform().memory.bottom() - 4, 4u, ~0u}) {
    record->stats.word = word;
    EXPECT_EQ(packets(5), 0u) << word;
    EXPECT_EQ(bytes(5), 0u) << word;
  }
  expect_untouched();
}

TEST_F(MulticastCounters, WithoutTheirSuffixReadNothingAndWriteNothing) {
  attach();
  EXPECT_EQ(ip_get_mcast_pkt_stats(5, &c[0], &c[1], &c[2], &c[3], &c[4]), 0u);
  EXPECT_EQ(ip_get_mcast_byte_stats(5, &b[0], &b[1]), 0u);
  EXPECT_EQ(ip_get_mcast_pkt_stats(5, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
  EXPECT_EQ(ip_get_mcast_byte_stats(0, nullptr, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{}) << "no lock either";
  expect_untouched();
  EXPECT_EQ(packets(5), 1u) << "the counters are there";
  EXPECT_EQ(c[0], word_at(584));
}

}  // namespace
}  // namespace unit
