// SPDX-License-Identifier: Apache-2.0
// Clients query in loops while the kernel's addresses change a thousand times a second and ipd is killed and restarted:
// no crash, no hang, no answer that was never true.
//
// Three sets of addresses: some are there from before the first client until after the last, so they must always be
// found; some come and go, so they are found on their own interface or not at all; some never exist.
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "support/network_namespace.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using test_support::AddressChanger;
using test_support::Process;
using test_support::RunDirectory;
using test_support::wait_until;

constexpr uint32_t permanent_base = 0x0a010000;  // 10.1.0.0, on veth "left"
constexpr uint32_t flipping_base = 0x0a020000;   // 10.2.0.0, on its peer "right"
constexpr uint32_t absent_base = 0x0a030000;
constexpr uint32_t permanent_count = 32;
constexpr uint32_t flipping_count = 64;
constexpr int clients = 3;
constexpr int restarts = 4;
constexpr auto duration = std::chrono::seconds(6);
constexpr auto most_duration = std::chrono::seconds(90);  // on a machine that is busy with other things
constexpr uint64_t enough_queries = 100000;

struct Counters {  // shared by the processes of the test
  std::atomic<bool> stop;
  std::atomic<uint64_t> queries[clients];
  std::atomic<uint32_t> wrong;
  char first_wrong[200];
};

class Client {
 public:
  Client(Counters *counters, int number) : counters_(counters), number_(number) {}

  int run() {
    if (ip_shm_api_init() == nullptr) return fail("cannot attach", 0, 0);
    left_ = ip_get_iod_for_local_address("default", permanent_base + 1);
    im_get_iod_frm_ifindex(if_nametoindex("right"), &right_);
    if (left_ == 0 || right_ == 0) return fail("interfaces unknown", left_, right_);
    std::mt19937 random(static_cast<unsigned>(number_) + 1);
    uint64_t asked = 0;
    while (!counters_->stop.load(std::memory_order_relaxed)) {
      if (!ask(random)) return 1;
      if (++asked % 64 == 0) counters_->queries[number_].store(asked * 6, std::memory_order_relaxed);
    }
    counters_->queries[number_].store(asked * 6, std::memory_order_relaxed);
    ip_api_close();
    return 0;
  }

 private:
  bool ask(std::mt19937 &random) {
    const uint32_t fixed = permanent_base + 1 + random() % permanent_count;
    const uint32_t flips = flipping_base + 1 + random() % flipping_count;
    const uint32_t absent = absent_base + 1 + random() % flipping_count;
    if (ip_get_iod_for_local_address("default", fixed) != left_)
      return !fail("a permanent address is not held", fixed, 0);
    if (ip_get_local_mask_len(fixed, left_) != 24) return !fail("a permanent address lost its mask", fixed, 0);
    const uint32_t held = ip_get_iod_for_local_address("default", flips);
    if (held != 0 && held != right_) return !fail("a flipping address is held elsewhere", flips, held);
    const uint32_t len = ip_get_local_mask_len(flips, right_);
    if (len != 0 && len != 32) return !fail("a flipping address has a wrong mask", flips, len);
    if (ip_get_iod_for_local_address("default", absent) != 0) return !fail("an absent address is held", absent, 0);
    if (ip_is_address_on_interface(flips, left_) != 0) return !fail("a flipping address is on the other one", flips, 0);
    return true;
  }

  int fail(const char *what, uint32_t addr, uint32_t value) {
    if (counters_->wrong.fetch_add(1) == 0) {
      snprintf(counters_->first_wrong, sizeof counters_->first_wrong, "client %d: %s (%08x, %u)", number_, what, addr,
               value);
    }
    return 1;
  }

  Counters *counters_;
  int number_;
  uint32_t left_ = 0;
  uint32_t right_ = 0;
};

class Churn : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason;
    ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
    ASSERT_EQ(test_support::run({"ip", "link", "set", "lo", "up"}), 0);
    ASSERT_EQ(test_support::run({"ip", "link", "add", "left", "type", "veth", "peer", "name", "right"}), 0);
    ASSERT_EQ(test_support::run({"ip", "link", "set", "left", "up"}), 0);
    ASSERT_EQ(test_support::run({"ip", "link", "set", "right", "up"}), 0);
    left_ = static_cast<int>(if_nametoindex("left"));
    right_ = static_cast<int>(if_nametoindex("right"));
    for (uint32_t i = 1; i <= permanent_count; i++) ASSERT_EQ(changer_.add(left_, permanent_base + i, 24), 0);
    counters_ = static_cast<Counters *>(
        mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(counters_, MAP_FAILED);
  }

  Process start_ipd() { return Process({IPD, "--foreground"}); }

  bool live() const {
    return wait_until([] { return test_support::run({IPSH, "show", "contexts"}) == 0; });
  }

  // Flips one address; the kernel's answer is the truth that present_ keeps.
  void flip(uint32_t index) {
    const uint32_t addr = flipping_base + 1 + index;
    const int error = present_[index] ? changer_.remove(right_, addr, 32) : changer_.add(right_, addr, 32);
    ASSERT_EQ(error, 0);
    present_[index] = !present_[index];
  }

  uint64_t queries_so_far() const {
    uint64_t sum = 0;
    for (const std::atomic<uint64_t> &queries : counters_->queries) sum += queries.load(std::memory_order_relaxed);
    return sum;
  }

  RunDirectory directory_;
  int left_ = 0;
  int right_ = 0;
  std::vector<bool> present_ = std::vector<bool>(flipping_count, false);
  Counters *counters_ = nullptr;
  struct LazyChanger {  // its socket belongs to the namespace that SetUp enters
    AddressChanger &get() {
      if (!changer) changer = std::make_unique<AddressChanger>();
      return *changer;
    }
    int add(int ifindex, uint32_t addr, uint8_t len) { return get().add(ifindex, addr, len); }
    int remove(int ifindex, uint32_t addr, uint8_t len) { return get().remove(ifindex, addr, len); }
    std::unique_ptr<AddressChanger> changer;
  } changer_;
};

TEST_F(Churn, QueriesStayTrueWhileAddressesChangeAndIpdIsKilledAndRestarted) {
  Process ipd = start_ipd();
  ASSERT_TRUE(live()) << ipd.output();
  std::vector<Process> running;
  for (int i = 0; i < clients; i++) running.emplace_back([this, i] { return Client(counters_, i).run(); });

  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  std::mt19937 random(7);
  uint64_t changes = 0;
  int kills = 0;
  const auto has_done_all = [&] {
    return Clock::now() - begin >= duration && kills == restarts && queries_so_far() > enough_queries;
  };
  while (!has_done_all() && Clock::now() - begin < most_duration && counters_->wrong.load() == 0) {
    ASSERT_NO_FATAL_FAILURE(flip(random() % flipping_count));
    changes++;
    // A thousand changes a second, and a kill each duration / (restarts + 1).
    const auto due = begin + std::chrono::milliseconds(changes);
    const timespec pause{0, 200000};
    while (Clock::now() < due) nanosleep(&pause, nullptr);
    if (kills < restarts && Clock::now() - begin > duration * (kills + 1) / (restarts + 1)) {
      ipd.kill_now();
      kills++;
      ipd = start_ipd();
    }
  }
  // The changes are over: every client-visible answer comes to agree with the kernel.
  ASSERT_NE(ip_shm_api_init(), nullptr) << ipd.output();
  EXPECT_TRUE(wait_until([&] {
    for (uint32_t i = 0; i < flipping_count; i++) {
      if ((ip_get_iod_for_local_address("default", flipping_base + 1 + i) != 0) != present_[i]) return false;
    }
    return true;
  })) << "the published state does not converge to the kernel's\n"
      << ipd.output();
  ip_api_close();

  counters_->stop.store(true);
  uint64_t queries = 0;
  for (int i = 0; i < clients; i++) {
    EXPECT_EQ(running[static_cast<size_t>(i)].wait(), 0) << "client " << i;
    queries += counters_->queries[i].load();
  }
  EXPECT_EQ(counters_->wrong.load(), 0u) << counters_->first_wrong;
  EXPECT_EQ(kills, restarts);
  EXPECT_GT(queries, enough_queries);
  printf("%llu queries, %llu address changes, %d kills, %u wrong answers\n", static_cast<unsigned long long>(queries),
         static_cast<unsigned long long>(changes), kills, counters_->wrong.load());
}

}  // namespace
