// SPDX-License-Identifier: Apache-2.0
// The Patricia tree under readers: while its writer changes it, and when its memory is damaged.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "platform/tree_rig.h"

namespace {

using tree_rig::Prefix;
using tree_rig::TreeRig;
using tree_rig::Twin;

class Lock {
 public:
  explicit Lock(uint32_t lock) : lock_(lock) { tsp_lock_acquire_rdlock(lock_); }
  ~Lock() { tsp_lock_release_rdlock(lock_); }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

 private:
  uint32_t lock_;
};

Prefix random_prefix(std::mt19937 &random) {
  const uint32_t length = 8 + static_cast<uint32_t>(random() % 25);
  return {static_cast<uint32_t>(random()) & tree_rig::mask_of(length), length};
}

// Prefixes that stay, prefixes that come and go, and pairs of which the inner one is there only while the outer one is.
struct Population {
  explicit Population(std::mt19937 &random) {
    while (staying.prefixes.size() < 400) staying.add(random_prefix(random));
    while (changing.size() < 400) {
      const Prefix prefix = random_prefix(random);
      if (staying.exact(prefix) != prefix && everything.add(prefix)) changing.push_back(prefix);
    }
    while (outer.size() < 100) {
      const uint32_t key = static_cast<uint32_t>(random());
      const Prefix around{key & tree_rig::mask_of(20), 20};
      const Prefix inside{key & tree_rig::mask_of(30), 30};
      if (staying.exact(around) == around || staying.exact(inside) == inside) continue;
      if (everything.exact(inside) == inside || !everything.add(around)) continue;
      everything.add(inside);
      outer.push_back(around);
      inner.push_back(inside);
    }
    for (const Prefix &prefix : staying.prefixes) everything.add(prefix);
  }

  Twin staying;
  Twin everything;
  std::vector<Prefix> changing, outer, inner;
};

// One reader. Each answer must have been true at some moment; the first that cannot have been is told in `complaint`.
class Reader {
 public:
  Reader(const TreeRig &rig, const Population &population, uint32_t lock, uint32_t seed)
      : tree_(rig.handle()), population_(population), lock_(lock), random_(seed) {}

  void ask() {
    const Lock guard(lock_);
    exact();
    covering();
    successor();
    asked.fetch_add(1, std::memory_order_relaxed);
  }

  std::string complaint;
  std::atomic<uint32_t> asked = 0;

 private:
  void complain(const char *what, const Prefix &question) {
    if (complaint.empty()) {
      complaint = std::string(what) + " of " + std::to_string(question.key) + "/" + std::to_string(question.length);
    }
  }

  [[nodiscard]] const Prefix &any(const std::vector<Prefix> &prefixes) { return prefixes[random_() % prefixes.size()]; }

  void exact() {
    const Prefix &stays = any(population_.staying.prefixes);
    void *node = tree_rig::exact_node(tree_, stays);
    if (node == nullptr || tree_rig::info_word(node) != tree_rig::info_of(stays)) complain("exact lookup", stays);
    const Prefix &changes = any(population_.changing);
    node = tree_rig::exact_node(tree_, changes);
    if (node == nullptr) return;
    // Under the lock a node stays what it was, even when it is taken out of the tree meanwhile.
    for (int look = 0; look < 3; ++look) {
      if (tree_rig::prefix_of(node) != changes || tree_rig::info_word(node) != tree_rig::info_of(changes)) {
        complain("exact lookup", changes);
      }
      std::this_thread::yield();
    }
  }

  void covering() {
    const size_t pair = random_() % population_.inner.size();
    const Prefix question{population_.inner[pair].key, 32};
    const std::vector<Prefix> found = tree_rig::covering(tree_, question);
    const auto has = [&](const Prefix &prefix) { return std::ranges::find(found, prefix) != found.end(); };
    if (has(population_.inner[pair]) && !has(population_.outer[pair])) complain("half a change, covering", question);
    for (const Prefix &cover : population_.staying.covering(question)) {
      if (!has(cover)) complain("covering", question);
    }
    for (const Prefix &prefix : found) {
      if (!tree_rig::covers(prefix, question) || population_.everything.exact(prefix) != prefix) {
        complain("covering", question);
      }
    }
  }

  void successor() {
    const Prefix &question = any(population_.everything.prefixes);
    const Prefix found = tree_rig::next(tree_, question);
    // Whatever changes meanwhile, the next of those that stay is an upper bound.
    const Prefix bound = population_.staying.next(question);
    if (found == tree_rig::none) {
      if (bound != tree_rig::none) complain("next", question);
      return;
    }
    if (found <= question || (bound != tree_rig::none && found > bound)) complain("next", question);
    if (population_.everything.exact(found) != found) complain("next", question);
  }

  void *tree_;
  const Population &population_;
  uint32_t lock_;
  std::mt19937 random_;
};

TEST(PtReaders, SeeOnlyWhatWasTrueWhileTheTreeChanges) {
  std::mt19937 random(11);
  const Population population(random);
  TreeRig rig;
  for (const Prefix &prefix : population.staying.prefixes) ASSERT_TRUE(rig.add(prefix));
  const uint32_t lock = tsp_create_rwsem_lock(0, 6);
  ASSERT_NE(lock, 0u);

  std::atomic<bool> stop = false;
  Reader first(rig, population, lock, 1);
  Reader second(rig, population, lock, 2);
  std::atomic<uint32_t> running = 0;
  const auto read = [&](Reader &reader) {
    running.fetch_add(1);
    while (!stop.load(std::memory_order_relaxed)) reader.ask();
  };
  std::thread first_thread(read, std::ref(first));
  std::thread second_thread(read, std::ref(second));
  EXPECT_TRUE(test_support::wait_until([&] { return running.load() == 2; }));

  std::vector<bool> there(population.changing.size());
  std::vector<bool> pair_there(population.outer.size());
  // On a machine with other work a question takes a hundred times as long: less will do there than on a quiet one, but
  // never less than `least`.
  constexpr uint32_t plenty = 20000;
  constexpr uint32_t least = 1000;
  const auto asked_by_both = [&] { return std::min(first.asked.load(), second.asked.load()); };
  const auto start = std::chrono::steady_clock::now();
  for (int step = 0; step < 30000 || asked_by_both() < plenty; ++step) {
    const auto passed = std::chrono::steady_clock::now() - start;
    if (passed > std::chrono::seconds(40) && asked_by_both() >= least) break;
    if (passed > std::chrono::seconds(240)) break;
    if (random() % 4 == 0) {
      const size_t i = random() % population.outer.size();
      if (pair_there[i]) {
        EXPECT_TRUE(rig.remove(population.inner[i]));
        EXPECT_TRUE(rig.remove(population.outer[i]));
      } else {
        EXPECT_TRUE(rig.add(population.outer[i]));
        EXPECT_TRUE(rig.add(population.inner[i]));
      }
      pair_there[i] = !pair_there[i];
    } else {
      const size_t i = random() % population.changing.size();
      EXPECT_TRUE(there[i] ? rig.remove(population.changing[i]) : rig.add(population.changing[i]));
      there[i] = !there[i];
    }
    if (step % 4 == 0) rig.tick();
    // A reader that waits for a processor inside its question holds memory up. Above its cap, 32 MiB, the arena goes on
    // without such a reader, which may then meet reused records: that is another behaviour than the one that is tested.
    if (rig.arena->retired_bytes() > (16u << 20)) {
      EXPECT_TRUE(test_support::wait_until(
          [&] {
            rig.tick();
            return rig.arena->retired_bytes() < (8u << 20);
          },
          std::chrono::seconds(60)));
    }
  }
  stop.store(true, std::memory_order_relaxed);
  first_thread.join();
  second_thread.join();
  tsp_destroy_lock(lock);
  EXPECT_EQ(first.complaint, "");
  EXPECT_EQ(second.complaint, "");
  EXPECT_GE(asked_by_both(), least);
}

// A walk that began before a change, as a second handle with the root word of that moment and no index: it must go on
// seeing the tree of then, whole, however many changes follow.
TEST(PtReaders, AWalkGoesOnSeeingTheTreeItBeganWith) {
  std::mt19937 random(23);
  const Population population(random);
  TreeRig rig(std::chrono::hours(1));
  const std::unique_ptr<rsw::PtWriter> earlier = rsw::PtWriter::create(*rig.arena);
  ASSERT_NE(earlier, nullptr);
  Twin twin;
  for (int round = 0; round < 40; ++round) {
    memcpy(earlier->handle(), rig.handle(), sizeof(uint32_t));
    const Twin then = twin;
    for (int change = 0; change < 50; ++change) {
      const Prefix &prefix = population.everything.prefixes[random() % population.everything.prefixes.size()];
      if (twin.exact(prefix) == prefix) {
        ASSERT_TRUE(rig.remove(prefix) && twin.remove(prefix));
      } else {
        ASSERT_TRUE(rig.add(prefix) && twin.add(prefix));
      }
    }
    std::vector<Prefix> seen;
    for (Prefix at = tree_rig::first(earlier->handle()); at != tree_rig::none;
         at = tree_rig::next(earlier->handle(), at)) {
      seen.push_back(at);
    }
    ASSERT_EQ(seen, then.prefixes);
    for (const Prefix &inner : population.inner) {
      ASSERT_EQ(tree_rig::covering(earlier->handle(), {inner.key, 32}), then.covering({inner.key, 32}));
      ASSERT_EQ(tree_rig::exact(earlier->handle(), inner), then.exact(inner));
    }
  }
}

// RSW_TEST_SEED repeats a run.
uint32_t seed_of_this_run() {
  const char *given = getenv("RSW_TEST_SEED");
  return given != nullptr ? static_cast<uint32_t>(strtoul(given, nullptr, 10)) : std::random_device()();
}

// A word as damage leaves it: another word of the segment, a flipped bit, or anything.
uint32_t damaged(uint32_t word, std::mt19937 &random, const std::vector<uint32_t> &words) {
  switch (random() % 4) {
    case 0:
      return word ^ 1u << (random() % 32);
    case 1:
      return words[random() % words.size()];
    case 2:
      return rsw::window_low + static_cast<uint32_t>(random()) % (rsw::window_high - rsw::window_low);
    default:
      return static_cast<uint32_t>(random());
  }
}

bool readable(const void *node) {
  const uintptr_t address = reinterpret_cast<uintptr_t>(node);
  return address >= rsw::window_low && address < rsw::window_high - rsw::segment_page && address % 4 == 0;
}

void ask_everything(void *tree, std::mt19937 &random, const std::vector<Prefix> &prefixes) {
  for (int i = 0; i < 40; ++i) {
    const Prefix question = i % 2 == 0 ? prefixes[random() % prefixes.size()] : random_prefix(random);
    tree_rig::KeyBuffer key(question.key);
    uint32_t length = question.length;
    void *node = pt_lookup(tree, &key, length, 1);
    EXPECT_TRUE(node == nullptr || readable(node));
    void *nodes[33];
    uint32_t count = 99;
    pt_lookup_return_leafs(tree, &key, length, nodes, &count);
    ASSERT_LE(count, 33u);
    for (uint32_t n = 0; n < count; ++n) EXPECT_TRUE(readable(nodes[n]));
    node = pt_lookup_more_specific(tree, &key, length);
    EXPECT_TRUE(node == nullptr || readable(node));
  }
  tree_rig::KeyBuffer key(0);
  uint32_t length = 0;
  void *node = pt_get_first_node(tree, &key, &length, 0);
  for (int steps = 0; node != nullptr && steps < 1000; ++steps) {
    EXPECT_TRUE(readable(node));
    const Prefix last{key.host(), length};
    node = pt_get_next_node(tree, &key, &length, 0);
    if (node != nullptr) {
      ASSERT_LT(last, (Prefix{key.host(), length}));
    }
  }
}

TEST(PtReaders, ReturnFromDamagedMemoryWithoutAFault) {
  const uint32_t seed = seed_of_this_run();
  printf("seed %u\n", seed);
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  TreeRig rig;
  Twin twin;
  for (int i = 0; i < 600; ++i) {
    const Prefix prefix = random_prefix(random);
    if (twin.add(prefix)) {
      ASSERT_TRUE(rig.add(prefix));
    }
  }
  // The writer's mapping lets us damage what readers see, the tree's record, branches, index and nodes alike.
  uint32_t *const begin = reinterpret_cast<uint32_t *>(static_cast<uintptr_t>(rsw::segment_ip.base + 65536));
  uint32_t *const end = reinterpret_cast<uint32_t *>(static_cast<uintptr_t>(rig.segment->header()->used_end));
  const std::vector<uint32_t> intact(begin, end);
  std::vector<uint32_t> in_use;  // damage where there is something
  for (uint32_t i = 0; i < intact.size(); ++i) {
    if (intact[i] != 0) in_use.push_back(i);
  }
  for (int round = 0; round < 600; ++round) {
    const uint32_t strikes = 1u << (random() % 10);
    for (uint32_t i = 0; i < strikes; ++i) {
      const uint32_t at = in_use[random() % in_use.size()];
      __atomic_store_n(&begin[at], damaged(intact[at], random, intact), __ATOMIC_RELAXED);
    }
    if (round % 3 == 0) {
      uint32_t *tree = static_cast<uint32_t *>(rig.handle());
      __atomic_store_n(&tree[random() % 2], damaged(tree[0], random, intact), __ATOMIC_RELAXED);
    }
    ask_everything(rig.handle(), random, twin.prefixes);
    if (HasFatalFailure()) break;
    std::ranges::copy(intact, begin);
  }
  std::ranges::copy(intact, begin);
  for (const Prefix &prefix : twin.prefixes) EXPECT_EQ(tree_rig::exact(rig.handle(), prefix), prefix);
}

}  // namespace
