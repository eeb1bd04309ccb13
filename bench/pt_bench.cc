// SPDX-License-Identifier: Apache-2.0
// What an exact lookup and a step to the next prefix cost in a Patricia tree, beside a branchless binary search of a
// sorted array and a hash table in private memory.
//
// Questions are drawn at random in advance and asked in a loop without dependence between them, as a daemon asks about
// one packet after another. "present" asks next of prefixes that are in the tree, "absent" of addresses that mostly are
// not.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "pt.h"
#include "pt/pt_writer.h"
#include "sm/arena.h"
#include "support/run_directory.h"

namespace {

struct Node {
  uint32_t links[3];
  uint32_t info;
};

// Addresses as networks have them: dense inside some hundred subnets.
std::vector<uint32_t> addresses(size_t count) {
  std::mt19937 random(1);
  std::vector<uint32_t> subnets(std::max<size_t>(count / 100, 1));
  for (uint32_t &subnet : subnets) subnet = static_cast<uint32_t>(random()) & 0xffffff00u;
  std::vector<uint32_t> result;
  while (result.size() < count) {
    while (result.size() < count + count / 4) {
      result.push_back(subnets[random() % subnets.size()] | static_cast<uint32_t>(random() & 0xff));
    }
    std::ranges::sort(result);
    const auto rest = std::ranges::unique(result);
    result.erase(rest.begin(), rest.end());
    if (result.size() < count) subnets.push_back(static_cast<uint32_t>(random()) & 0xffffff00u);
  }
  std::ranges::shuffle(result, random);
  result.resize(count);
  return result;
}

std::vector<uint32_t> questions(const std::vector<uint32_t> &from) {
  std::vector<uint32_t> result;
  std::mt19937 random(2);
  for (int i = 0; i < 1 << 16; ++i) result.push_back(from[random() % from.size()]);
  return result;
}

std::vector<uint32_t> strangers(const std::vector<uint32_t> &near) {
  std::vector<uint32_t> result = questions(near);
  std::mt19937 random(3);
  for (uint32_t &address : result) address ^= 1u << (random() % 32);
  return result;
}

// One tree per size, all in one segment, for the whole run.
struct Trees {
  Trees() {
    std::string reason;
    epochs = rsw::Epochs::open(&reason);
    segment = rsw::SegmentMap::create(rsw::segment_ip, &reason);
    std::vector<rsw::RecordTypeInfo> types = rsw::pt_types(0);
    types.push_back({.type = 1, .size = sizeof(Node), .align = 16, .memory_type = 0, .name = "node"});
    if (epochs != nullptr && segment != nullptr) {
      arena = rsw::Arena::open(segment, *epochs, rsw::Domain::database, 65536, types, {}, &reason);
    }
    if (arena == nullptr) {
      fprintf(stderr, "pt_bench: %s\n", reason.c_str());
      exit(1);
    }
  }
  void *tree(size_t count) {
    std::unique_ptr<rsw::PtWriter> &tree = trees[count];
    if (tree == nullptr) {
      tree = rsw::PtWriter::create(*arena);
      // One by one, as a system comes to its addresses, so that branches lie where path copying leaves them.
      for (const uint32_t address : addresses(count)) {
        void *node = arena->allocate(1);
        if (node == nullptr || !tree->insert(node, address, 32)) abort();
      }
    }
    return tree->handle();
  }

  test_support::RunDirectory directory;
  std::unique_ptr<rsw::Epochs> epochs;
  std::shared_ptr<rsw::SegmentMap> segment;
  std::unique_ptr<rsw::Arena> arena;
  std::map<size_t, std::unique_ptr<rsw::PtWriter>> trees;
};

Trees &trees() {
  static Trees all;
  return all;
}

template <class Ask>
void ask_all(benchmark::State &state, const std::vector<uint32_t> &asked, Ask ask) {
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ask(asked[i]));
    i = (i + 1) & (asked.size() - 1);
  }
}

size_t size_of(const benchmark::State &state) {
  return static_cast<size_t>(state.range(0));
}

void TreeExact(benchmark::State &state) {
  void *tree = trees().tree(size_of(state));
  ask_all(state, questions(addresses(size_of(state))), [&](uint32_t address) {
    const uint32_t key[4] = {htonl(address)};
    return pt_lookup(tree, key, 32, 1);
  });
}

void tree_next(benchmark::State &state, const std::vector<uint32_t> &asked) {
  void *tree = trees().tree(size_of(state));
  ask_all(state, asked, [&](uint32_t address) {
    uint32_t key[4] = {htonl(address)};
    uint32_t length = 32;
    return pt_get_next_node(tree, key, &length, 0);
  });
}
void TreeNextPresent(benchmark::State &state) {
  tree_next(state, questions(addresses(size_of(state))));
}
void TreeNextAbsent(benchmark::State &state) {
  tree_next(state, strangers(addresses(size_of(state))));
}

// The first element not less than the address, by conditional moves only.
const uint32_t *branchless_lower_bound(const std::vector<uint32_t> &sorted, uint32_t address) {
  const uint32_t *base = sorted.data();
  size_t length = sorted.size();
  while (length > 1) {
    const size_t half = length / 2;
    base += half * static_cast<size_t>(base[half - 1] < address);
    length -= half;
  }
  return base + (*base < address ? 1 : 0);
}

std::vector<uint32_t> sorted_addresses(size_t count) {
  std::vector<uint32_t> sorted = addresses(count);
  std::ranges::sort(sorted);
  sorted.push_back(~0u);
  return sorted;
}

void SortedArrayExact(benchmark::State &state) {
  const std::vector<uint32_t> sorted = sorted_addresses(size_of(state));
  ask_all(state, questions(addresses(size_of(state))), [&](uint32_t address) {
    const uint32_t *found = branchless_lower_bound(sorted, address);
    return *found == address ? found : nullptr;
  });
}

void sorted_array_next(benchmark::State &state, const std::vector<uint32_t> &asked) {
  const std::vector<uint32_t> sorted = sorted_addresses(size_of(state));
  ask_all(state, asked, [&](uint32_t address) { return *branchless_lower_bound(sorted, address + 1); });
}
void SortedArrayNextPresent(benchmark::State &state) {
  sorted_array_next(state, questions(addresses(size_of(state))));
}
void SortedArrayNextAbsent(benchmark::State &state) {
  sorted_array_next(state, strangers(addresses(size_of(state))));
}

void StdLowerBoundExact(benchmark::State &state) {
  const std::vector<uint32_t> sorted = sorted_addresses(size_of(state));
  ask_all(state, questions(addresses(size_of(state))), [&](uint32_t address) {
    const auto found = std::lower_bound(sorted.begin(), sorted.end(), address);
    return *found == address ? &*found : nullptr;
  });
}

void UnorderedMapExact(benchmark::State &state) {
  std::unordered_map<uint32_t, Node> map;
  for (const uint32_t address : addresses(size_of(state))) map.emplace(address, Node{});
  ask_all(state, questions(addresses(size_of(state))), [&](uint32_t address) {
    const auto found = map.find(address);
    return found != map.end() ? &found->second : nullptr;
  });
}

BENCHMARK(TreeExact)->Arg(1000)->Arg(100000);
BENCHMARK(UnorderedMapExact)->Arg(1000)->Arg(100000);
BENCHMARK(SortedArrayExact)->Arg(1000)->Arg(100000);
BENCHMARK(StdLowerBoundExact)->Arg(1000)->Arg(100000);
BENCHMARK(TreeNextPresent)->Arg(1000)->Arg(100000);
BENCHMARK(SortedArrayNextPresent)->Arg(1000)->Arg(100000);
BENCHMARK(TreeNextAbsent)->Arg(1000)->Arg(100000);
BENCHMARK(SortedArrayNextAbsent)->Arg(1000)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
