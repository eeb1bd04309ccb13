// SPDX-License-Identifier: Apache-2.0
// Clients come, are killed at any step, and leave, one or a thousand at a time: nothing of them stays.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <fstream>

#include "control_shown.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "mts.h"
#include "mts/mts_server.h"
#include "support/descriptors.h"
#include "sysmgr/sysmgr_writer.h"

namespace {

using namespace ipd_test;
using test_support::Process;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);
#ifdef LIBIP_SANITIZED
constexpr uint32_t most_of_a_crowd = 20;
#else
constexpr uint32_t most_of_a_crowd = 100;
#endif
constexpr uint32_t crowds = 10;
constexpr uint32_t descriptors_each = 3;  // of ipd
constexpr uint32_t other_descriptors = 200;

class ControlClientLifeTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_interface("ib", "10.0.0.1/24");
    ip("link add ob type ifb");
    ip("link set ob up");
    // A thousand clients, or as many as ipd may have here.
    const uint64_t may_have =
        test_support::allow_descriptors(crowds * most_of_a_crowd * descriptors_each + other_descriptors);
    const uint64_t room = may_have > other_descriptors ? (may_have - other_descriptors) / descriptors_each : 0;
    crowd_size_ = static_cast<uint32_t>(std::min<uint64_t>(most_of_a_crowd, room / crowds));
    start_ipd();
  }

  // Neither the control service nor the transport knows a process any more.
  static bool is_forgotten(pid_t pid) {
    const auto has_queue = [pid](const rsw::MtsQueueUse &queue) { return queue.pid == pid; };
    return !shown_client(pid) && std::ranges::none_of(rsw::mts_queues(), has_queue) &&
           std::ranges::none_of(shown_registrations(), [pid](const ip_show_registration &registration) {
             return registration.pid == static_cast<uint32_t>(pid);
           });
  }
  uint32_t crowd_size_ = 0;
  void expect_free(const std::string &name) {
    Process next = control_client("attach register " + name + " 1 deregister " + name + " 1");
    EXPECT_EQ(next.wait(), 0);
    EXPECT_TRUE(says(next, "register 1")) << name << ": " << next.output() << ipd_.output();
  }
};

// The kernel writes the bytes of a group as a number of this machine.
bool kernel_has_group(const std::string &number) {
  std::ifstream in("/proc/net/igmp");
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return text.find(number) != std::string::npos;
}

struct Step {
  const char *name;
  const char *steps;
};

TEST_F(ControlClientLifeTest, AClientThatIsKilledAtAnyStepOfItsRegistrationLeavesNothing) {
  constexpr std::array steps = {
      Step{"queue bound", "attach bind hold"},
      Step{"registration sent", "attach bind send a-client 1 hold"},
      Step{"reply received", "attach bind send a-client 1 reply hold"},
      Step{"registered", "attach register a-client 1 hold"},
      Step{"registered with a control queue", "attach control - register a-client 1 hold"},
      Step{"registered twice", "attach register a-client 1 register a-client 1 register b-client 1 hold"},
      Step{"deregistered", "attach register a-client 1 deregister a-client 1 hold"},
  };
  for (const Step &step : steps) {
    Process client = control_client(step.steps);
    ASSERT_TRUE(says(client, "held 1")) << step.name << ": " << client.output();
    client.kill_now();
    expect_free("a-client");
    EXPECT_TRUE(wait_until([&] { return is_forgotten(client.pid()); }, patience)) << step.name;
    EXPECT_TRUE(shown_registrations().empty()) << step.name;
  }
}

TEST_F(ControlClientLifeTest, WhatADeadClientSentBeforeIpdLookedIsUndoneToo) {
  ipd_.signal(SIGSTOP);
  ASSERT_TRUE(stands_still(ipd_.pid()));
  Process sends = control_client("attach bind send a-client 1 hold");
  Process waits = control_client("attach register b-client 1");
  ASSERT_TRUE(says(sends, "held 1")) << sends.output();
  ASSERT_TRUE(has_sent(waits.pid(), 1));
  sends.kill_now();
  waits.kill_now();
  ipd_.signal(SIGCONT);
  expect_free("a-client");
  expect_free("b-client");
  for (const Process *client : {&sends, &waits}) {
    EXPECT_TRUE(wait_until([&] { return is_forgotten(client->pid()); }, patience)) << ipd_.output();
  }
  EXPECT_TRUE(shown_registrations().empty());
}

TEST_F(ControlClientLifeTest, WhatAClientHoldsEndsWhenItIsKilled) {
  Process client = control_client("attach control - register a-client 1 join 239.1.2.3 ib borrow ob ib hold");
  ASSERT_TRUE(says(client, "held 1")) << client.output();
  attach();
  const auto borrows = [this] { return ip_is_iod_unnumbered(iod("ob")) != 0; };
  EXPECT_TRUE(wait_until([] { return kernel_has_group("030201EF"); }, patience)) << ipd_.output();
  EXPECT_TRUE(wait_until(borrows, patience)) << ipd_.output();
  const auto shown = shown_client(client.pid());
  ASSERT_TRUE(shown.has_value());
  EXPECT_EQ(shown->registrations, 1u);
  EXPECT_EQ(shown->memberships, 1u);
  EXPECT_EQ(shown->loans, 1u);
  client.kill_now();
  EXPECT_TRUE(wait_until([] { return !kernel_has_group("030201EF"); }, patience)) << ipd_.output();
  EXPECT_TRUE(wait_until([&] { return !borrows(); }, patience)) << ipd_.output();
  EXPECT_TRUE(wait_until([&] { return is_forgotten(client.pid()); }, patience));
  expect_free("a-client");
}

TEST_F(ControlClientLifeTest, AThousandClientsRegisterAndLeave) {
  ASSERT_GT(crowd_size_, 0u) << "ulimit -n is too low for any";
  std::vector<Process> leaders;
  for (uint32_t i = 0; i < crowds; ++i) {
    leaders.push_back(control_client("crowd " + std::to_string(crowd_size_) + " crowd-" + std::to_string(i)));
  }
  const uint32_t all = crowds * crowd_size_;
  ASSERT_TRUE(wait_until([&] { return shown_count(IP_MSG_REGISTER, IP_SHOW_DONE) == all; }, patience))
      << leaders.front().output() << ipd_.output();
  EXPECT_EQ(shown_registrations().size(), all);
  EXPECT_GE(shown_clients().size(), all);
  // Half of them leave, and the others die.
  for (uint32_t i = 0; i < crowds; i += 2) leaders[i].signal(SIGUSR1);
  for (uint32_t i = 1; i < crowds; i += 2) leaders[i].kill_now();
  for (uint32_t i = 0; i < crowds; i += 2) {
    EXPECT_TRUE(says(leaders[i], "left " + std::to_string(crowd_size_))) << leaders[i].output();
  }
  EXPECT_TRUE(wait_until([] { return shown_registrations().empty(); }, patience)) << shown_registrations().size();
  EXPECT_TRUE(wait_until([] { return shown_clients().size() <= 1; }, patience)) << "this process may be one";
  // Who leaves ends right behind its message, and ipd may see the end first: then there is nothing to deregister any
  // more.
  const auto left = [] {
    return shown_count(IP_MSG_DEREGISTER, IP_SHOW_DONE) + shown_count(IP_MSG_DEREGISTER, IP_SHOW_NOT_REGISTERED);
  };
  EXPECT_TRUE(wait_until([&] { return left() == all / 2; }, patience)) << left();
  const auto is_of_ipd = [this](const rsw::MtsQueueUse &queue) { return queue.pid == ipd_.pid(); };
  EXPECT_TRUE(wait_until([&] { return std::ranges::all_of(rsw::mts_queues(), is_of_ipd); }, patience));
}

TEST_F(ControlClientLifeTest, OnAStandbyAClientWithFixedSapsSendsNothing) {
  std::string reason;
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_standby, &reason)) << reason;
  for (const std::string steps : {"attach register a-client 1 deregister a-client 1 hold",
                                  "attach control 300 register a-client 1 deregister a-client 1 hold"}) {
    Process client = control_client(steps);
    ASSERT_TRUE(says(client, "held 1")) << client.output();
    EXPECT_TRUE(says(client, "register 1")) << client.output();
    EXPECT_TRUE(says(client, "deregister 1")) << client.output();
    EXPECT_FALSE(shown_client(client.pid()).has_value()) << "it sent something";
  }
}

TEST_F(ControlClientLifeTest, OnAStandbyAClientWithADynamicSapRegistersAndStays) {
  std::string reason;
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_standby, &reason)) << reason;
  Process client = control_client("attach control - register a-client 1 deregister a-client 1 hold");
  ASSERT_TRUE(says(client, "held 1")) << client.output();
  EXPECT_TRUE(says(client, "register 1")) << client.output();
  EXPECT_TRUE(says(client, "deregister 1")) << "nothing was sent";
  EXPECT_NE(client.output().find("ip_register on standby with dynamic saps"), std::string::npos) << client.output();
  EXPECT_EQ(holder_of("a-client"), static_cast<uint32_t>(client.pid()));
  EXPECT_EQ(shown_count(IP_MSG_DEREGISTER, IP_SHOW_DONE), 0u);
}

TEST_F(ControlClientLifeTest, AClientRegistersAndLeavesWhenItsSupervisorBecomesActive) {
  std::string reason;
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_standby, &reason)) << reason;
  Process client =
      control_client("attach control 300 register a-client 1 wait register a-client 1 wait deregister a-client 1 hold");
  ASSERT_TRUE(says(client, "waits 1")) << client.output();
  EXPECT_EQ(holder_of("a-client"), 0u);
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_active, &reason)) << reason;
  client.signal(SIGUSR1);
  EXPECT_TRUE(wait_until([&] { return holder_of("a-client") == static_cast<uint32_t>(client.pid()); }, patience));
  client.signal(SIGUSR1);
  ASSERT_TRUE(says(client, "held 1")) << client.output();
  EXPECT_EQ(shown_count(IP_MSG_DEREGISTER, IP_SHOW_DONE), 1u) << client.output();
  EXPECT_EQ(holder_of("a-client"), 0u);
}

}  // namespace
