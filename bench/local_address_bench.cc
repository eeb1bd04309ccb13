// SPDX-License-Identifier: Apache-2.0
// What it costs to ask which interface holds a local address, alone and while a second process asks the same, beside
// other ways to learn it: a hash table of one's own (bare, and behind a lock that processes share), the kernel's answer
// over netlink, getifaddrs, and libnl's cache.
//
// Each question depends on the answer before it, as in a program that does something with the answer, so the figure is
// the time until the answer is there, and not how many questions fit into the processor at once. Addresses are drawn at
// random from those that are there, without a table of questions that would compete for the caches: 10.0.0.0/8 has
// 65,536 subnets of 24 bits, and a question's number, scrambled, is the number of a subnet.
//
// One publisher, a process of its own, holds three contexts: "default" with 1,000 addresses, "few" with 4, "many" with
// 64,000. In "many" the context is the third of the list, which counts against it. The kernel and libnl are asked in a
// network namespace of this program's own with 1,000 addresses on one interface, if the system allows one; else about
// the machine's own.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <ifaddrs.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ipd/publish/publisher.h"
#include "support/network_namespace.h"
#include "support/process.h"
#include "support/run_directory.h"
#define LIBIP_NO_INET_NTOA
#include "ip_api.h"

namespace {

constexpr uint32_t sizes[] = {4, 1000, 64000};
constexpr uint32_t kernel_addresses = 1000;

const char *context_of(uint32_t size) {
  return size == 4 ? "few" : size == 1000 ? "default" : "many";
}

uint32_t address(uint32_t number) {
  return 0x0a000001u + ((number * 40503u & 0xffffu) << 8);
}

// The chain of questions: the next one cannot be put together before the answer to this one is there. Which one it is
// does not depend on it, so that drawing it costs no time of its own. The highest bit of an answer is always 0, which
// only we know: a comparison would be foretold by the processor, and the chain torn.
class Questions {
 public:
  explicit Questions(uint32_t size) : size_(size) {}
  uint32_t next(uint32_t answer) {
    state_ = state_ * 1664525u + 1013904223u;
    return address(static_cast<uint32_t>((uint64_t{state_} * size_) >> 32)) + (answer >> 31);
  }

 private:
  uint32_t size_;
  uint32_t state_ = 1;
};

// ------------------------------------------------------------------------------------------------ what is asked

int publish(const std::string &ready_file) {
  std::string reason;
  const auto publisher = ipd::Publisher::open(&reason);
  if (publisher == nullptr) {
    fprintf(stderr, "local_address_bench: %s\n", reason.c_str());
    return 1;
  }
  bool done = true;
  for (uint32_t id = 1; id <= 3; ++id) {
    const uint32_t size = id == 1 ? 1000 : id == 2 ? 4 : 64000;
    done = done && publisher->set_context({.id = id, .name = context_of(size), .table_id = id, .router_id = 0});
    for (uint32_t i = 0; i < size; ++i) {
      // Four addresses to an interface.
      const uint32_t ifindex = id * 100000 + i / 4;
      if (i % 4 == 0) {
        done = done && publisher->set_interface({.ifindex = ifindex,
                                                 .name = "port" + std::to_string(ifindex),
                                                 .up = true,
                                                 .admin_up = true,
                                                 .loopback = false,
                                                 .multicast = true,
                                                 .forwarding = true,
                                                 .directed_broadcast = false,
                                                 .mtu = 1500,
                                                 .context_id = id});
      }
      done =
          done && publisher->set_address(ifindex, {.addr = address(i), .mask_len = 24, .secondary = false, .scope = 0});
    }
  }
  if (!done || !publisher->commit()) {
    fprintf(stderr, "local_address_bench: %s\n", publisher->last_error().c_str());
    return 1;
  }
  if (FILE *ready = fopen(ready_file.c_str(), "w"); ready != nullptr) fclose(ready);
  for (;;) {
    publisher->tick(std::chrono::steady_clock::now());
    usleep(500000);
  }
}

// ----------------------------------------------------------------------------------- a hash table of one's own

struct Record {
  uint32_t iod;
  uint32_t rest[15];
};
static_assert(sizeof(Record) == 64);

struct Table {
  pthread_rwlock_t lock;
  uint32_t shift;
  uint32_t mask;
  struct Slot {
    uint32_t key;     // 0: empty
    uint32_t record;  // number
  } * slots;
  Record *records;

  [[nodiscard]] uint32_t first(uint32_t key) const { return (key * 0x9e3779b1u) >> shift; }
};

void *memory(size_t bytes) {
  void *result = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return result == MAP_FAILED ? nullptr : result;
}

// At most half full, as the index under the query.
Table *make_table(uint32_t size) {
  auto *table = static_cast<Table *>(memory(sizeof(Table)));
  const uint32_t slots = std::bit_ceil(2 * size);
  table->shift = 32 - static_cast<uint32_t>(std::bit_width(slots) - 1);
  table->mask = slots - 1;
  table->slots = static_cast<Table::Slot *>(memory(sizeof(Table::Slot) * slots));
  table->records = static_cast<Record *>(memory(sizeof(Record) * size));
  pthread_rwlockattr_t attributes;
  pthread_rwlockattr_init(&attributes);
  pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_rwlock_init(&table->lock, &attributes);
  for (uint32_t i = 0; i < size; ++i) {
    uint32_t at = table->first(address(i));
    while (table->slots[at].key != 0) at = (at + 1) & table->mask;
    table->slots[at] = {address(i), i};
    table->records[i] = {1 + i / 4, {}};
  }
  return table;
}

Table *table_of(uint32_t size) {
  static std::map<uint32_t, Table *> tables;
  Table *&table = tables[size];
  if (table == nullptr) table = make_table(size);
  return table;
}

__attribute__((noinline)) bool probe_and_copy(const Table *table, uint32_t key, Record *copy) {
  for (uint32_t at = table->first(key);; at = (at + 1) & table->mask) {
    const Table::Slot &slot = table->slots[at];
    if (slot.key == key) {
      *copy = table->records[slot.record];
      return true;
    }
    if (slot.key == 0) return false;
  }
}

__attribute__((noinline)) bool locked_probe_and_copy(Table *table, uint32_t key, Record *copy) {
  pthread_rwlock_rdlock(&table->lock);
  const bool found = probe_and_copy(table, key, copy);
  pthread_rwlock_unlock(&table->lock);
  return found;
}

// ---------------------------------------------------------------------------------------- one question, each way

uint32_t ask_libip(uint32_t size, uint32_t addr) {
  return ip_get_iod_for_local_address(context_of(size), addr);
}

uint32_t ask_table(uint32_t size, uint32_t addr) {
  Record copy;
  const bool found = probe_and_copy(table_of(size), addr, &copy);
  benchmark::DoNotOptimize(copy);
  return found ? copy.iod : 0;
}

uint32_t ask_locked_table(uint32_t size, uint32_t addr) {
  Record copy;
  const bool found = locked_probe_and_copy(table_of(size), addr, &copy);
  benchmark::DoNotOptimize(copy);
  return found ? copy.iod : 0;
}

// This process, or a child before it begins, on the n-th of the processors that it may use: two that ask at the same
// time shall not take turns on one.
void stay_on_processor(int n) {
  static const cpu_set_t all = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  if (CPU_COUNT(&all) < 2) return;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &all) || n-- != 0) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    sched_setaffinity(0, sizeof one, &one);
    return;
  }
}

// A second process that asks the same for as long as this object lives.
std::optional<test_support::Process> neighbour(bool wanted, uint32_t (*ask)(uint32_t, uint32_t), uint32_t size) {
  if (!wanted) return std::nullopt;
  auto *asked = static_cast<std::atomic<uint32_t> *>(memory(4096));
  std::optional<test_support::Process> process(std::in_place, [=]() -> int {
    stay_on_processor(1);
    Questions questions(size);
    for (uint32_t answer = 1;;) {
      for (int i = 0; i < 1000; ++i) answer = ask(size, questions.next(answer));
      asked->store(1, std::memory_order_relaxed);
    }
  });
  test_support::wait_until([&] { return asked->load(std::memory_order_relaxed) != 0; });
  munmap(asked, 4096);
  return process;
}

template <class Ask>
void run_chain(benchmark::State &state, uint32_t size, Ask ask) {
  Questions questions(size);
  uint32_t answer = 1;
  for (auto _ : state) {
    answer = ask(questions.next(answer));
    if (answer == 0) {
      state.SkipWithError("an address that is there was not found");
      return;
    }
  }
}

void libip(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  const auto beside = neighbour(state.range(1) == 2, ask_libip, size);
  const char *name = context_of(size);
  run_chain(state, size, [name](uint32_t addr) { return ip_get_iod_for_local_address(name, addr); });
}

void bare_probe(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  const Table *table = table_of(size);
  const auto beside = neighbour(state.range(1) == 2, ask_table, size);
  run_chain(state, size, [table](uint32_t addr) {
    Record copy;
    const bool found = probe_and_copy(table, addr, &copy);
    benchmark::DoNotOptimize(copy);
    return found ? copy.iod : 0;
  });
}

void rwlock_probe(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  Table *table = table_of(size);
  const auto beside = neighbour(state.range(1) == 2, ask_locked_table, size);
  run_chain(state, size, [table](uint32_t addr) {
    Record copy;
    const bool found = locked_probe_and_copy(table, addr, &copy);
    benchmark::DoNotOptimize(copy);
    return found ? copy.iod : 0;
  });
}

// ------------------------------------------------------------------------------------------ the kernel and libnl

uint32_t addresses_in_kernel = 0;  // address(0), address(1), ...; 0: only the machine's own, so 127.0.0.1 is asked

uint32_t kernel_question(Questions &questions, uint32_t answer) {
  return addresses_in_kernel != 0 ? questions.next(answer) : 0x7f000001u;
}

int on_attribute(const nlattr *attribute, void *data) {
  if (mnl_attr_get_type(attribute) == RTA_OIF) *static_cast<uint32_t *>(data) = mnl_attr_get_u32(attribute);
  return MNL_CB_OK;
}

int on_route(const nlmsghdr *message, void *data) {
  if (message->nlmsg_type != RTM_NEWROUTE) return MNL_CB_OK;
  const auto *route = static_cast<const rtmsg *>(mnl_nlmsg_get_payload(message));
  if (route->rtm_type == RTN_LOCAL) mnl_attr_parse(message, sizeof(rtmsg), on_attribute, data);
  return MNL_CB_STOP;
}

void rtm_getroute(benchmark::State &state) {
  mnl_socket *socket = mnl_socket_open(NETLINK_ROUTE);
  if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) != 0) {
    state.SkipWithError("no netlink socket");
    return;
  }
  Questions questions(addresses_in_kernel);
  uint32_t answer = 1;
  uint32_t sequence = 0;
  char buffer[4096];
  for (auto _ : state) {
    const uint32_t addr_net = htonl(kernel_question(questions, answer));
    nlmsghdr *request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST;
    request->nlmsg_seq = ++sequence;
    auto *route = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    route->rtm_family = AF_INET;
    route->rtm_dst_len = 32;
    mnl_attr_put_u32(request, RTA_DST, addr_net);
    answer = 0;
    ssize_t size = mnl_socket_sendto(socket, request, request->nlmsg_len);
    if (size > 0) size = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
    if (size <= 0 ||
        mnl_cb_run(buffer, static_cast<size_t>(size), sequence, mnl_socket_get_portid(socket), on_route, &answer) < 0 ||
        answer == 0) {
      state.SkipWithError("the kernel does not know the address");
      break;
    }
  }
  mnl_socket_close(socket);
}

void getifaddrs_search(benchmark::State &state) {
  Questions questions(addresses_in_kernel);
  uint32_t answer = 1;
  for (auto _ : state) {
    const uint32_t addr_net = htonl(kernel_question(questions, answer));
    answer = 0;
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) == 0) {
      for (const ifaddrs *each = list; each != nullptr && answer == 0; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in present;
        memcpy(&present, each->ifa_addr, sizeof present);
        if (present.sin_addr.s_addr == addr_net) answer = if_nametoindex(each->ifa_name);
      }
      freeifaddrs(list);
    }
    if (answer == 0) {
      state.SkipWithError("getifaddrs does not list the address");
      return;
    }
  }
}

// libnl answers from its own copy of the addresses; keeping that up to date is not in this figure.
void libnl_cache(benchmark::State &state) {
  nl_sock *socket = nl_socket_alloc();
  nl_cache *cache = nullptr;
  const auto loopback = static_cast<int>(if_nametoindex("lo"));
  if (socket == nullptr || nl_connect(socket, NETLINK_ROUTE) != 0 || rtnl_addr_alloc_cache(socket, &cache) != 0) {
    state.SkipWithError("libnl has no cache of addresses");
    return;
  }
  Questions questions(addresses_in_kernel);
  uint32_t answer = 1;
  for (auto _ : state) {
    const uint32_t addr_net = htonl(kernel_question(questions, answer));
    nl_addr *wanted = nl_addr_build(AF_INET, &addr_net, sizeof addr_net);
    nl_addr_set_prefixlen(wanted, addresses_in_kernel != 0 ? 24 : 8);
    rtnl_addr *found = rtnl_addr_get(cache, loopback, wanted);
    answer = found == nullptr ? 0 : static_cast<uint32_t>(rtnl_addr_get_ifindex(found));
    if (found != nullptr) rtnl_addr_put(found);
    nl_addr_put(wanted);
    if (answer == 0) {
      state.SkipWithError("libnl does not find the address");
      break;
    }
  }
  nl_cache_free(cache);
  nl_socket_free(socket);
}

// -------------------------------------------------------------------------------------------------------- ratios

// Prints as usual, and remembers each repetition. Of a benchmark that runs alone the fastest one counts, since what
// disturbs it only adds time. Beside a second process the median counts: there the disturbance is what is measured.
class Ratios : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const double time = run.GetAdjustedCPUTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      times_[run.run_name.function_name + "/" + run.run_name.args].push_back(time);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void print_ratios() const {
    printf("\nProcessor time in nanoseconds (alone: the fastest repetition; beside a second process: the median):\n");
    for (const char *processes : {"1", "2"}) {
      const auto at = [&](const char *name, const char *size) {
        return name + std::string("/") + size + "/" + processes;
      };
      ratio(processes, "query / (bare probe + 64-byte copy), 1,000 addresses", at("libip", "1000"),
            at("bare_probe", "1000"), 1.5, false);
      ratio(processes, "probe under a shared rwlock / query, 1,000 addresses", at("rwlock_probe", "1000"),
            at("libip", "1000"), 3, true);
      ratio(processes, "RTM_GETROUTE / query, 1,000 addresses", "rtm_getroute/", at("libip", "1000"), 500, true);
      ratio(processes, "query, 64,000 addresses / 4 addresses", at("libip", "64000"), at("libip", "4"), 3, false);
      ratio(processes, "bare probe, 64,000 addresses / 4 addresses", at("bare_probe", "64000"), at("bare_probe", "4"),
            0, false);
      ratio(processes, "getifaddrs / query, 1,000 addresses", "getifaddrs/", at("libip", "1000"), 0, false);
      ratio(processes, "libnl's cache / query, 1,000 addresses", "libnl_cache/", at("libip", "1000"), 0, false);
    }
  }

 private:
  static double typical(std::vector<double> times, const std::string &name) {
    std::ranges::sort(times);
    return times[name.ends_with("/2") ? times.size() / 2 : 0];
  }

  // target 0: none.
  void ratio(const char *processes, const char *what, const std::string &above, const std::string &below, double target,
             bool at_least) const {
    const auto first = times_.find(above);
    const auto second = times_.find(below);
    if (first == times_.end() || second == times_.end()) return;
    const double above_time = typical(first->second, above);
    const double below_time = typical(second->second, below);
    const double value = above_time / below_time;
    printf("%s process%s  %-55s %10.1f / %7.1f = %8.2f", processes, processes[0] == '1' ? "  " : "es", what, above_time,
           below_time, value);
    if (target != 0) {
      const bool met = at_least ? value >= target : value <= target;
      printf("   target at %s %g: %s", at_least ? "least" : "most", target, met ? "met" : "MISSED");
    }
    printf("\n");
  }

  std::map<std::string, std::vector<double>> times_;
};

void prepare_kernel() {
  std::string reason;
  if (!test_support::enter_network_namespace(&reason)) {
    printf("No network namespace (%s): the kernel is asked about the machine's own addresses.\n", reason.c_str());
    return;
  }
  test_support::AddressChanger changer;
  const auto loopback = static_cast<int>(if_nametoindex("lo"));
  if (test_support::run({"ip", "link", "set", "lo", "up"}) != 0) printf("lo does not come up\n");
  for (uint32_t i = 0; i < kernel_addresses; ++i) {
    if (changer.add(loopback, address(i), 24) != 0) {
      printf("The kernel refuses address %u of %u: it is asked about 127.0.0.1 only.\n", i, kernel_addresses);
      return;
    }
  }
  addresses_in_kernel = kernel_addresses;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<char *> arguments(argv, argv + argc);
  char interleaving[] = "--benchmark_enable_random_interleaving=true";
  char repetitions[] = "--benchmark_repetitions=9";
  char time[] = "--benchmark_min_time=0.1";
  // In front of the caller's own, which win.
  for (char *flag : {interleaving, repetitions, time}) arguments.insert(arguments.begin() + 1, flag);
  int count = static_cast<int>(arguments.size());
  for (const uint32_t size : sizes) {
    for (const int processes : {1, 2}) {
      benchmark::RegisterBenchmark("libip", libip)->Args({size, processes});
      benchmark::RegisterBenchmark("bare_probe", bare_probe)->Args({size, processes});
      benchmark::RegisterBenchmark("rwlock_probe", rwlock_probe)->Args({size, processes});
    }
  }
  benchmark::RegisterBenchmark("rtm_getroute", rtm_getroute);
  benchmark::RegisterBenchmark("getifaddrs", getifaddrs_search);
  benchmark::RegisterBenchmark("libnl_cache", libnl_cache);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;

  prepare_kernel();
  const test_support::RunDirectory directory;
  const std::string ready = directory.path() + "/ready";
  test_support::Process publisher([&] { return publish(ready); });
  test_support::wait_until([&] { return access(ready.c_str(), F_OK) == 0 || !publisher.running(); },
                           std::chrono::minutes(2));
  if (ip_shm_api_init() == nullptr) return 1;
  for (const uint32_t size : sizes) table_of(size);  // before a neighbour is forked
  stay_on_processor(0);
  Ratios reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.print_ratios();
  ip_api_close();
  return 0;
}
