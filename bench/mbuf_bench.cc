// SPDX-License-Identifier: Apache-2.0
// A packet buffer taken and given back, beside an object of DPDK's mempool with a cache per core: one thread, and two
// at once. Time is per buffer, for taking it and giving it back; the bursts of 32 take all before they give any back.
//
// DPDK runs inside this process, without huge pages and without devices. Its objects are as large as our buffers; what
// a buffer's record is set to when it is taken is set on our side only.
#include <benchmark/benchmark.h>
#include <rte_eal.h>
#include <rte_lcore.h>
#include <rte_mempool.h>
#include <stdio.h>
#include <stdlib.h>

#include <array>
#include <string>

#include "mbuf/buffers.h"
#include "mbuf/pool.h"
#include "support/run_directory.h"

namespace {

constexpr size_t burst = 32;

rte_mempool *peer_pool = nullptr;

bool prepare_peer() {
  static std::array<std::string, 7> words{"mbuf_bench",  "--no-huge",         "--no-pci",        "--no-telemetry",
                                          "--no-shconf", "--log-level=error", "--lcores=0@0,1@1"};
  std::array<char *, words.size()> arguments{};
  for (size_t i = 0; i < words.size(); i++) arguments[i] = words[i].data();
  if (rte_eal_init(static_cast<int>(arguments.size()), arguments.data()) < 0) return false;
  peer_pool = rte_mempool_create("peer", 8191, sizeof(rsw::PacketBuffer), 256, 0, nullptr, nullptr, nullptr, nullptr,
                                 SOCKET_ID_ANY, 0);
  return peer_pool != nullptr;
}

// A thread of the benchmark is a core of DPDK's while it has a number, and then it has a cache of its own.
class PeerThread {
 public:
  PeerThread() : registered_(rte_lcore_id() == LCORE_ID_ANY && rte_thread_register() == 0) {}
  ~PeerThread() {
    if (registered_) rte_thread_unregister();
  }
  PeerThread(const PeerThread &) = delete;
  PeerThread &operator=(const PeerThread &) = delete;
  [[nodiscard]] static bool has_cache() { return rte_lcore_id() != LCORE_ID_ANY; }

 private:
  bool registered_;
};

void take_and_give(benchmark::State &state) {
  for ([[maybe_unused]] auto _ : state) {
    struct mbuf *m = rsw::take_buffer();
    benchmark::DoNotOptimize(m);
    rsw::give_buffer_back(m);
  }
}

void peer_take_and_give(benchmark::State &state) {
  const PeerThread thread;
  if (!PeerThread::has_cache()) return state.SkipWithError("no core number for this thread");
  for ([[maybe_unused]] auto _ : state) {
    void *object = nullptr;
    if (rte_mempool_get(peer_pool, &object) != 0) return state.SkipWithError("the peer's pool is empty");
    benchmark::DoNotOptimize(object);
    rte_mempool_put(peer_pool, object);
  }
}

void take_and_give_bursts(benchmark::State &state) {
  std::array<struct mbuf *, burst> taken{};
  for ([[maybe_unused]] auto _ : state) {
    for (struct mbuf *&m : taken) m = rsw::take_buffer();
    benchmark::DoNotOptimize(taken);
    for (struct mbuf *m : taken) rsw::give_buffer_back(m);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(burst));
}

void peer_take_and_give_bursts(benchmark::State &state) {
  const PeerThread thread;
  if (!PeerThread::has_cache()) return state.SkipWithError("no core number for this thread");
  std::array<void *, burst> taken{};
  for ([[maybe_unused]] auto _ : state) {
    for (void *&object : taken) {
      if (rte_mempool_get(peer_pool, &object) != 0) return state.SkipWithError("the peer's pool is empty");
    }
    benchmark::DoNotOptimize(taken);
    for (void *object : taken) rte_mempool_put(peer_pool, object);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(burst));
}

BENCHMARK(take_and_give)->Threads(1);
BENCHMARK(peer_take_and_give)->Threads(1);
BENCHMARK(take_and_give)->Threads(2);
BENCHMARK(peer_take_and_give)->Threads(2);
BENCHMARK(take_and_give_bursts)->Threads(1);
BENCHMARK(peer_take_and_give_bursts)->Threads(1);

}  // namespace

int main(int argc, char **argv) {
  const test_support::RunDirectory directory;
  std::string reason;
  if (!rsw::mbuf_open_for_writing(&reason)) {
    fprintf(stderr, "mbuf_bench: %s\n", reason.c_str());
    return EXIT_FAILURE;
  }
  if (!prepare_peer()) {
    fprintf(stderr, "mbuf_bench: DPDK does not start here\n");
    return EXIT_FAILURE;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
  benchmark::RunSpecifiedBenchmarks();
  rsw::mbuf_leave();
  return EXIT_SUCCESS;
}
