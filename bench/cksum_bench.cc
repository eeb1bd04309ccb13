// SPDX-License-Identifier: Apache-2.0
// The Internet checksum beside DPDK's rte_raw_cksum, a loop of additions with carry, and a loop that only reads.
//
// Ours is asked through its exported calls, with a length that the compiler does not know; the peers are inlined into
// the loop, as their users have them. Buffers are used in turn and stay in the first-level cache, but the 64 KiB, which
// lie in the second. Calls are independent of each other. Prints the ratios, and the targets, at the end of the run.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "cksum_bench_peers.h"
#include "hmac.h"
#include "ip_api.h"
#include "mbuf/buffers.h"

namespace {

constexpr size_t turns = 16;

// Buffers of random bytes, each 14 bytes into a cache line, as behind an Ethernet header.
struct Buffers {
  explicit Buffers(size_t size) : stride((size + 127) / 64 * 64) {
    std::mt19937 random(1);
    bytes.resize(stride * turns + 64);
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
  }
  [[nodiscard]] const uint8_t *at(size_t turn) const { return bytes.data() + 14 + turn % turns * stride; }
  size_t stride;
  std::vector<uint8_t> bytes;
};

// The same loop as the peers', around the exported call.
uint64_t own_loop(const uint8_t *first, size_t stride, size_t size, size_t turns_wanted) {
  uint64_t all = 0;
  for (size_t turn = 0; turn < turns_wanted; turn++) {
    cksum_peers::hide(size);
    uint64_t each = ip_checksum(first + turn * stride, static_cast<uint32_t>(size));
    cksum_peers::hide(each);
    all += each;
  }
  return all;
}

// A loop takes the buffers in turn by itself, so that a peer is inlined there.
void flat(benchmark::State &state, cksum_peers::Loop loop, size_t size) {
  const Buffers buffers(size);
  for (auto _ : state) benchmark::DoNotOptimize(loop(buffers.at(0), buffers.stride, size, turns));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size * turns));
}

// 1,500 bytes in 8 buffers of odd lengths.
const std::vector<size_t> odd_segments = {187, 189, 185, 191, 183, 193, 181, 191};

struct Chain {
  Chain() {
    std::mt19937 random(1);
    struct mbuf *last = nullptr;
    for (const size_t size : odd_segments) {
      std::vector<uint8_t> bytes(size);
      for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
      struct mbuf *next = rsw::make_packet(bytes);
      if (next == nullptr) exit(1);
      if (last == nullptr) {
        first = next;
      } else {
        last->next = next;
      }
      last = next;
      segments.push_back({next->data.get(), next->m_len});
    }
  }
  ~Chain() { m_freem(first); }
  Chain(const Chain &) = delete;
  Chain &operator=(const Chain &) = delete;
  struct mbuf *first = nullptr;
  std::vector<cksum_peers::Segment> segments;
};

void chain_ours(benchmark::State &state) {
  const Chain chain;
  int32_t length = 1500;
  for (auto _ : state) {
    benchmark::DoNotOptimize(length);
    benchmark::DoNotOptimize(in_cksum(chain.first, 0, length));
  }
}

void chain_rte(benchmark::State &state) {
  const Chain chain;
  for (auto _ : state) benchmark::DoNotOptimize(cksum_peers::rte_segments(chain.segments));
}

void digest_ours(benchmark::State &state, bool md5) {
  const Buffers buffers(100);
  uint8_t digest[16];
  for (auto _ : state) {
    if (md5) {
      hmac_md5(buffers.at(0), 100, "sixteen byte key", 16, digest);
    } else {
      hmac_sha(buffers.at(0), 100, "sixteen byte key", 16, 16, digest);
    }
    benchmark::DoNotOptimize(digest);
  }
}

void digest_nettle(benchmark::State &state, bool md5) {
  const Buffers buffers(100);
  uint8_t digest[16];
  for (auto _ : state) {
    cksum_peers::nettle_digest(md5, buffers.at(0), 100, "sixteen byte key", 16, digest);
    benchmark::DoNotOptimize(digest);
  }
}

// Remembers the best figure of each, and prints the ratios at the end of the run.
class Ratios : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &one : runs) {
      if (one.error_occurred || one.run_type != Run::RT_Iteration) continue;
      const std::string name = one.run_name.function_name;
      const double each = one.GetAdjustedCPUTime() / (in_turns(name) ? double{turns} : 1.0);
      const auto [known, first] = figures_.emplace(name, each);
      if (!first && each < known->second) known->second = each;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void print() const {
    printf("\nns per call, the best of all repetitions\n");
    for (const auto &[name, figure] : figures_) printf("  %-24s %9.2f\n", name.c_str(), figure);
    constexpr bool wide = sizeof(void *) == 8;
    printf("\n");
    at_most("20 bytes in times of rte_raw_cksum", "ip_checksum/20", "rte/20", wide ? 0.6 : 0.75);
    at_most("1,500 bytes in times of rte_raw_cksum", "ip_checksum/1500", "rte/1500", 1);
    at_least("1,500 bytes faster than additions with carry by", "carry/1500", "ip_checksum/1500", wide ? 2 : 3);
    at_most("8 odd segments in times of rte_raw_cksum each", "in_cksum/segments", "rte/segments", wide ? 0.8 : 1.0);
    at_least("64 KiB: part of the speed of reading", "read/65536", "ip_checksum/65536", 0.55);
    at_most("MD5 digest of 100 bytes in times of nettle's", "hmac_md5", "nettle/md5", 1.15);
    at_most("SHA digest of 100 bytes in times of nettle's", "hmac_sha", "nettle/sha", 1.15);
  }

 private:
  static bool in_turns(const std::string &name) {
    return !name.ends_with("/segments") && !name.starts_with("hmac") && !name.starts_with("nettle");
  }
  void at_most(const char *what, const char *own, const char *other, double target) const {
    line(what, own, other, target, true);
  }
  void at_least(const char *what, const char *own, const char *other, double target) const {
    line(what, own, other, target, false);
  }
  void line(const char *what, const char *one, const char *other, double target, bool most) const {
    const auto first = figures_.find(one);
    const auto second = figures_.find(other);
    if (first == figures_.end() || second == figures_.end()) return;
    const double ratio = first->second / second->second;
    const bool met = most ? ratio <= target : ratio >= target;
    printf("%-50s %6.2f  (at %s %.2f: %s)\n", what, ratio, most ? "most" : "least", target, met ? "met" : "missed");
  }
  std::map<std::string, double> figures_;
};

}  // namespace

int main(int argc, char **argv) {
  for (const size_t size : {size_t{20}, size_t{64}, size_t{187}, size_t{1500}, size_t{9000}, size_t{65536}}) {
    const auto name = [size](const char *what) { return std::string(what) + '/' + std::to_string(size); };
    benchmark::RegisterBenchmark(name("ip_checksum").c_str(), flat, own_loop, size);
    benchmark::RegisterBenchmark(name("rte").c_str(), flat, cksum_peers::rte_loop, size);
    benchmark::RegisterBenchmark(name("carry").c_str(), flat, cksum_peers::carry_loop, size);
    benchmark::RegisterBenchmark(name("read").c_str(), flat, cksum_peers::read_loop, size);
  }
  benchmark::RegisterBenchmark("in_cksum/segments", chain_ours);
  benchmark::RegisterBenchmark("rte/segments", chain_rte);
  benchmark::RegisterBenchmark("hmac_md5", digest_ours, true);
  benchmark::RegisterBenchmark("nettle/md5", digest_nettle, true);
  benchmark::RegisterBenchmark("hmac_sha", digest_ours, false);
  benchmark::RegisterBenchmark("nettle/sha", digest_nettle, false);
  benchmark::Initialize(&argc, argv);
  Ratios ratios;
  benchmark::RunSpecifiedBenchmarks(&ratios);
  ratios.print();
  return 0;
}
