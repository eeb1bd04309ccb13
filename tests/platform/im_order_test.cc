// SPDX-License-Identifier: Apache-2.0
// The order of the interface table, beside a sorted vector; walks across changes, dead writers and damage.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <random>
#include <thread>

#include "im/im_table.h"
#include "platform/im_rig.h"

namespace {

using im_rig::ImRig;
using im_rig::interface;
using Iods = std::vector<uint32_t>;

rsw::im::Table &table_of_the_writer() {
  return *rsw::at_address<rsw::im::Table>(rsw::segment_im.base + rsw::im::table_offset);
}

struct Twin {
  struct Entry {
    bool behind_loopbacks;
    uint32_t ifindex;
    auto operator<=>(const Entry &) const = default;
  };
  struct Value {
    uint32_t iod;
    bool extended;
  };
  [[nodiscard]] Iods all() const {
    Iods found;
    for (const auto &[entry, value] : entries) found.push_back(value.iod);
    return found;
  }
  [[nodiscard]] Iods extended() const {
    Iods found;
    for (const auto &[entry, value] : entries) {
      if (value.extended) found.push_back(value.iod);
    }
    return found;
  }
  std::map<Entry, Value> entries;
};

TEST(ImOrder, LoopbacksComeFirstThenByIfindex) {
  ImRig rig;
  const uint32_t seven = rig.writer->set(interface(7));
  const uint32_t three = rig.writer->set(interface(3));
  const uint32_t loopback_nine = rig.writer->set(interface(9, true));
  const uint32_t loopback_one = rig.writer->set(interface(1, true));
  EXPECT_EQ(im_rig::all_iods(), (Iods{loopback_one, loopback_nine, three, seven}));
  EXPECT_EQ(rig.writer->iods(), (Iods{loopback_one, loopback_nine, three, seven}));
}

TEST(ImOrder, OnlyInterfacesWithTheComponentsExtensionAreNamed) {
  ImRig rig;
  const uint32_t one = rig.writer->set(interface(1));
  const uint32_t two = rig.writer->set(interface(2));
  const uint32_t three = rig.writer->set(interface(3));
  rig.writer->set_extension(one, im_rig::component, rig.record(1));
  rig.writer->set_extension(three, im_rig::component, rig.record(3));
  rig.writer->set_extension(two, 5, rig.record(2));
  EXPECT_EQ(im_rig::iods_with(im_rig::component), (Iods{one, three}));
  EXPECT_EQ(im_get_next_ext_if(two, im_rig::component), three) << "the caller may stand on any interface";
  EXPECT_EQ(im_rig::iods_with(5), Iods{two});
  EXPECT_EQ(im_rig::iods_with(6), Iods{});
}

TEST(ImOrder, AnIodThatNeverWasLeadsNowhere) {
  ImRig rig;
  rig.writer->set(interface(1));
  for (const uint32_t iod : {2u, 65535u, 65536u, ~0u}) EXPECT_EQ(rsw::im_next_iod(iod), 0u);
}

TEST(ImOrder, EqualsTheSortedVectorUnderRandomChanges) {
  for (uint32_t seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    ImRig rig;
    Twin twin;
    std::mt19937 random(seed);
    for (int step = 0; step < 3000; ++step) {
      const uint32_t ifindex = 1 + static_cast<uint32_t>(random() % 60);
      const bool loopback = random() % 4 == 0;
      const uint32_t known = rig.writer->find(ifindex);
      const bool was_extended = known != 0 && lcache_im_get_extension1(known, im_rig::component) != nullptr;
      twin.entries.erase({false, ifindex});
      twin.entries.erase({true, ifindex});
      if (random() % 3 == 0) {
        rig.writer->remove(known);
      } else {
        const uint32_t iod = rig.writer->set(interface(ifindex, loopback));
        ASSERT_NE(iod, 0u);
        if (known != 0) {
          ASSERT_EQ(iod, known);
        }
        bool extended = was_extended;
        if (random() % 2 == 0) {
          extended = random() % 2 == 0;
          rig.writer->set_extension(iod, im_rig::component, extended ? rig.record(ifindex) : nullptr);
        }
        twin.entries.emplace(Twin::Entry{!loopback, ifindex}, Twin::Value{iod, extended});
      }
      if (random() % 50 == 0) rig.let_pass(std::chrono::seconds(61));
      ASSERT_EQ(im_rig::all_iods(), twin.all());
      ASSERT_EQ(im_rig::iods_with(im_rig::component), twin.extended());
    }
  }
}

TEST(ImOrder, AWalkGoesOnFromAnIodThatWasRemovedUnderIt) {
  ImRig rig;
  for (uint32_t ifindex = 1; ifindex <= 5; ++ifindex) rig.writer->set(interface(ifindex));
  rig.writer->remove(2);
  rig.writer->remove(3);
  EXPECT_EQ(rsw::im_next_iod(2), 4u) << "by way of another removed iod";
  EXPECT_EQ(rsw::im_next_iod(3), 4u);
}

TEST(ImOrder, AWalkFindsItsPlaceAgainWhenTheNextIodWasGivenToAnotherPlace) {
  ImRig rig;
  for (uint32_t ifindex = 11; ifindex <= 15; ++ifindex) rig.writer->set(interface(ifindex));
  rig.writer->remove(2);  // its next word names iod 3
  rig.writer->remove(3);
  rig.let_pass(std::chrono::seconds(61));
  ASSERT_EQ(rig.writer->set(interface(20)), 2u);
  ASSERT_EQ(rig.writer->set(interface(1)), 3u);
  rig.writer->remove(2);
  ASSERT_EQ(im_rig::all_iods(), (Iods{3, 1, 4, 5}));
  EXPECT_EQ(rsw::im_next_iod(1), 4u);
  EXPECT_EQ(rsw::im_next_iod(2), 0u) << "iod 2 last was the last interface";
}

TEST(ImOrder, ANewWriterMendsAChangeThatWasLeftHalfDone) {
  ImRig rig;
  for (uint32_t ifindex = 1; ifindex <= 5; ++ifindex) rig.writer->set(interface(ifindex));
  rsw::im::Table &table = table_of_the_writer();
  table.next[1] = 3;                           // 2 is taken out of the list, but still has its record
  table.order[4] = 0;                          // 4 has its record, but no place yet
  table.record[5] = rsw::segment_im.base + 8;  // not the address of a record
  rig.replace_writer();
  EXPECT_EQ(im_rig::all_iods(), (Iods{1, 2, 3, 4}));
  EXPECT_EQ(rig.writer->iods(), (Iods{1, 2, 3, 4}));
  uint32_t iod = 0;
  EXPECT_EQ(im_get_iod_frm_ifindex(4, &iod), 0u);
  EXPECT_NE(im_get_iod_frm_ifindex(5, &iod), 0u);
}

TEST(ImOrder, WalksSeeEveryInterfaceThatStaysWhileOthersComeAndGo) {
  ImRig rig;
  Iods staying;
  for (uint32_t ifindex = 10; ifindex <= 500; ifindex += 10) staying.push_back(rig.writer->set(interface(ifindex)));
  std::atomic<bool> stop = false;
  std::atomic<uint32_t> walks = 0;
  std::string complaint;
  std::thread reader([&] {
    while (!stop.load(std::memory_order_relaxed) && complaint.empty()) {
      size_t met = 0;
      uint32_t last_ifindex = 0;
      for (uint32_t iod = rsw::im_next_iod(0); iod != 0; iod = rsw::im_next_iod(iod)) {
        rsw::ImView view;
        if (!rsw::im_view(iod, &view)) continue;  // removed since
        if (view.ifindex <= last_ifindex) complaint = "out of order: " + std::to_string(view.ifindex);
        if (std::string(view.name) != "eth" + std::to_string(view.ifindex)) complaint = "two moments mixed";
        last_ifindex = view.ifindex;
        if (met < staying.size() && iod == staying[met]) ++met;
      }
      if (met != staying.size()) complaint = "only " + std::to_string(met) + " of those that stay";
      walks.fetch_add(1, std::memory_order_relaxed);
    }
  });
  std::mt19937 random(5);
  for (int step = 0; step < 20000 || walks.load(std::memory_order_relaxed) < 3; ++step) {
    const uint32_t ifindex = 1 + static_cast<uint32_t>(random() % 520);
    if (ifindex % 10 == 0) continue;
    if (const uint32_t iod = rig.writer->find(ifindex)) {
      rig.writer->remove(iod);
    } else {
      EXPECT_NE(rig.writer->set(interface(ifindex)), 0u);
    }
    if (step % 64 == 0) rig.writer->tick(std::chrono::steady_clock::now());
    if (step > 10000000) break;
  }
  stop.store(true, std::memory_order_relaxed);
  reader.join();
  EXPECT_EQ(complaint, "");
}

TEST(ImOrder, EveryWalkEndsOnDamagedMemory) {
  const char *given = getenv("RSW_TEST_SEED");  // repeats a run
  const uint32_t seed = given != nullptr ? static_cast<uint32_t>(strtoul(given, nullptr, 10)) : std::random_device()();
  printf("seed %u\n", seed);
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  ImRig rig;
  for (uint32_t ifindex = 1; ifindex <= 200; ++ifindex) {
    rig.writer->set_extension(rig.writer->set(interface(ifindex, ifindex < 4)), im_rig::component, rig.record(ifindex));
  }
  rsw::im::Table &table = table_of_the_writer();
  const auto damaged = [&](uint32_t word) {
    if (random() % 3 == 0) return word ^ 1u << (random() % 32);
    if (random() % 2 == 0) return static_cast<uint32_t>(random() % 210);
    return static_cast<uint32_t>(random());
  };
  for (int round = 0; round < 300; ++round) {
    for (int strike = 0; strike < 20; ++strike) {
      const size_t iod = random() % 210;
      uint32_t *const words[] = {
          &table.record[iod], &table.next[iod],           &table.next[0], &table.order[iod], &table.extension[3][iod],
          &table.iods_used,   &table.components[iod % 8], &table.index};
      uint32_t *word = words[random() % std::size(words)];
      __atomic_store_n(word, damaged(*word), __ATOMIC_RELAXED);
    }
    size_t steps = 0;
    for (uint32_t iod = rsw::im_next_iod(0); iod != 0; iod = rsw::im_next_iod(iod)) {
      rsw::ImView view;
      EXPECT_TRUE(rsw::im_view(iod, &view));
      ASSERT_LE(++steps, 65535u);
    }
    for (uint32_t iod = static_cast<uint32_t>(random() % 8); iod < 210; iod += 8) {
      uint32_t found = 1;
      EXPECT_TRUE(im_get_iod_frm_ifindex(iod, &found) != 0 || (found != 0 && found < 65536));
      const void *extension = lcache_im_get_extension1(iod, im_rig::component);
      EXPECT_TRUE(extension == nullptr || rsw::is_readable(rsw::address_of(extension)));
      const char *name = im_get_if_name(iod);
      EXPECT_TRUE(name == nullptr || std::string(name).size() < 40u);
      EXPECT_LE(im_is_if_up(iod), 1u);
    }
  }
}

}  // namespace
