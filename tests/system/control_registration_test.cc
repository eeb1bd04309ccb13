// SPDX-License-Identifier: Apache-2.0
// Clients that make themselves known to a real ipd, leave, and die.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "mts.h"
#include "mts/mts_server.h"
#include "sysmgr/sysmgr_writer.h"

namespace {

using nlohmann::json;
using test_support::Process;
using test_support::wait_until;

constexpr uint32_t no_queue = ~0u;
constexpr auto long_wait = std::chrono::seconds(60);

uint32_t register_as(const char *name, uint32_t data_q = no_queue, uint32_t ctrl_q = no_queue) {
  return ip_register(name, data_q, ctrl_q, 89, 1, ip_api_init(), 0, 0);
}

int flood() {
  ip_api_init();
  if (ip_init_mts(&ip_client.ctrl_q, -1) == 0) return 1;
  while (true) ip_deregister("nobody", 1, &ip_client);
}

class ControlRegistrationTest : public ipd_test::IpdTest {
 protected:
  void TearDown() override {
    for (const uint32_t queue : queues_) mts_unbind(queue, 0);
    IpdTest::TearDown();
  }

  // What ipsh shows of the control service.
  static json shown(const char *listing) {
    std::string output;
    // 1: nobody is there.
    EXPECT_LE(test_support::run({"/bin/sh", "-c", IPSH " show " + std::string(listing) + " --json"}, &output), 1)
        << output;
    const json object = json::parse(output, nullptr, false);
    return object.is_discarded() ? json() : object[listing];
  }
  // Of the process that has it; 0: nobody.
  static int32_t holder_of(const std::string &name) {
    for (const json &client : shown("clients")) {
      if (!client["registrations"].is_array()) continue;
      for (const json &registration : client["registrations"]) {
        if (registration["name"] == name) return client["pid"];
      }
    }
    return 0;
  }
  static uint64_t refused(const std::string &message, const std::string &why) {
    for (const json &row : shown("messages")) {
      if (row["name"] == message) return row["refused"][why];
    }
    return 0;
  }
  static bool comes_to_hold(int32_t pid, const std::string &name) {
    return wait_until([&] { return holder_of(name) == pid; }, long_wait);
  }
  // A process that registers and stays.
  static Process client(const char *name) {
    return Process([name] {
      if (register_as(name) != 1) return 1;
      while (true) pause();
    });
  }
  uint32_t bind() {
    uint32_t queue = no_queue;
    EXPECT_EQ(ip_init_mts(&queue, -1), 1u);
    queues_.push_back(queue);
    return queue;
  }

  std::vector<uint32_t> queues_;
};

TEST_F(ControlRegistrationTest, AClientRegistersIsShownAndLeaves) {
  start_ipd();
  attach();
  const uint32_t packets = bind();
  ASSERT_EQ(register_as("ospf", packets), 1u);
  EXPECT_EQ(ip_register_done, 1);
  const json clients = shown("clients");
  const auto row = std::ranges::find_if(clients, [](const json &client) { return client["pid"] == getpid(); });
  ASSERT_NE(row, clients.end()) << clients;
  EXPECT_EQ((*row)["user"], getuid());
  EXPECT_EQ((*row)["registrations"].size(), 1u);
  const json registration = (*row)["registrations"][0];
  EXPECT_EQ(registration["name"], "ospf");
  EXPECT_EQ(registration["key"], 89);
  EXPECT_EQ(registration["data_sap"], mts_sap_get(packets));
  EXPECT_EQ(ip_deregister("ospf", 89, &ip_client), 1);
  EXPECT_TRUE(comes_to_hold(0, "ospf"));
}

TEST_F(ControlRegistrationTest, ANameIsTheFirstOnesUntilItDies) {
  start_ipd();
  Process first = client("pim");
  ASSERT_TRUE(comes_to_hold(first.pid(), "pim"));
  attach();
  EXPECT_EQ(register_as("pim"), 0u);
  EXPECT_EQ(ip_register_done, 0);
  EXPECT_EQ(refused("register", "name-taken"), 1u);
  first.kill_now();
  EXPECT_EQ(register_as("pim"), 1u) << "at once";
  EXPECT_EQ(holder_of("pim"), getpid());
}

TEST_F(ControlRegistrationTest, AKilledClientsRegistrationIsRemoved) {
  start_ipd();
  Process killed = client("pim");
  Process other = client("ospf");
  ASSERT_TRUE(comes_to_hold(killed.pid(), "pim"));
  ASSERT_TRUE(comes_to_hold(other.pid(), "ospf"));
  killed.kill_now();
  EXPECT_TRUE(comes_to_hold(0, "pim"));
  EXPECT_EQ(holder_of("ospf"), other.pid());
}

TEST_F(ControlRegistrationTest, AnotherProcessCannotDeregisterAClient) {
  start_ipd();
  Process first = client("pim");
  ASSERT_TRUE(comes_to_hold(first.pid(), "pim"));
  attach();
  ip_client.ctrl_q = bind();
  EXPECT_EQ(ip_deregister("pim", 89, &ip_client), 1) << "sent, that is all that is known here";
  EXPECT_TRUE(wait_until([] { return refused("deregister", "not-allowed") == 1; }, long_wait));
  EXPECT_EQ(holder_of("pim"), first.pid());
}

// The client is in the middle of ip_register: its message is with an ipd that does not run.
TEST_F(ControlRegistrationTest, AClientThatWaitsForAKilledIpdIsTold) {
  start_ipd();
  attach();
  ipd_.signal(SIGSTOP);
  Process waiting([] { return register_as("pim") == 0 && ip_register_done == 0 ? 0 : 1; });
  ASSERT_TRUE(wait_until(
      [&] {
        return std::ranges::any_of(rsw::mts_queues(),
                                   [&](const auto &queue) { return queue.pid == waiting.pid() && queue.sent == 1; });
      },
      long_wait));
  EXPECT_TRUE(waiting.running());
  ipd_.kill_now();
  EXPECT_EQ(waiting.wait(long_wait), 0) << waiting.output();
}

TEST_F(ControlRegistrationTest, AClientWithoutAnIpdIsTold) {
  start_ipd();
  attach();
  ipd_.kill_now();
  EXPECT_EQ(register_as("pim"), 0u);
}

TEST_F(ControlRegistrationTest, TheNextIpdServesTheSameClients) {
  start_ipd();
  attach();
  ASSERT_EQ(register_as("pim"), 1u);
  ipd_.kill_now();
  start_ipd();
  EXPECT_EQ(holder_of("pim"), 0) << "it knows of nobody yet";
  ASSERT_EQ(register_as("pim"), 1u);
  EXPECT_EQ(holder_of("pim"), getpid());
}

TEST_F(ControlRegistrationTest, WhenAnotherHasItsSapIpdPublishesAllTheSame) {
  ip("addr add 10.0.0.1/32 dev lo");
  uint32_t queue = no_queue;
  ASSERT_EQ(ip_init_mts(&queue, IP_SAP_CONTROL), 1u);
  queues_.push_back(queue);
  start_ipd();
  EXPECT_TRUE(ipd_said("no requests are served: SAP 263 cannot be bound: Address already in use")) << ipd_.output();
  attach();
  EXPECT_NE(ip_get_iod_for_local_address("default", 0x0a000001), 0u);
}

TEST_F(ControlRegistrationTest, ASimulatedSystemHasClientsToo) {
  write_configuration(R"({"contexts": 1, "interfaces": 2, "addresses": 2, "measured_changes": 1})");
  start_ipd({"--simulate", configuration_file()});
  attach();
  EXPECT_EQ(register_as("pim"), 1u);
  EXPECT_EQ(holder_of("pim"), getpid());
}

TEST_F(ControlRegistrationTest, OnAStandbyOnlyDynamicQueuesRegister) {
  start_ipd();
  attach();
  std::string reason;
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_standby, &reason)) << reason;
  EXPECT_EQ(register_as("fixed"), 1u) << "nothing to do";
  EXPECT_EQ(holder_of("fixed"), 0);
  EXPECT_EQ(ip_register_done, 0);
  EXPECT_EQ(register_as("dynamic", bind()), 1u);
  EXPECT_EQ(holder_of("dynamic"), getpid());
  EXPECT_EQ(ip_deregister("dynamic", 89, &ip_client), 1);
  EXPECT_EQ(holder_of("dynamic"), getpid()) << "a standby sends no farewell";
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_active, &reason)) << reason;
  EXPECT_EQ(ip_deregister("dynamic", 89, &ip_client), 1);
  EXPECT_TRUE(comes_to_hold(0, "dynamic"));
}

TEST_F(ControlRegistrationTest, AFloodOfMessagesDoesNotKeepADeadClientsRegistration) {
  start_ipd();
  Process killed = client("pim");
  ASSERT_TRUE(comes_to_hold(killed.pid(), "pim"));
  std::vector<Process> floods;
  for (int i = 0; i < 4; ++i) floods.emplace_back(flood);
  ASSERT_TRUE(wait_until([] { return refused("deregister", "not-registered") > 1000; }, long_wait));
  killed.kill_now();
  EXPECT_TRUE(comes_to_hold(0, "pim"));
}

TEST_F(ControlRegistrationTest, AFloodOfMessagesDoesNotKeepIpdFromTheKernel) {
  ip("link add ib type ifb");
  ip("link set ib up");
  start_ipd();
  attach();
  std::vector<Process> floods;
  for (int i = 0; i < 2; ++i) floods.emplace_back(flood);
  ASSERT_TRUE(wait_until([] { return refused("deregister", "not-registered") > 1000; }, long_wait));
  const uint32_t there = iod("ib");
  for (uint32_t i = 1; i <= 20; ++i) {
    ip("addr add 10.0.0." + std::to_string(i) + "/32 dev ib");
    EXPECT_TRUE(wait_until([&] { return ip_is_address_on_interface(0x0a000000 + i, there) != 0; }, long_wait)) << i;
  }
  EXPECT_EQ(register_as("pim"), 1u) << "nor from other clients";
  for (Process &each : floods) EXPECT_TRUE(each.running()) << each.output();
}

TEST_F(ControlRegistrationTest, AGroupThatTheSystemDoesNotHaveIsSaid) {
  write_configuration(R"({"read_group": "no-such-group-here"})");
  start_ipd({"--config", configuration_file()});
  EXPECT_TRUE(ipd_said("there is no group \"no-such-group-here\"")) << ipd_.output();
  attach();
  EXPECT_EQ(register_as("pim"), 1u) << "root may";
}

}  // namespace
