// SPDX-License-Identifier: Apache-2.0
// The longest match in a route table, what a change and a whole load cost, beside peers: DPDK's rte_lpm and rte_fib,
// FRR's route table, std::map, and the kernel's own answer over netlink.
//
// Routes are BGP-like (tests/platform/bgp_routes.h). "matched" keys lie inside a route drawn at random, "uniform" keys
// anywhere in the unicast space. "independent" questions may overlap in the processor; in a "dependent" chain the next
// key needs the answer before it. URIB is asked through its exported call, and without its lock in the loop, as the
// peers have none; its answer is a route's handle, theirs a next hop's number.
//
// DPDK runs without huge pages (--no-huge), as everything else here does.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <rte_eal.h>
#include <rte_fib.h>
#include <rte_lpm.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/bgp_routes.h"
#include "support/kernel_routes.h"
#include "support/network_namespace.h"
#include "support/run_directory.h"
#include "tsp/epochs.h"
#include "urib.h"
#include "urib/urib_writer.h"

namespace {

using rsw::Route;

constexpr size_t key_count = 1 << 16;

[[noreturn]] void stop(const std::string &reason) {
  fprintf(stderr, "urib_bench: %s\n", reason.c_str());
  exit(1);
}

const std::vector<Route> &routes(size_t count) {
  static std::map<size_t, std::vector<Route>> all;
  std::vector<Route> &made = all[count];
  if (made.empty()) made = bgp_routes::make(count, 1);
  return made;
}

std::vector<uint32_t> keys(size_t count, bool matched) {
  std::mt19937 random(7);
  std::vector<uint32_t> made(key_count);
  for (uint32_t &key : made) {
    const auto any = static_cast<uint32_t>(random());
    const Route &inside = routes(count)[random() % count];
    key = matched ? inside.addr | (inside.len == 32 ? 0 : any >> inside.len) : 0x01000000u + any % 0xde000000u;
  }
  return made;
}

// Publishes tables of all sizes.
struct Urib {
  Urib() {
    std::string reason;
    epochs = rsw::Epochs::open(&reason);
    if (epochs != nullptr) writer = rsw::UribWriter::open(*epochs, &reason);
    if (writer == nullptr || !writer->commit()) stop(reason);
    if (urib_api_init() == 0) stop("URIB does not open");
  }
  uint32_t table(size_t count) {
    const uint32_t id = count == 1000 ? 1 : count == 100000 ? 2 : 3;
    if (!loaded[count]) loaded[count] = writer->load(id, routes(count));
    if (!loaded[count]) stop(writer->last_error());
    return id;
  }
  test_support::RunDirectory directory;
  std::unique_ptr<rsw::Epochs> epochs;
  std::unique_ptr<rsw::UribWriter> writer;
  std::map<size_t, bool> loaded;
};
Urib &urib() {
  static Urib only;
  return only;
}

uint32_t next_hop_of(const Route &route) {
  return route.next_hops[0].addr & 0xff;
}

rte_lpm *lpm(size_t count) {
  static std::map<size_t, rte_lpm *> all;
  rte_lpm *&made = all[count];
  if (made != nullptr) return made;
  const rte_lpm_config config{.max_rules = 1000000, .number_tbl8s = 1024, .flags = 0};
  made = rte_lpm_create(("lpm" + std::to_string(count)).c_str(), SOCKET_ID_ANY, &config);
  if (made == nullptr) stop("rte_lpm_create fails");
  for (const Route &route : routes(count)) {
    if (rte_lpm_add(made, route.addr, route.len, next_hop_of(route)) != 0) stop("rte_lpm_add fails");
  }
  return made;
}

rte_fib *empty_fib() {
  rte_fib_conf config{};
  config.type = RTE_FIB_DIR24_8;
  config.default_nh = 255;
  config.max_routes = 1000000;
  config.dir24_8.nh_sz = RTE_FIB_DIR24_8_4B;
  config.dir24_8.num_tbl8 = 1024;
  static int number = 0;
  rte_fib *made = rte_fib_create(("fib" + std::to_string(++number)).c_str(), SOCKET_ID_ANY, &config);
  if (made == nullptr) stop("rte_fib_create fails");
  return made;
}
void fill(rte_fib *into, const std::vector<Route> &from) {
  for (const Route &route : from) {
    if (rte_fib_add(into, route.addr, route.len, next_hop_of(route)) != 0) stop("rte_fib_add fails");
  }
}
rte_fib *fib(size_t count) {
  static std::map<size_t, rte_fib *> all;
  rte_fib *&made = all[count];
  if (made == nullptr) fill(made = empty_fib(), routes(count));
  return made;
}

// FRR ships its library without headers; these are the few names that are needed of it.
extern "C" {
struct route_table;
struct route_node;
struct frr_prefix {
  uint8_t family;
  uint16_t prefixlen;
  alignas(8) uint32_t addr_net;
  uint8_t rest[60];
};
route_table *route_table_init(void);
route_node *route_node_get(route_table *, const frr_prefix *);
route_node *route_node_match_ipv4(route_table *, const in_addr *);
}

// Only nodes with information answer a match. Where a node keeps it: behind its pointer to the table, its parent, two
// children, its count of users and its entry in a hash; a wrong guess shows as a match that fails.
void **information_of(route_node *node, route_table *table) {
  auto **words = reinterpret_cast<void **>(node);
  for (size_t i = 0; i < 32; ++i) {
    if (words[i] == table) return words + i + 7;
  }
  stop("libfrr's nodes look unlike those that this program knows");
}

route_table *frr(size_t count) {
  static std::map<size_t, route_table *> all;
  route_table *&made = all[count];
  if (made != nullptr) return made;
  made = route_table_init();
  for (const Route &route : routes(count)) {
    frr_prefix prefix{};
    prefix.family = AF_INET;
    prefix.prefixlen = route.len;
    prefix.addr_net = htonl(route.addr);
    *information_of(route_node_get(made, &prefix), made) = made;
  }
  for (size_t i = 0; i < count; i += 97) {
    const in_addr inside{htonl(routes(count)[i].addr)};
    if (route_node_match_ipv4(made, &inside) == nullptr) stop("libfrr does not find a route that was added");
  }
  return made;
}

using Map = std::map<std::pair<uint32_t, uint8_t>, uint32_t>;
const Map &map_of(size_t count) {
  static std::map<size_t, Map> all;
  Map &made = all[count];
  if (made.empty()) {
    for (const Route &route : routes(count)) made.emplace(std::pair(route.addr, route.len), next_hop_of(route));
  }
  return made;
}
// From the last prefix that is not behind the address towards shorter ones that could cover it.
uint32_t map_match(const Map &map, uint32_t addr) {
  std::pair<uint32_t, uint8_t> key(addr, uint8_t{32});
  for (;;) {
    auto found = map.upper_bound(key);
    if (found == map.begin()) return 0;
    --found;
    const auto [prefix, len] = found->first;
    const uint32_t differs = (prefix ^ addr) & (len == 0 ? 0 : ~0u << (32 - len));
    if (differs == 0) return found->second;
    // Nothing longer than the common bits can cover the address.
    const auto common = static_cast<uint8_t>(std::countl_zero(prefix ^ addr));
    key = {addr & (common == 0 ? 0 : ~0u << (32 - common)), common};
  }
}

struct Case {
  size_t count;
  bool matched;
  bool dependent;
};

template <class Ask>
void run(benchmark::State &state, const Case &which, Ask ask) {
  const std::vector<uint32_t> asked = keys(which.count, which.matched);
  size_t i = 0;
  if (which.dependent) {
    for (auto _ : state) {
      // The answer decides nothing, but the processor cannot know.
      uint64_t answer = ask(asked[i]);
      benchmark::DoNotOptimize(answer);
      i = (i + 1 + (answer >> 40)) & (key_count - 1);
    }
  } else {
    for (auto _ : state) {
      benchmark::DoNotOptimize(ask(asked[i]));
      i = (i + 1) & (key_count - 1);
    }
  }
}

void urib_best(benchmark::State &state, const Case &which) {
  const uint32_t table = urib().table(which.count);
  run(state, which,
      [table](uint32_t key) -> uint64_t { return reinterpret_cast<uintptr_t>(urib_get_best_route(table, key, 0, 0)); });
}
void urib_best_locked(benchmark::State &state, const Case &which) {
  const uint32_t table = urib().table(which.count);
  run(state, which, [table](uint32_t key) -> uint64_t {
    urib_acquire_rdlock();
    const uint64_t iod = urib_route_first_bnh_iod_get(urib_get_best_route(table, key, 0, 0));
    urib_release_rdlock();
    return iod;
  });
}
void dpdk_lpm(benchmark::State &state, const Case &which) {
  rte_lpm *table = lpm(which.count);
  run(state, which, [table](uint32_t key) -> uint64_t {
    uint32_t hop = 0;
    return rte_lpm_lookup(table, key, &hop) == 0 ? hop : 0;
  });
}
void dpdk_fib(benchmark::State &state, const Case &which) {
  rte_fib *table = fib(which.count);
  run(state, which, [table](uint32_t key) {
    uint64_t hop = 0;
    rte_fib_lookup_bulk(table, &key, &hop, 1);
    return hop;
  });
}
void frr_match(benchmark::State &state, const Case &which) {
  route_table *table = frr(which.count);
  run(state, which, [table](uint32_t key) -> uint64_t {
    const in_addr addr{htonl(key)};
    return reinterpret_cast<uintptr_t>(route_node_match_ipv4(table, &addr)) & 0xffffffff;
  });
}
void std_map(benchmark::State &state, const Case &which) {
  const Map &map = map_of(which.count);
  run(state, which, [&map](uint32_t key) -> uint64_t { return map_match(map, key); });
}

// One change there and back in the large table; the time is of one change.
// The kernel of this program's own network namespace, with the routes of one case at a time in its main table.
class Kernel {
 public:
  void load(size_t count) {
    if (count == loaded_) return;
    FILE *batch = popen("ip -batch -", "w");
    if (batch == nullptr) stop("ip cannot be started");
    fputs("link set lo up\nroute flush table main\n", batch);
    for (const Route &route : routes(count)) {
      fprintf(batch, "route replace %s/%u dev lo\n", test_support::dotted(route.addr).c_str(), route.len);
    }
    if (pclose(batch) != 0) stop("the kernel does not take the routes");
    loaded_ = count;
  }
  uint64_t first_interface(uint32_t addr) {
    const test_support::KernelAnswer answer = kernel_.way({.dest = addr});
    return answer.next_hops.empty() ? 0 : answer.next_hops.front().ifindex;
  }

 private:
  test_support::KernelRoutes kernel_;
  size_t loaded_ = 0;
};

void rtm_getroute(benchmark::State &state, const Case &which) {
  static Kernel kernel;
  kernel.load(which.count);
  run(state, which, [](uint32_t key) { return kernel.first_interface(key); });
}

// What was retired before it is free again after it: changes as fast as can be, of each of which memory is kept for a
// second, are more than the segment holds. So its time goes faster here.
void rest() {
  static std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
  urib().writer->tick(now += std::chrono::seconds(2));
  urib().writer->tick(now += std::chrono::seconds(2));
}

void one_change(benchmark::State &state, uint32_t addr, uint8_t len) {
  const uint32_t table = urib().table(900000);
  Route route = routes(900000)[0];
  route.addr = addr;
  route.len = len;
  int64_t changes = 0;
  for (auto _ : state) {
    if (!urib().writer->set(table, route)) stop(urib().writer->last_error());
    if (!urib().writer->remove(table, rsw::RouteView::unicast, addr, len)) stop(urib().writer->last_error());
    if (++changes % 64 == 0) {
      state.PauseTiming();
      rest();
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(2 * changes);
}

void urib_load(benchmark::State &state) {
  const std::vector<Route> &all = routes(900000);
  for (auto _ : state) {
    if (!urib().writer->load(77, all)) stop(urib().writer->last_error());
    state.PauseTiming();
    urib().writer->remove_table(77);
    rest();
    state.ResumeTiming();
  }
}
void fib_load(benchmark::State &state) {
  const std::vector<Route> &all = routes(900000);
  for (auto _ : state) {
    state.PauseTiming();
    rte_fib *fresh = empty_fib();
    state.ResumeTiming();
    fill(fresh, all);
    state.PauseTiming();
    rte_fib_free(fresh);
    state.ResumeTiming();
  }
}

// Remembers each figure, and prints the ratios at the end of the run.
class Ratios : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &one : runs) {
      if (!one.error_occurred) figures_[one.benchmark_name()] = one.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void print() const {
    printf("\nURIB's time in that of each peer\n");
    for (const auto &[name, figure] : figures_) {
      const size_t slash = name.find('/');
      if (slash == std::string::npos || name.find("urib/") == std::string::npos) continue;
      for (const char *peer : {"rte_lpm", "rte_fib", "frr", "map", "rtm_getroute"}) {
        const auto found = figures_.find(peer + name.substr(slash));
        if (found != figures_.end()) printf("%-44s %8s %8.2f\n", name.c_str(), peer, figure / found->second);
      }
    }
    const auto own = figures_.find("load/urib");
    const auto peer = figures_.find("load/rte_fib");
    if (own != figures_.end() && peer != figures_.end()) {
      printf("%-44s %8s %8.3f\n", "load of 900000", "rte_fib", own->second / peer->second);
    }
    const rsw::UribUse use = urib().writer->use();
    printf("%u tables, %llu routes: %llu bytes to search, %llu of routes\n", use.tables,
           static_cast<unsigned long long>(use.routes), static_cast<unsigned long long>(use.lookup_bytes),
           static_cast<unsigned long long>(use.route_bytes));
  }

 private:
  std::map<std::string, double> figures_;
};

}  // namespace

int main(int argc, char **argv) {
  std::string reason;
  const bool own_kernel = test_support::enter_network_namespace(&reason);
  if (!own_kernel) printf("No network namespace (%s): the kernel is not asked.\n", reason.c_str());
  std::vector<std::string> words = {argv[0],       "--no-huge",   "-m", "3000", "--no-pci", "--no-telemetry",
                                    "--no-shconf", "--log-level", "1",  "-l",   "0"};
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  if (rte_eal_init(static_cast<int>(arguments.size()), arguments.data()) < 0) stop("rte_eal_init fails");
  using Bench = void (*)(benchmark::State &, const Case &);
  std::vector<std::pair<const char *, Bench>> asked = {{"urib", urib_best},   {"urib_locked", urib_best_locked},
                                                       {"rte_lpm", dpdk_lpm}, {"rte_fib", dpdk_fib},
                                                       {"frr", frr_match},    {"map", std_map}};
  if (own_kernel) asked.emplace_back("rtm_getroute", rtm_getroute);
  for (const size_t count : {size_t{1000}, size_t{100000}, size_t{900000}}) {
    for (const bool dependent : {false, true}) {
      for (const bool matched : {true, false}) {
        for (const auto &[name, bench] : asked) {
          const std::string full = std::string(name) + "/" + std::to_string(count) +
                                   (dependent ? "/dependent" : "/independent") + (matched ? "/matched" : "/uniform");
          const Case which{count, matched, dependent};
          benchmark::RegisterBenchmark(full.c_str(), bench, which);
        }
      }
    }
  }
  benchmark::RegisterBenchmark("change/24", one_change, 0xdf123400u, uint8_t{24});
  benchmark::RegisterBenchmark("change/16", one_change, 0xdf120000u, uint8_t{16});
  benchmark::RegisterBenchmark("change/0", one_change, 0u, uint8_t{0});
  benchmark::RegisterBenchmark("load/urib", urib_load)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("load/rte_fib", fib_load)->Unit(benchmark::kMillisecond)->Iterations(1);
  benchmark::Initialize(&argc, argv);
  Ratios ratios;
  benchmark::RunSpecifiedBenchmarks(&ratios);
  ratios.print();
  return 0;
}
