// SPDX-License-Identifier: Apache-2.0
// The arena beside a naive twin: who may see what, and what therefore must not be handed out again.
#include "sm/arena.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "platform/simulated_epochs.h"
#include "platform/standard_error.h"
#include "support/run_directory.h"

namespace {

using namespace std::chrono_literals;
using rsw::Arena;
using rsw::ArenaLimits;
using rsw::Domain;
using rsw::RecordType;
using rsw::RecordTypeInfo;
using rsw::SegmentMap;
using test_support::RunDirectory;
using test_support::SimulatedEpochs;
using test_support::standard_error_of;
using Time = std::chrono::steady_clock::time_point;

constexpr RecordType small = 1;
constexpr RecordType odd = 2;
constexpr RecordType large = 3;
constexpr RecordTypeInfo types[] = {
    {small, 24, 8, 0, "small"}, {odd, 100, 64, 1, "odd"}, {large, 150000, 8, 2, "large"}};
constexpr uint32_t fixed_area = 6000;

uint32_t address_of(const void *record) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record));
}

class ArenaTest : public testing::Test {
 protected:
  void open(ArenaLimits limits = {.quarantine = 0ms, .retired_bytes_cap = UINT64_MAX},
            std::span<const RecordTypeInfo> with = types, const rsw::SegmentLayout &layout = rsw::segment_ip) {
    arena_.reset();
    segment_.reset();
    std::string reason;
    segment_ = SegmentMap::create(layout, &reason);
    ASSERT_NE(segment_, nullptr) << reason;
    arena_ = Arena::open(segment_, epochs_, Domain::database, fixed_area, with, limits, &reason);
    ASSERT_NE(arena_, nullptr) << reason;
    ASSERT_TRUE(segment_->publish_name(&reason)) << reason;
  }
  void tick_after(std::chrono::milliseconds later) { arena_->tick(now_ += later); }
  [[nodiscard]] rsw::RecordTypeUse use_of(RecordType type) const {
    for (const auto &use : arena_->use()) {
      if (use.info.type == type) return use;
    }
    return {};
  }

  RunDirectory run_;
  SimulatedEpochs epochs_{4};
  std::shared_ptr<SegmentMap> segment_;
  std::unique_ptr<Arena> arena_;
  Time now_{};
};

TEST_F(ArenaTest, RecordsAreZeroedAlignedAndInsideTheUsedArea) {
  open();
  for (const RecordTypeInfo &type : types) {
    for (int i = 0; i < 40; ++i) {
      auto *record = static_cast<unsigned char *>(arena_->allocate(type.type));
      ASSERT_NE(record, nullptr);
      EXPECT_EQ(address_of(record) % type.align, 0u);
      EXPECT_GE(address_of(record), segment_->layout().base + fixed_area);
      EXPECT_LE(address_of(record) + type.size, segment_->header()->used_end);
      EXPECT_TRUE(std::all_of(record, record + type.size, [](unsigned char byte) { return byte == 0; }));
      std::fill(record, record + type.size, static_cast<unsigned char>(0xaa));
    }
  }
}

TEST_F(ArenaTest, ReusedRecordIsZeroedAgain) {
  open();
  auto *record = static_cast<uint64_t *>(arena_->allocate(small));
  record[0] = record[2] = ~uint64_t{0};
  arena_->give_back(small, record);
  auto *next = static_cast<uint64_t *>(arena_->allocate(small));
  ASSERT_EQ(next, record);
  EXPECT_EQ(next[0] | next[1] | next[2], 0u);
}

TEST_F(ArenaTest, RetiredRecordWaitsForTheReaderThatMaySeeIt) {
  open();
  void *record = arena_->allocate(small);
  epochs_.enter(0);
  arena_->retire(small, record);
  tick_after(5s);
  EXPECT_EQ(arena_->retired_bytes(), 24u);
  epochs_.enter(1);  // later than the change: does not see the record
  epochs_.leave(0);
  tick_after(1ms);
  EXPECT_EQ(arena_->retired_bytes(), 0u);
  EXPECT_EQ(arena_->allocate(small), record);
}

TEST_F(ArenaTest, RetiredRecordRestsForTheQuarantineEvenWithoutReaders) {
  open({.quarantine = 1000ms, .retired_bytes_cap = 0});
  arena_->retire(small, arena_->allocate(small));
  tick_after(1ms);
  tick_after(999ms);
  EXPECT_EQ(use_of(small).retired, 1u);
  tick_after(1ms);
  EXPECT_EQ(use_of(small).retired, 0u);
  EXPECT_TRUE(epochs_.overruled().empty());
}

TEST_F(ArenaTest, RecordsComeBackOldestFirst) {
  open();
  std::vector<void *> records;
  for (int i = 0; i < 5; ++i) records.push_back(arena_->allocate(odd));
  for (void *record : records) {
    arena_->retire(odd, record);
    tick_after(1ms);
  }
  for (void *record : records) EXPECT_EQ(arena_->allocate(odd), record);
}

TEST_F(ArenaTest, ReaderThatHoldsUpTooMuchIsOverruledAndNamed) {
  open({.quarantine = 0ms, .retired_bytes_cap = 1000});
  epochs_.enter(2);
  const auto retire_one = [&] { arena_->retire(small, arena_->allocate(small)); };
  const std::string quiet = standard_error_of([&] {
    for (int i = 0; i < 40; ++i) retire_one();
    tick_after(1s);
  });
  EXPECT_EQ(quiet, "");
  EXPECT_TRUE(epochs_.overruled().empty());
  const std::string log = standard_error_of([&] {
    for (int i = 0; i < 10; ++i) retire_one();
    tick_after(1s);
  });
  EXPECT_NE(log.find("process 4242 (stuckd)"), std::string::npos) << log;
  EXPECT_EQ(epochs_.overruled(), std::vector<uint32_t>{2});
  EXPECT_EQ(arena_->retired_bytes(), 0u);
}

TEST_F(ArenaTest, CountsLiveRetiredAndFree) {
  open();
  void *kept = arena_->allocate(small);
  void *given_back = arena_->allocate(small);
  void *retired = arena_->allocate(small);
  arena_->give_back(small, given_back);
  arena_->retire(small, retired);
  const auto use = use_of(small);
  EXPECT_EQ(use.live, 1u);
  EXPECT_EQ(use.retired, 1u);
  EXPECT_EQ(use.free, 2716u - 2u) << "a chunk holds records of 24 bytes and a mark of one bit for each";
  EXPECT_EQ(use.info.name, "small");
  arena_->retire(small, kept);
}

TEST_F(ArenaTest, FullWindowIsNullLoggedOnceAndRecovers) {
  open({.quarantine = 0ms, .retired_bytes_cap = UINT64_MAX}, types, rsw::segment_sysmgr);
  std::vector<void *> records;
  const std::string log = standard_error_of([&] {
    while (void *record = arena_->allocate(large)) records.push_back(record);
    EXPECT_EQ(arena_->allocate(large), nullptr);
    EXPECT_EQ(arena_->allocate(large), nullptr);
  });
  EXPECT_EQ(records.size(), 4u) << "of 15 chunks, three for each";
  EXPECT_NE(log.find("is full"), std::string::npos) << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  arena_->retire(large, records[2]);
  tick_after(1ms);
  EXPECT_EQ(arena_->allocate(large), records[2]);
  EXPECT_NE(arena_->allocate(small), nullptr) << "the chunks that are left serve smaller records";
}

TEST_F(ArenaTest, MisuseStopsTheWriterBeforeItCanDoHarm) {
  open();
  void *record = arena_->allocate(small);
  arena_->retire(small, record);
  EXPECT_DEATH(arena_->retire(small, record), "not live");
  EXPECT_DEATH(arena_->give_back(small, record), "not live");
  EXPECT_DEATH(arena_->retire(odd, arena_->allocate(small)), "not live");
  EXPECT_DEATH(arena_->retire(small, static_cast<char *>(arena_->allocate(small)) + 4), "not live");
  EXPECT_DEATH(static_cast<void>(arena_->allocate(9)), "unknown type");
}

TEST_F(ArenaTest, TypesThatMakeNoSenseAreRefused) {
  open();
  std::string reason;
  const auto refused = [&](std::vector<RecordTypeInfo> wrong) {
    return Arena::open(segment_, epochs_, Domain::database, fixed_area, wrong, {}, &reason) == nullptr;
  };
  EXPECT_TRUE(refused({{0, 8, 8, 0, "zero"}}));
  EXPECT_TRUE(refused({{1, 0, 8, 0, "empty"}}));
  EXPECT_TRUE(refused({{1, 8, 4, 0, "alignment 4"}}));
  EXPECT_TRUE(refused({{1, 8, 24, 0, "alignment 24"}}));
  EXPECT_TRUE(refused({{1, 8, 8, 0, "one"}, {1, 16, 8, 0, "same"}}));
  EXPECT_NE(reason.find("number 1"), std::string::npos) << reason;
}

// --- take-over

TEST_F(ArenaTest, TakeOverKeepsWhatIsAdoptedAndFreesTheRest) {
  open();
  std::vector<uint32_t *> records;
  for (uint32_t i = 0; i < 100; ++i) {
    records.push_back(static_cast<uint32_t *>(arena_->allocate(small)));
    records.back()[0] = i;
  }
  open();
  ASSERT_TRUE(segment_->took_over());
  for (uint32_t i = 0; i < 100; i += 2) {
    EXPECT_TRUE(arena_->adopt(small, records[i]));
    EXPECT_EQ(records[i][0], i);
  }
  EXPECT_EQ(use_of(small).live, 50u);
  void *made_anew = arena_->allocate(small);
  EXPECT_EQ(std::count(records.begin(), records.end(), made_anew), 0) << "nothing old is reused before it is retired";
  epochs_.enter(0);
  arena_->retire_unadopted();
  tick_after(1s);
  EXPECT_NE(arena_->retired_bytes(), 0u) << "a reader of the old state is still inside";
  epochs_.leave(0);
  tick_after(1s);
  EXPECT_EQ(arena_->retired_bytes(), 0u);
  std::set<const void *> handed_out;
  for (int i = 0; i < 5000; ++i) EXPECT_TRUE(handed_out.insert(arena_->allocate(small)).second);
  EXPECT_TRUE(handed_out.contains(records[1]));
  for (uint32_t i = 0; i < 100; i += 2) EXPECT_FALSE(handed_out.contains(records[i]));
}

TEST_F(ArenaTest, TakeOverUsesWhatThePreviousWriterHadLeft) {
  open();
  void *big = arena_->allocate(large);
  void *other_big = arena_->allocate(large);
  arena_->retire(large, other_big);
  tick_after(1s);
  std::set<const void *> given_out;
  for (int i = 0; i < 100; ++i) given_out.insert(arena_->allocate(small));
  const uint32_t used_end = segment_->header()->used_end;
  for (int round = 0; round < 20; ++round) {
    open();
    EXPECT_EQ(arena_->allocate(large), other_big);
    std::swap(big, other_big);
    std::set<const void *> fresh;
    for (int i = 0; i < 100; ++i) fresh.insert(arena_->allocate(small));
    for (const void *record : given_out) EXPECT_FALSE(fresh.contains(record)) << "it was not retired yet";
    arena_->retire_unadopted();
    tick_after(1s);
    given_out = fresh;
  }
  EXPECT_EQ(segment_->header()->used_end, used_end);
}

TEST_F(ArenaTest, OnlyRecordsOfTheirTypeAreAdoptedAndOnce) {
  open();
  auto *record = static_cast<char *>(arena_->allocate(odd));
  void *big = arena_->allocate(large);
  open();
  EXPECT_FALSE(arena_->adopt(small, record));
  EXPECT_FALSE(arena_->adopt(odd, record + 1));
  EXPECT_FALSE(arena_->adopt(odd, record + (1 << 20)));
  EXPECT_FALSE(arena_->adopt(odd, nullptr));
  EXPECT_FALSE(arena_->adopt(0, record));
  EXPECT_FALSE(arena_->adopt(77, record));
  EXPECT_FALSE(arena_->adopt(large, static_cast<char *>(big) + 65536)) << "the second chunk of a run";
  EXPECT_TRUE(arena_->adopt(odd, record));
  EXPECT_FALSE(arena_->adopt(odd, record));
  EXPECT_TRUE(arena_->adopt(large, big));
}

TEST_F(ArenaTest, ChunksOfUnknownTypesAreLeftAlone) {
  open();
  auto *record = static_cast<uint32_t *>(arena_->allocate(odd));
  record[0] = 123;
  constexpr RecordTypeInfo changed[] = {{small, 24, 8, 0, "small"}, {odd, 130, 64, 1, "odd, larger"}};
  const std::string log = standard_error_of([&] { open({.quarantine = 0ms, .retired_bytes_cap = 0}, changed); });
  EXPECT_NE(log.find("left alone"), std::string::npos) << log;
  EXPECT_FALSE(arena_->adopt(odd, record));
  arena_->retire_unadopted();
  tick_after(1s);
  for (int i = 0; i < 2000; ++i) EXPECT_GE(address_of(arena_->allocate(odd)), (address_of(record) | 0xffffu) + 1);
  EXPECT_EQ(record[0], 123u);
}

// --- the naive twin

// Everything the arena promises, kept the simple way: what each simulated reader may still look at, and which type each
// address has had.
class Twin {
 public:
  explicit Twin(size_t readers) : visible_(readers) {}

  void allocated(RecordType type, uint32_t address, uint32_t size) {
    for (const auto &seen : visible_) ASSERT_FALSE(seen.contains(address)) << "a reader may still look at it";
    ASSERT_FALSE(live_.contains(address));
    const auto after = live_.lower_bound(address);
    if (after != live_.end()) {
      ASSERT_LE(address + size, after->first);
    }
    if (after != live_.begin()) {
      ASSERT_LE(std::prev(after)->first + std::prev(after)->second.second, address);
    }
    const auto [known, fresh] = type_of_.emplace(address, type);
    ASSERT_EQ(known->second, type) << "memory changed its type";
    live_[address] = {type, size};
  }
  void retired(uint32_t address) { live_.erase(address); }
  void entered(size_t reader) {
    visible_[reader].clear();
    for (const auto &[address, what] : live_) visible_[reader].insert(address);
  }
  void left(size_t reader) { visible_[reader].clear(); }
  [[nodiscard]] const std::map<uint32_t, std::pair<RecordType, uint32_t>> &live() const { return live_; }
  void forget_all_but(const std::set<uint32_t> &kept) {
    std::erase_if(live_, [&](const auto &entry) { return !kept.contains(entry.first); });
  }

 private:
  std::map<uint32_t, std::pair<RecordType, uint32_t>> live_;
  std::map<uint32_t, RecordType> type_of_;
  std::vector<std::set<uint32_t>> visible_;
};

TEST_F(ArenaTest, AgreesWithItsTwinOverRandomChangesReadersAndTakeOvers) {
  std::mt19937 random(20260117);
  const auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
  Twin twin(4);
  const ArenaLimits limits{.quarantine = 3ms, .retired_bytes_cap = UINT64_MAX};
  open(limits);
  for (int step = 0; step < 60000; ++step) {
    const size_t what = below(1000);
    if (what < 430 && twin.live().size() < 400) {
      const RecordTypeInfo &type = types[below(20) == 0 ? 2 : below(2)];
      void *record = arena_->allocate(type.type);
      ASSERT_NE(record, nullptr);
      twin.allocated(type.type, address_of(record), type.size);
    } else if (what < 800 && !twin.live().empty()) {
      const auto victim = std::next(twin.live().begin(), static_cast<ptrdiff_t>(below(twin.live().size())));
      const uint32_t address = victim->first;
      const RecordType type = victim->second.first;
      twin.retired(address);
      arena_->retire(type, reinterpret_cast<void *>(static_cast<uintptr_t>(address)));
    } else if (what < 900) {
      const size_t reader = below(4);
      if (epochs_.inside(reader)) {
        epochs_.leave(reader);
        twin.left(reader);
      } else {
        epochs_.enter(reader);
        twin.entered(reader);
      }
    } else if (what < 998) {
      tick_after(std::chrono::milliseconds(below(3)));
    } else {
      open(limits);  // the writer was killed; readers that are inside stay there
      std::set<uint32_t> kept;
      for (const auto &[address, record] : twin.live()) {
        if (below(3) == 0) continue;
        ASSERT_TRUE(arena_->adopt(record.first, reinterpret_cast<void *>(static_cast<uintptr_t>(address))));
        kept.insert(address);
      }
      arena_->retire_unadopted();
      twin.forget_all_but(kept);
    }
    if (HasFatalFailure()) FAIL() << "at step " << step;
  }
  for (const RecordTypeInfo &type : types) {
    const auto live = std::count_if(twin.live().begin(), twin.live().end(),
                                    [&](const auto &entry) { return entry.second.first == type.type; });
    EXPECT_EQ(use_of(type.type).live, static_cast<uint64_t>(live)) << type.name;
  }
}

}  // namespace
