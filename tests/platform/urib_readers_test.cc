// SPDX-License-Identifier: Apache-2.0
// Readers of the route tables beside a writer that changes them: in threads, in another process, before there is a
// writer, after it was killed, and on damaged memory.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include "bgp_routes.h"
#include "route_rig.h"
#include "sm/segment_map.h"
#include "support/process.h"

namespace {

using namespace route_rig;

constexpr uint32_t table = 254;
constexpr uint32_t net10 = 0x0a000000;

uint32_t best(uint32_t addr) {
  const Lock lock;
  return mark_of(urib_get_best_route(table, addr, 0, 0));
}

ssize_t write_byte(int descriptor) {
  return write(descriptor, "!", 1);
}

// The writer goes round: it adds a longer route, changes the shorter one, takes the longer one out, changes back. At
// each moment the best route is one of two: the mark 3 is always hidden.
struct Pair {
  const char *name;
  uint8_t shorter, longer;
};
class UribReadersOf : public testing::TestWithParam<Pair> {};

TEST_P(UribReadersOf, NeverSeeHalfOfTwoChangesInARow) {
  RouteRig rig;
  for (const Route &crowd : bgp_routes::make(500, 1)) rig.set(crowd);
  const uint32_t addr = 0xf0000001;  // none of the crowd's
  const auto shorter = [](uint32_t mark) { return route(0xf0000000, GetParam().shorter, RouteKind::static_, mark); };
  rig.set(shorter(1));
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> asked{0};
  std::atomic<uint32_t> wrong{0};
  std::thread reader([&] {
    while (!stop.load(std::memory_order_relaxed)) {
      const uint32_t mark = best(addr);
      if (mark != 1 && mark != 2) wrong.store(mark == 0 ? 99 : mark, std::memory_order_relaxed);
      asked.fetch_add(1, std::memory_order_relaxed);
    }
  });
  for (int round = 0; round < 2000 || asked.load(std::memory_order_relaxed) < 2000; ++round) {
    rig.set(route(0xf0000000, GetParam().longer, RouteKind::static_, 2));
    rig.set(shorter(3));  // hidden by the longer one
    rig.set(shorter(1));
    rig.remove(RouteView::unicast, 0xf0000000, GetParam().longer);
    if (round % 16 == 0) rig.tick();
  }
  stop = true;
  reader.join();
  EXPECT_EQ(wrong.load(), 0u);
}

INSTANTIATE_TEST_SUITE_P(All, UribReadersOf,
                         testing::Values(Pair{"ARegionAndASlot", 8, 15}, Pair{"ARegionAndANode", 8, 24},
                                         Pair{"ASlotAndANode", 16, 24}, Pair{"OneNode", 20, 22},
                                         Pair{"ANodeAndOneBelow", 24, 31}, Pair{"ASlotAndANodeBelow", 16, 30}),
                         [](const auto &of) { return of.param.name; });

TEST(UribReaders, InThreadsGetAnswersThatWereTrueWhileTheWriterReplacesAndReloads) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  RouteRig rig;
  const std::vector<Route> routes = bgp_routes::make(2000, seed);
  // A route's mark says its prefix: an answer is possible when its prefix covers the address.
  std::vector<Route> marked = routes;
  for (size_t i = 0; i < marked.size(); ++i) marked[i].next_hops[0].iod = static_cast<uint32_t>(i) + 1;
  ASSERT_TRUE(rig.writer->load(table, marked));
  std::atomic<bool> stop{false};
  std::atomic<uint32_t> wrong{0};
  std::atomic<uint64_t> asked{0};
  const auto read = [&](uint32_t thread_seed) {
    std::mt19937 random(thread_seed);
    while (!stop.load(std::memory_order_relaxed)) {
      const Route &wanted = marked[random() % marked.size()];
      const uint32_t mark = best(wanted.addr);
      // Every route stands there at all times, so some route that covers the address always does.
      const bool covers = mark != 0 && mark <= marked.size() &&
                          ((marked[mark - 1].addr ^ wanted.addr) & mask_of(marked[mark - 1].len)) == 0 &&
                          marked[mark - 1].len >= wanted.len;
      if (!covers) wrong.fetch_add(1, std::memory_order_relaxed);
      asked.fetch_add(1, std::memory_order_relaxed);
    }
  };
  std::thread first(read, seed + 1);
  std::thread second(read, seed + 2);
  std::mt19937 random(seed);
  for (int round = 0; round < 2000 || asked.load(std::memory_order_relaxed) < 2000; ++round) {
    Route again = marked[random() % marked.size()];
    again.metric = static_cast<uint32_t>(round);
    rig.set(again);
    if (round % 200 == 0) {
      ASSERT_TRUE(rig.writer->load(table, marked));
    }
    if (round % 8 == 0) rig.tick();
  }
  stop = true;
  first.join();
  second.join();
  EXPECT_EQ(wrong.load(), 0u);
}

TEST(UribReaders, InAnotherProcessFollowAKilledWriterAndItsSuccessor) {
  const test_support::RunDirectory directory;
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  // Both writers are forked before this process reads: a reader cannot become the writer. The second one waits.
  const auto write = [](uint32_t mark) {
    std::string reason;
    const std::unique_ptr<rsw::Epochs> epochs = rsw::Epochs::open(&reason);
    const std::unique_ptr<rsw::UribWriter> writer =
        epochs == nullptr ? nullptr : rsw::UribWriter::open(*epochs, &reason);
    if (writer == nullptr) return 1;
    if (!writer->set(table, route(net10, 8, RouteKind::static_, mark)) || !writer->commit()) return 2;
    for (;;) pause();
  };
  test_support::Process first([write] { return write(7); });
  test_support::Process second([write, go] {
    char byte;
    return read(go[0], &byte, 1) == 1 ? write(8) : 3;
  });
  ASSERT_TRUE(test_support::wait_until([] { return urib_api_init() != 0; }));
  EXPECT_TRUE(test_support::wait_until([] { return best(net10) == 7; }));
  first.kill_now();
  EXPECT_EQ(best(net10), 7u);
  ASSERT_EQ(write_byte(go[1]), 1);
  EXPECT_TRUE(test_support::wait_until([] { return best(net10) == 8; }));
  urib_api_close();
  close(go[0]);
  close(go[1]);
}

TEST(UribReaders, OpenedBeforeThereIsAWriterFindRoutesWhenThereIsOne) {
  const test_support::RunDirectory directory;
  std::string reason;
  const std::unique_ptr<rsw::Epochs> epochs = rsw::Epochs::open(&reason);
  ASSERT_NE(epochs, nullptr) << reason;
  ASSERT_NE(urib_api_init(), 0u);
  EXPECT_EQ(best(net10), 0u);
  const std::unique_ptr<rsw::UribWriter> writer = rsw::UribWriter::open(*epochs, &reason);
  ASSERT_NE(writer, nullptr) << reason;
  ASSERT_TRUE(writer->set(table, route(net10, 8, RouteKind::static_, 7)));
  EXPECT_EQ(best(net10), 0u);
  ASSERT_TRUE(writer->commit());
  EXPECT_TRUE(test_support::wait_until([] { return best(net10) == 7; }));
  urib_api_close();
}

TEST(UribReaders, GoOnAfterACloseWithoutOpeningAgain) {
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::static_, 7));
  urib_api_close();
  EXPECT_EQ(best(net10), 7u);
  rig.set(route(net10, 8, RouteKind::static_, 8));
  EXPECT_EQ(best(net10), 8u);
}

TEST(UribReaders, ComeBackFromEveryQuestionOnDamagedMemory) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  RouteRig rig;
  for (const Route &added : bgp_routes::make(300, 1)) rig.set(added);
  for (uint32_t i = 0; i < 64; ++i) rig.set(route(net10 + i * 5, 32, RouteKind::local, i + 1));
  rig.set(route(0, 0, RouteKind::static_, 1, net10));
  std::string reason;
  const auto segment = rsw::SegmentMap::attach(rsw::segment_urib, &reason);
  ASSERT_NE(segment, nullptr) << reason;
  const uint32_t base = segment->layout().base;
  const uint32_t used = segment->header()->used_end - base;
  auto *bytes = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(base));
  const std::vector<uint8_t> sound(bytes, bytes + used);
  std::vector<uint32_t> filled;
  for (uint32_t offset = rsw::segment_page; offset + 4 <= used; offset += 4) {
    uint32_t word;
    memcpy(&word, bytes + offset, 4);
    if (word != 0) filled.push_back(offset);
  }
  for (int round = 0; round < 300; ++round) {
    for (uint32_t i = 0; i < 1 + random() % 64; ++i) {
      uint32_t value = static_cast<uint32_t>(random());
      if (random() % 2 == 0) value = base + value % used / 4 * 4;
      memcpy(bytes + filled[random() % filled.size()], &value, 4);
    }
    const Lock lock;
    for (int question = 0; question < 50; ++question) {
      const uint32_t addr = question % 2 == 0 ? static_cast<uint32_t>(random()) : net10 + question * 5u;
      for (void *found : {urib_get_best_route(table, addr, 0, 0), urib_get_best_direct_route(table, addr),
                          urib_get_route(table, addr, 32), urib_get_mbest_route_for_prefix(table, addr, 32, 0, 0)}) {
        urib_is_route_attached(found);
        urib_route_first_bnh_iod_get(found);
        urib_route_mbnh_iod_get(found, addr);
      }
      urib_path path{};
      uint32_t words[2];
      urib_get_path_v2(table, addr, 0, 0, 0, &path, &words[0], &words[1], 1);
    }
    if (round % 50 == 0) {
      EXPECT_LE(rsw::urib_tables().size(), 1u << 20);
      EXPECT_LE(rsw::urib_routes(table, RouteView::unicast).size(), 1u << 23);
    }
    memcpy(bytes + rsw::segment_page, sound.data() + rsw::segment_page, used - rsw::segment_page);
  }
  EXPECT_EQ(best(net10), 1u);
}

}  // namespace
