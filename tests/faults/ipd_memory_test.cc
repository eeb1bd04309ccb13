// SPDX-License-Identifier: Apache-2.0
// Memory that ipd does not get, once or from some moment on, while it starts or serves: it ends with status 1 and says
// that it is out of memory, or it goes on, answers are right and clients are served; and the next one takes over and
// serves. No client waits for ever.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "fault_run.h"
#include "ip_api.h"
#include "mts.h"
#include "system/control_shown.h"
#include "system/ipd_fixture.h"

namespace {

using faults::FaultRun;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);
constexpr faults::Fault no_memory{"malloc", ENOMEM};
constexpr uint32_t own_address = 0x0a000001;
enum class Served { yes, no, hangs };

constexpr unsigned first = 2;  // the one before is the C++ runtime's, which keeps it for throwing without memory
constexpr unsigned most = 100000;

class IpdMemory : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_interface("ib", "10.0.0.1/24");
  }

  static bool answers() {
    const uint32_t by = ip_get_iod_for_local_address("default", own_address);
    return by != 0 && by == iod("ib") && ip_get_iod_for_local_address("default", own_address + 1) == 0;
  }
  // A registration, of a process that can be given up when it hangs.
  static Served serves() {
    test_support::Process client([] {
      uint32_t queue = ~0u;
      if (ip_init_mts(&queue, -1) == 0) return 2;
      return ip_register("memory", ~0u, queue, 253, 0, &ip_client, 0, 0) == 1 ? 0 : 1;
    });
    const int status = client.wait(patience);
    if (status == -1) return Served::hangs;
    return status == 0 ? Served::yes : Served::no;
  }

  // What is wrong with an ipd that had no memory; empty: nothing. *ended: it has ended as it is to.
  std::string look_at(FaultRun &run, bool *ended) {
    test_support::Process &ipd = run.process();
    *ended = false;
    if (!wait_until([&] { return ipd.output().find("live:") != std::string::npos || !ipd.running(); }, patience)) {
      return "it hangs";
    }
    if (ipd.running()) {
      attach();
      if (!attached_) return "it is live and nobody can attach";
      if (!answers()) return "it is live and answers are wrong";
      const std::string wrong = serve(ipd);
      if (ipd.running()) return wrong;
    }
    return look_at_end(ipd, ended);
  }

  // What is wrong; empty: nothing, or it has ended.
  static std::string serve(test_support::Process &ipd) {
    Served served = Served::no;
    const bool settled = wait_until([&] { return (served = serves()) != Served::no || !ipd.running(); }, patience);
    if (served == Served::hangs) return "it is live and a client waits for ever";
    return settled ? "" : "it is live and does not serve";
  }

  // It ended by itself, with a reason.
  static std::string look_at_end(test_support::Process &ipd, bool *ended) {
    *ended = true;
    const int status = ipd.wait();
    if (status != 1) return "it ended with " + std::to_string(status);
    const std::string &text = ipd.output();
    const std::string last = text.substr(std::min(text.size(), text.rfind("ipd: ")));
    const bool says_why =
        last.find("out of memory") != std::string::npos || last.find("Cannot allocate memory") != std::string::npos;
    return says_why ? "" : "it ended and does not say why";
  }

  // False: it never asked for memory that often.
  bool fail(unsigned at, bool ever, bool *ended) {
    FaultRun run(no_memory, at, ipd_test::ipd_command({"--foreground"}), run_directory_.path(), ever);
    const std::string wrong = look_at(run, ended);
    EXPECT_EQ(wrong, "") << "allocation " << at << ": " << run.process().output();
    const bool happened = run.happened();
    run.process().kill_now();
    detach();
    return happened;
  }

  // How often one asks for memory until it is live, about.
  unsigned allocations() {
    unsigned low = 1;
    unsigned high = most;
    while (high - low > 8) {
      const unsigned middle = low + (high - low) / 2;
      bool ended = false;
      (fail(middle, false, &ended) ? low : high) = middle;
    }
    return low;
  }

  void expect_next_takes_over() {
    start_ipd();
    attach();
    EXPECT_TRUE(wait_until([] { return answers(); }, patience)) << ipd_.output();
    EXPECT_EQ(serves(), Served::yes) << ipd_.output();
    ipd_.kill_now();
    detach();
  }

  // No client, beside this process, which asks.
  static bool nobody_is_known() {
    return ipd_test::shown_clients().size() == 1 && ipd_test::shown_registrations().empty();
  }
  static unsigned open_descriptors(const test_support::Process &ipd) { return faults::open_descriptors(ipd.pid()); }

  // Allocation `at` from the first connection on, while a client lives a whole life. False: that took fewer.
  bool fail_while_it_serves(unsigned at, bool *ended) {
    FaultRun run(no_memory, at, ipd_test::ipd_command({"--foreground"}), run_directory_.path(), false, "accept4");
    test_support::Process &ipd = run.process();
    *ended = false;
    EXPECT_TRUE(wait_until([&] { return ipd.output().find("live:") != std::string::npos; }, patience)) << ipd.output();
    test_support::Process client({FAULT_CLIENT, "239.1.1.1", "10.9.0.1"});
    EXPECT_TRUE(wait_until([&] { return !client.running() || !ipd.running(); }, patience))
        << "allocation " << at << ": the client waits for ever: " << client.output() << ipd.output();
    if (!ipd.running()) {
      EXPECT_EQ(look_at_end(ipd, ended), "") << "allocation " << at << ": " << ipd.output();
      start_ipd();
    }
    EXPECT_EQ(client.wait(patience), 0) << "allocation " << at << ": " << client.output();
    const bool happened = run.happened();
    // Questions take memory, too.
    if (happened && !*ended) {
      const auto settled = [&] {
        return !ipd.running() || (nobody_is_known() && open_descriptors(ipd) <= descriptors_);
      };
      EXPECT_TRUE(wait_until(settled, patience))
          << "allocation " << at << ": ipd had " << descriptors_ << " descriptors and has " << open_descriptors(ipd);
      if (!ipd.running()) {
        EXPECT_EQ(look_at_end(ipd, ended), "") << "allocation " << at << ": " << ipd.output();
      }
    }
    ipd.kill_now();
    ipd_.kill_now();
    return happened;
  }

  // At `moments` moments of one from nothing, or of a take-over, spread over all of them.
  void walk(unsigned moments, bool from_nothing, bool ever) {
    const unsigned all = allocations();
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    unsigned failed = 0;
    unsigned ends = 0;
    for (unsigned moment = 0; moment < moments && !HasFailure(); ++moment) {
      const unsigned begin = first + static_cast<unsigned>(uint64_t{all} * moment / moments);
      const unsigned end = first + static_cast<unsigned>(uint64_t{all} * (moment + 1) / moments);
      if (from_nothing) clear_run_directory();
      bool ended = false;
      const bool happened = fail(begin + static_cast<unsigned>(random() % std::max(1u, end - begin)), ever, &ended);
      failed += happened ? 1 : 0;
      ends += ended ? 1 : 0;
      expect_next_takes_over();
    }
    printf("seed %u: %u of about %u allocations failed, of which %u ended ipd\n", seed, failed, all, ends);
    EXPECT_GT(ends, 0u);
  }

  unsigned descriptors_ = 0;  // of an ipd that had all memory, and a client
};

TEST_F(IpdMemory, ThatIsMissingOnceFromNothingEndsItWithAReasonOrItServes) {
  walk(400, true, false);
}

TEST_F(IpdMemory, ThatIsMissingOnceInATakeOverEndsItWithAReasonOrItServes) {
  walk(400, false, false);
}

TEST_F(IpdMemory, ThatIsMissingOnceWhileItServesEndsItWithAReasonOrNothing) {
  start_ipd();
  test_support::Process client({FAULT_CLIENT, "239.1.1.1", "10.9.0.1"});
  ASSERT_EQ(client.wait(patience), 0) << client.output();
  ASSERT_TRUE(wait_until([] { return nobody_is_known(); }, patience));
  descriptors_ = open_descriptors(ipd_);
  ipd_.kill_now();
  unsigned at = 0;
  unsigned ends = 0;
  for (bool happened = true; happened && !HasFailure();) {
    bool ended = false;
    happened = fail_while_it_serves(++at, &ended);
    ends += ended ? 1 : 0;
  }
  printf("%u allocations failed, of which %u ended ipd\n", at - 1, ends);
  EXPECT_GT(at, 50u);
}

TEST_F(IpdMemory, ThatIsMissingFromSomeMomentOnEndsItWithAReason) {
  walk(200, false, true);
}

}  // namespace
