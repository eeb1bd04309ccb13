// SPDX-License-Identifier: Apache-2.0
// Memory that ipd does not get, once or from some moment on, while it starts: it ends with status 1 and says that it is
// out of memory, or it goes on and answers are right; and the next one takes over and serves.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>

#include "fault_run.h"
#include "ip_api.h"
#include "mts.h"
#include "system/ipd_fixture.h"

namespace {

using faults::FaultRun;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);
constexpr faults::Fault no_memory{"malloc", ENOMEM};
constexpr uint32_t own_address = 0x0a000001;
constexpr unsigned first = 2;  // the one before is the C++ runtime's, which keeps it for throwing without memory
constexpr unsigned most = 100000;

class IpdMemory : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add ib type ifb");
    ip("link set ib up");
    ip("addr add 10.0.0.1/24 dev ib");
  }

  static bool answers() {
    const uint32_t by = ip_get_iod_for_local_address("default", own_address);
    return by != 0 && by == iod("ib") && ip_get_iod_for_local_address("default", own_address + 1) == 0;
  }
  // A registration.
  static bool serves() {
    uint32_t queue = ~0u;
    const bool served =
        ip_init_mts(&queue, -1) == 1 && ip_register("memory", ~0u, queue, 253, 0, &ip_client, 0, 0) == 1;
    mts_unbind(queue, 0);
    return served;
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
      if (ipd.running()) return "";
    }
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
    EXPECT_TRUE(serves()) << ipd_.output();
    ipd_.kill_now();
    detach();
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

 private:
  void clear_run_directory() {
    for (const auto &entry : std::filesystem::directory_iterator(run_directory_.path())) {
      std::filesystem::remove_all(entry.path());
    }
  }
  void detach() {
    if (attached_) ip_api_close();
    attached_ = false;
  }
};

TEST_F(IpdMemory, ThatIsMissingOnceFromNothingEndsItWithAReasonOrItServes) {
  walk(400, true, false);
}

TEST_F(IpdMemory, ThatIsMissingOnceInATakeOverEndsItWithAReasonOrItServes) {
  walk(400, false, false);
}

TEST_F(IpdMemory, ThatIsMissingFromSomeMomentOnEndsItWithAReason) {
  walk(200, false, true);
}

}  // namespace
