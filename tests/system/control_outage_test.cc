// SPDX-License-Identifier: Apache-2.0
// ipd stands still, is killed, and comes back, while clients wait for its answers: each call returns what its header
// says, and the same clients are served again.
#include <gtest/gtest.h>
#include <signal.h>

#include "control_shown.h"
#include "ipd_fixture.h"

namespace {

using namespace ipd_test;
using test_support::Process;

class ControlOutageTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add ib type ifb");
    ip("link set ib up");
    start_ipd();
  }
  void stop_ipd() {
    ipd_.signal(SIGSTOP);
    ASSERT_TRUE(stands_still(ipd_.pid()));
  }
  // Clients that make their calls at a signal.
  Process ready(const std::string &steps) {
    Process client = control_client("attach " + steps);
    EXPECT_TRUE(says(client, "waits 1")) << client.output();
    return client;
  }
};

struct Call {
  const char *name;
  const char *steps;
  const char *failure;  // what the client says of it
  uint32_t sends;       // before it waits
};

constexpr Call calls[] = {
    {"ip_register", "wait register a-client 1 hold", "register 0", 1},
    {"ip_configure_address, for ever", "control - wait configure ib 10.1.0.1 24 0 hold", "configure 1", 1},
    {"ip_configure_address, for a minute", "control - wait configure ib 10.2.0.1 24 60 hold", "configure 1", 1},
    {"ip_get_interface_stats", "bind wait stats ib hold", "stats 0", 1},
};

TEST_F(ControlOutageTest, EachCallThatWaitsReturnsItsFailureWhenIpdIsKilled) {
  std::vector<Process> clients;
  for (const Call &call : calls) clients.push_back(ready(call.steps));
  stop_ipd();
  for (const Process &client : clients) client.signal(SIGUSR1);
  for (size_t i = 0; i < clients.size(); ++i) {
    EXPECT_TRUE(has_sent(clients[i].pid(), calls[i].sends)) << calls[i].name;
    EXPECT_EQ(clients[i].output().find(calls[i].failure), std::string::npos) << calls[i].name << " did not wait";
  }
  ipd_.kill_now();
  for (size_t i = 0; i < clients.size(); ++i) {
    EXPECT_TRUE(says(clients[i], calls[i].failure)) << calls[i].name << ": " << clients[i].output();
    EXPECT_TRUE(says(clients[i], "held 1")) << calls[i].name;
  }
}

TEST_F(ControlOutageTest, NoCallWaitsWhenThereIsNoIpd) {
  Process client = ready("bind control - wait register a-client 1 configure ib 10.1.0.1 24 0 stats ib");
  ipd_.kill_now();
  client.signal(SIGUSR1);
  EXPECT_EQ(client.wait(), 0) << client.output();
  for (const char *line : {"register 0", "configure 5", "stats 0"}) EXPECT_TRUE(says(client, line)) << line;
}

TEST_F(ControlOutageTest, TheSameClientIsServedByTheNextIpd) {
  Process client = ready(
      "bind control - wait register a-client 1 wait register a-client 1 configure ib 10.1.0.1 24 60 deregister "
      "a-client 1 hold");
  stop_ipd();
  client.signal(SIGUSR1);
  EXPECT_TRUE(has_sent(client.pid(), 1));
  ipd_.kill_now();
  EXPECT_TRUE(says(client, "register 0")) << client.output();
  start_ipd();
  client.signal(SIGUSR1);
  EXPECT_TRUE(says(client, "register 1")) << client.output();
  EXPECT_TRUE(says(client, "configure 0")) << client.output();
  EXPECT_TRUE(says(client, "deregister 1")) << client.output();
  attach();
  expect_same_as_kernel();
}

TEST_F(ControlOutageTest, AWaitThatHasAnEndEndsWhileIpdStandsStill) {
  Process configures = ready("control - wait configure ib 10.1.0.1 24 1");
  Process asks = ready("bind wait stats ib");
  stop_ipd();
  configures.signal(SIGUSR1);
  asks.signal(SIGUSR1);
  EXPECT_EQ(configures.wait(), 0);
  EXPECT_EQ(asks.wait(), 0);
  EXPECT_TRUE(says(configures, "configure 1")) << configures.output();
  EXPECT_TRUE(says(asks, "stats 0")) << asks.output();
}

TEST_F(ControlOutageTest, ARegistrationThatWaitedIsAnsweredWhenIpdGoesOn) {
  Process client = ready("wait register a-client 1 hold");
  stop_ipd();
  client.signal(SIGUSR1);
  EXPECT_TRUE(has_sent(client.pid(), 1));
  ipd_.signal(SIGCONT);
  EXPECT_TRUE(says(client, "register 1")) << client.output();
  EXPECT_EQ(holder_of("a-client"), static_cast<uint32_t>(client.pid()));
}

TEST_F(ControlOutageTest, ASenderDoesNotWaitForEverForAnIpdThatStandsStill) {
  Process client = ready("control - wait fill hold");
  stop_ipd();
  client.signal(SIGUSR1);
  ASSERT_TRUE(says(client, "held 1")) << client.output();
  // Whatever was taken is done when ipd goes on.
  const std::string &said = client.output();
  const uint64_t sent = std::stoull(said.substr(said.find("filled ") + 7));
  EXPECT_GT(sent, 0u);
  ipd_.signal(SIGCONT);
  EXPECT_TRUE(test_support::wait_until(
      [&] {
        const auto shown = shown_client(client.pid());
        return shown && shown->received == sent;
      },
      std::chrono::seconds(60)))
      << sent;
}

TEST_F(ControlOutageTest, ClientsThatAskAllTheTimeSurviveThatIpdIsKilledAndStarted) {
  std::vector<Process> clients;
  for (int i = 0; i < 3; ++i) {
    const std::string name = "client-" + std::to_string(i);
    clients.push_back(control_client("attach bind control - insist " + name));
  }
  for (int round = 1; round <= 3; ++round) {
    for (Process &client : clients) {
      EXPECT_TRUE(says(client, "served " + std::to_string(round))) << client.output() << ipd_.output();
    }
    ipd_.kill_now();
    for (Process &client : clients) {
      EXPECT_TRUE(says(client, "refused " + std::to_string(round))) << client.output();
    }
    start_ipd();
  }
  for (Process &client : clients) {
    EXPECT_TRUE(says(client, "served 4")) << client.output();
    EXPECT_TRUE(client.running()) << client.output();
  }
}

}  // namespace
