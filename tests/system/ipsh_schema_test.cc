// SPDX-License-Identifier: Apache-2.0
// Everything that ipsh prints with --json keeps to the schema of its kind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "control_peer.h"
#include "ip_api.h"
#include "ipsh_fixture.h"
#include "ipsh_schema_problems.h"
#include "mbuf.h"
#include "mbuf/pool.h"
#include "support/process.h"

namespace ipsh_test {
namespace {

TEST_F(IpshWithSystem, EveryListingAndAnswerIsValid) {
  std::string printed;
  for (const char *line :
       {"show contexts", "show interfaces", "show addresses", "show memory", "show clients", "show system",
        "system active", "query --list", "query ip_get_api_context --context-id 1",
        "query ip_get_api_context --context-id 99", "query ip_get_api_context_name --context-id 99",
        "query ip_get_iod_for_local_address --name blue --addr 10.0.0.1", "query ip_get_next_secondary --iod eth0",
        "query ip_get_mac_multicast --group 224.0.0.5", "query ip_print_addr --addr 10.0.0.1",
        "query ip_bits2mask --len 32", "query ip_bits2mask --len 33", "show everything", "watch --timeout 0.1"}) {
    std::vector<std::string> words = words_of(line);
    words.emplace_back("--json");
    const Outcome outcome = ipsh(words);
    EXPECT_NE(outcome.out, "") << line;
    printed += outcome.out;
  }
  EXPECT_EQ(schema_problems(run_directory_.path(), printed), "") << printed;
}

TEST_F(IpshWithRoutes, EveryListingAndExplanationOfRoutesIsValid) {
  std::string printed;
  for (const char *line :
       {"show routes", "show routes --view multicast", "show routes --limit 2", "show vips", "show groups",
        "show router-id", "show counters", "explain 198.51.100.7", "explain 198.51.101.7", "explain 203.0.113.9",
        "explain 192.0.2.9", "explain 198.18.0.9", "explain 224.0.0.5", "explain 10.0.0.100", "explain 10.0.1.255",
        "explain 203.0.113.9 --context red", "query ip_get_each_group --iod eth0",
        "query ip_get_mcast_byte_stats_orig --iod eth0", "query ip_get_loopback_addr"}) {
    std::vector<std::string> words = words_of(line);
    words.emplace_back("--json");
    const Outcome outcome = ipsh(words);
    EXPECT_NE(outcome.out, "") << line << ": " << outcome.err;
    printed += outcome.out;
  }
  EXPECT_EQ(schema_problems(run_directory_.path(), printed), "") << printed;
}

TEST_F(IpshWithoutIpd, TheListingOfPacketBuffersIsValid) {
  std::string reason;
  ASSERT_TRUE(rsw::mbuf_open_for_writing(&reason)) << reason;
  struct mbuf *packet = m_gethdr();
  const Outcome outcome = ipsh({"show", "mbufs", "--json"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(schema_problems(run_directory_.path(), outcome.out), "") << outcome.out;
  m_freem(packet);
  rsw::mbuf_leave();
}

TEST_F(IpshWithoutIpd, AFailureIsValid) {
  EXPECT_EQ(schema_problems(run_directory_.path(), ipsh({"show", "contexts", "--json"}).out), "");
}

TEST_F(IpshWithSystem, EveryRequestIsValid) {
  std::string printed;
  for (const uint32_t status : {IP_CONFIG_STATUS_DONE, IP_CONFIG_STATUS_OVERLAP, IP_CONFIG_STATUS_NO_PRIVILEGE}) {
    const test_support::ControlPeer peer(*publisher_, {.status = static_cast<uint8_t>(status), .result = 3});
    for (const char *line :
         {"join 239.1.1.1 --interface eth0 --for 0.1", "leave 239.1.1.1 --interface eth0 --source 192.0.2.1",
          "multicast on --interface tun0 --for 0.1", "multicast off --interface tun0",
          "unnumbered set --interface tun0 --from lo --for 0.1", "unnumbered unset --interface tun0",
          "unnumbered unset --interface tun0", "configure 10.0.0.9/24 --interface eth0", "show queues"}) {
      std::vector<std::string> words = words_of(line);
      words.emplace_back("--json");
      const Outcome outcome = ipsh(words);
      EXPECT_NE(outcome.out, "") << line << ": " << outcome.err;
      printed += outcome.out;
    }
  }
  EXPECT_EQ(schema_problems(run_directory_.path(), printed), "") << printed;
}

TEST_F(IpshWithSystem, EventsOfAllKindsAreValid) {
  test_support::Process watch({IPSH, "watch", "--json", "--timeout", "120", "--count", "7"});
  ASSERT_TRUE(test_support::wait_until([&] { return watch.output().find("watch-start") != std::string::npos; }));
  publisher_.reset();
  publisher_ = publish_test_system();
  ASSERT_NE(publisher_, nullptr);
  ASSERT_TRUE(publisher_->set_address(2, {.addr = 0x0a000009, .mask_len = 24, .secondary = true, .scope = 0}));
  ASSERT_TRUE(publisher_->set_context({.id = 5, .name = "blue", .table_id = 105, .router_id = 0}));
  ASSERT_TRUE(publisher_->commit());
  ASSERT_TRUE(publisher_->remove_interface(3));
  ASSERT_TRUE(publisher_->remove_context(2));
  ASSERT_TRUE(publisher_->commit());
  EXPECT_EQ(watch.wait(), 0) << watch.output();
  EXPECT_EQ(schema_problems(run_directory_.path(), watch.output()), "") << watch.output();
}

TEST_F(IpshWithoutIpd, WhatTheControlServiceShowsIsValid) {
  const std::string plan = run_directory_.path() + "/plan.json";
  std::ofstream(plan) << R"({"contexts": 1, "interfaces": 2, "addresses": 2, "measured_changes": 1})";
  test_support::Process ipd({IPD, "--foreground", "--simulate", plan});
  ASSERT_TRUE(test_support::wait_until([&] { return ipd.output().find("live: ") != std::string::npos; }))
      << ipd.output();
  test_support::Process client([] {
    if (ip_register("ospf", ~0u, ~0u, 89, 1, ip_api_init(), 0, 0) != 1) return 1;
    while (true) pause();
  });
  std::string printed;
  ASSERT_TRUE(test_support::wait_until([&] {
    printed = ipsh({"show", "clients", "--json"}).out;
    return printed.find("ospf") != std::string::npos;
  })) << printed;
  printed += ipsh({"show", "messages", "--json"}).out;
  EXPECT_EQ(schema_problems(run_directory_.path(), printed), "") << printed;
}

TEST_F(IpshWithoutIpd, TheCheckerRefusesWhatTheSchemasDoNotSay) {
  const std::string directory = run_directory_.path();
  EXPECT_EQ(schema_problems(directory, R"({"version":1,"kind":"supervisor","supervisor":"active"})"), "");
  EXPECT_NE(schema_problems(directory, R"({"version":2,"kind":"supervisor","supervisor":"active"})"), "");
  EXPECT_NE(schema_problems(directory, R"({"version":1,"kind":"supervisor","supervisor":"asleep"})"), "");
  EXPECT_NE(schema_problems(directory, R"({"version":1,"kind":"supervisor"})"), "");
  EXPECT_NE(schema_problems(directory, R"({"version":1,"kind":"supervisor","supervisor":"active","more":1})"), "");
  EXPECT_NE(schema_problems(directory, R"({"version":1,"kind":"contexts","contexts":[{"id":1}]})"), "");
  EXPECT_NE(
      schema_problems(directory,
                      R"({"version":1,"kind":"event","event":"added","object":"ipd","now":{"pid":1},"before":null})"),
      "");
  EXPECT_NE(schema_problems(directory, ""), "");
}

}  // namespace
}  // namespace ipsh_test
