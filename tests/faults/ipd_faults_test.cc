// SPDX-License-Identifier: Apache-2.0
// Each call of the system that ipd makes until it is live, and while it serves its first client, fails once, one after
// the other: ipd ends with a status that says so and a line that says why, or it goes on, and then it lacks nothing.
#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>

#include "fault_run.h"
#include "im.h"
#include "ip_api.h"
#include "mts.h"
#include "mts/mts_server.h"
#include "support/peer_namespace.h"
#include "system/ipd_fixture.h"

namespace {

using faults::Fault;
using faults::FaultRun;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);
constexpr unsigned most_calls = 400;
constexpr uint32_t permanent = 0x0a000001;
constexpr uint32_t configured = 0x0a090000;

class IpdFaults : public ipd_test::IpdTest, public testing::WithParamInterface<Fault> {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    ip("addr add 10.0.0.1/24 dev va");
  }

  // Registers, configures an address that nobody had, and finds it.
  bool serves(uint32_t address) {
    uint32_t control = ~0u;
    uint32_t more = 0;
    bool served = ip_init_mts(&control, -1) == 1 && ip_register("faults", ~0u, control, 253, 0, &ip_client, 0, 0) == 1;
    const uint32_t va = ip_get_iod_for_local_address("default", permanent);
    served = served && va != 0 && ip_configure_address(va, address, 32, &more, 0, 20) == IP_CONFIG_STATUS_DONE &&
             ip_get_iod_for_local_address("default", address) == va && ip_join_group(0xef010101, va) == 1;
    mts_unbind(control, 0);
    const timespec pause{0, 20000000};
    if (!served) nanosleep(&pause, nullptr);
    return served;
  }

  // What is wrong; empty: nothing.
  std::string look_at(FaultRun &run, uint32_t address) {
    test_support::Process &ipd = run.process();
    if (!wait_until([&] { return ipd.output().find("live:") != std::string::npos || !ipd.running(); }, patience)) {
      return "it hangs";
    }
    if (!ipd.running()) return ended(ipd);
    if (!attached_) attach();
    if (!attached_) return "it is live and nobody can attach";
    // It may have ended since, with the call that was to fail.
    const bool served = wait_until([&] { return serves(address) || !ipd.running(); }, patience);
    if (!ipd.running()) return ended(ipd);
    if (!served) return "it is live and does not serve";
    const bool closed = wait_until([&] { return open_descriptors(ipd) <= descriptors_ || !ipd.running(); }, patience);
    return closed ? ""
                  : "it has more descriptors open than without the failure: " + std::to_string(open_descriptors(ipd));
  }

  static unsigned open_descriptors(const test_support::Process &ipd) { return faults::open_descriptors(ipd.pid()); }

  // How many descriptors one has open that was spared, once the queues of its client are gone.
  void count_descriptors() {
    start_ipd();
    attach();
    ASSERT_TRUE(wait_until([this] { return serves(configured); }, patience));
    const auto connections = [] {
      uint32_t sum = 0;
      for (const rsw::MtsQueueUse &queue : rsw::mts_queues()) sum += queue.connections;
      return sum;
    };
    ASSERT_TRUE(wait_until([&] { return connections() == 0; }, patience));
    descriptors_ = open_descriptors(ipd_);
    ipd_.kill_now();
    detach();
    clear_run_directory();
  }

  static std::string ended(test_support::Process &ipd) {
    const int status = ipd.wait();
    if (status < 1 || status > 3) return "it ended with " + std::to_string(status);
    return ipd.output().find("ipd: ") == std::string::npos ? "it ended and does not say why" : "";
  }

  void fail_each_call(bool from_nothing) {
    ASSERT_NO_FATAL_FAILURE(count_descriptors());
    unsigned ends = 0;
    unsigned at = 1;
    for (; at <= most_calls; ++at) {
      if (from_nothing && !attached_) clear_run_directory();
      FaultRun run(GetParam(), at, ipd_test::ipd_command({"--foreground"}), run_directory_.path());
      const std::string wrong = look_at(run, configured + at);
      EXPECT_EQ(wrong, "") << "call " << at << ": " << run.process().output();
      if (!run.process().running()) ++ends;
      const bool happened = run.happened();
      run.process().kill_now();
      detach();
      if (!happened || !wrong.empty()) break;
    }
    EXPECT_GT(at, 1u) << "it never makes this call";
    printf("%u calls of %s failed with %s, of which %u ended ipd\n", at - 1, GetParam().call,
           strerrorname_np(GetParam().error), ends);
    // Whatever was left behind, the next one starts.
    start_ipd();
    attach();
    EXPECT_TRUE(serves(configured));
  }

 private:
  unsigned descriptors_ = 0;
};

TEST_P(IpdFaults, OneThatBeginsFromNothingEndsWithAReasonOrServes) {
  fail_each_call(true);
}

TEST_P(IpdFaults, OneThatTakesOverEndsWithAReasonOrServes) {
  fail_each_call(false);
}

// By what is lacking.
constexpr Fault table[] = {
    {"accept4", EMFILE},     {"epoll_create1", EMFILE},
    {"eventfd", EMFILE},     {"inotify_init1", EMFILE},
    {"open", EMFILE},        {"pidfd_open", EMFILE},
    {"signalfd", EMFILE},    {"socket", EMFILE},
    {"ftruncate", ENOSPC},   {"inotify_add_watch", ENOSPC},
    {"mkdir", ENOSPC},       {"mkdirat", ENOSPC},
    {"open", ENOSPC},        {"posix_fallocate", ENOSPC},
    {"pwrite", ENOSPC},      {"rename", ENOSPC},
    {"epoll_ctl", ENOMEM},   {"mmap", ENOMEM},
    {"getsockopt", ENOBUFS}, {"recvmsg", ENOBUFS},
    {"send", ENOBUFS},       {"sendto", ENOBUFS},
    {"accept4", EINTR},      {"connect", EINTR},
    {"epoll_wait", EINTR},   {"flock", EINTR},
    {"open", EINTR},         {"poll", EINTR},
    {"recvfrom", EINTR},     {"recvmsg", EINTR},
    {"send", EINTR},         {"sendto", EINTR},
    {"connect", EAGAIN},     {"recvmsg", EAGAIN},
    {"send", EAGAIN},        {"fchmod", EPERM},
    {"membarrier", EPERM},   {"setsockopt", EPERM},
    {"unlinkat", EPERM},     {"bind", EADDRINUSE},
    {"listen", EADDRINUSE},  {"fcntl", ENOLCK},
};

INSTANTIATE_TEST_SUITE_P(EachCall, IpdFaults, testing::ValuesIn(table),
                         [](const testing::TestParamInfo<Fault> &row) { return faults::name_of(row.param); });

}  // namespace
