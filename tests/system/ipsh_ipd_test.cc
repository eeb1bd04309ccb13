// SPDX-License-Identifier: Apache-2.0
// ipsh against a real ipd that publishes a simulated system.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ipsh_fixture.h"
#include "support/process.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

// The simulated system is a function of these numbers: interfaces loop0, loop1, sim2 and sim3, taking turns in contexts
// default and ctx2, with addresses 10.0.N.1, 10.0.N.2, ... on interface N. Under load the even hosts come and go.
class IpshWithIpd : public IpshWithoutIpd {
 protected:
  void start_ipd(const std::string &plan) {
    const std::string file = run_directory_.path() + "/plan.json";
    std::ofstream(file) << plan;
    ipd_ = test_support::Process({IPD, "--foreground", "--simulate", file});
    ASSERT_TRUE(test_support::wait_until([this] { return ipd_.output().find("live: ") != std::string::npos; }))
        << ipd_.output();
  }
  test_support::Process ipd_;
};

constexpr const char *small_plan =
    R"({"contexts": 2, "interfaces": 4, "addresses": 9, "measured_changes": 1, "changes_per_second": 0})";

TEST_F(IpshWithIpd, TablesShowTheSimulatedSystem) {
  start_ipd(small_plan);
  EXPECT_EQ(ipsh({"show", "contexts"}).out,
            "ID  NAME     TABLE  ROUTER-ID  FROM\n"
            " 1  default    254  10.0.0.3   loop0\n"
            " 2  ctx2      1002  10.0.1.2   loop1\n");
  EXPECT_EQ(ipsh({"show", "interfaces"}).out,
            "IOD  NAME   IFINDEX  CONTEXT  STATE    MTU  PRIMARY      SEC  VIRT  FLAGS\n"
            "  1  loop0        1  default  up     65536  10.0.0.1/24    2     0  loopback,forwarding\n"
            "  2  loop1        2  ctx2     up     65536  10.0.1.1/24    1     0  loopback,forwarding\n"
            "  3  sim2         3  default  up      1500  10.0.2.1/24    1     0  multicast,forwarding\n"
            "  4  sim3         4  ctx2     up      1500  10.0.3.1/24    1     0  multicast,forwarding\n");
  EXPECT_EQ(json::parse(ipsh({"show", "addresses", "--json"}).out)["addresses"].size(), 9u);
  EXPECT_EQ(json::parse(ipsh({"show", "system", "--json"}).out)["ipd_pid"], ipd_.pid());
}

TEST_F(IpshWithIpd, MessagesAndClientsOfTheControlServiceAreShown) {
  start_ipd(small_plan);
  const Outcome first = ipsh({"show", "messages", "--json"});
  ASSERT_EQ(first.exit_code, 0) << first.err;
  const auto done = [](const Outcome &outcome) {
    const json shown = json::parse(outcome.out);
    for (const json &row : shown["messages"]) {
      if (row["name"] == "show messages") return row["done"];
    }
    return json();
  };
  EXPECT_EQ(done(first), 0) << "the question itself is counted when it is answered";
  EXPECT_EQ(done(ipsh({"show", "messages", "--json"})), 1);
  const Outcome clients = ipsh({"show", "clients"});
  EXPECT_EQ(clients.exit_code, 1) << "ipsh itself is left out";
  EXPECT_EQ(clients.out, "PID  COMMAND  THREADS  NOW  USER  MESSAGES  REFUSED  GROUPS  LOANS  DOWNLOADS  REGISTERED\n");
  EXPECT_EQ(clients.err, "");
}

TEST_F(IpshWithIpd, OneThatSimulatesTakesNoPackets) {
  start_ipd(small_plan);
  const Outcome packets = ipsh({"show", "packets"});
  EXPECT_EQ(packets.exit_code, 3);
  EXPECT_NE(packets.err.find("ipd takes no packets"), std::string::npos) << packets.err;
}

TEST_F(IpshWithIpd, WithoutItsControlServiceWhoReadsIsStillShown) {
  start_ipd(small_plan);
  test_support::Process watcher({IPSH, "watch"});
  ASSERT_TRUE(test_support::wait_until([&] { return watcher.output().find("watching") != std::string::npos; }));
  ipd_.kill_now();
  const Outcome clients = ipsh({"show", "clients", "--json"});
  EXPECT_EQ(clients.exit_code, 0) << clients.err;
  const json row = json::parse(clients.out)["clients"].at(0);
  EXPECT_EQ(row["pid"], watcher.pid());
  EXPECT_EQ(row["user"], nullptr);
  EXPECT_EQ(row["registrations"], nullptr);
  const Outcome messages = ipsh({"show", "messages"});
  EXPECT_EQ(messages.exit_code, 3);
  EXPECT_NE(messages.err.find("ipd is not reached"), std::string::npos) << messages.err;
}

TEST_F(IpshWithIpd, EveryQueryIsAnsweredWhenItsArgumentsAreValid) {
  start_ipd(small_plan);
  const std::map<std::string, std::string> valid{{"address", "10.0.0.1"},   {"address-network-order", "10.0.0.1"},
                                                 {"mask", "255.255.255.0"}, {"mask-length", "24"},
                                                 {"prefix", "10.0.0.0/24"}, {"interface", "loop0"},
                                                 {"context-id", "default"}, {"context-name", "default"},
                                                 {"table-id", "default"},   {"number", "1"},
                                                 {"text", "loop0"},         {"context-record", "default"}};
  const json list = json::parse(ipsh({"query", "--list", "--json"}).out);
  ASSERT_GT(list["queries"].size(), 80u);
  for (const json &query : list["queries"]) {
    std::vector<std::string> words{"query", query["name"], "--json"};
    for (const json &argument : query["arguments"]) {
      words.push_back("--" + argument["name"].get<std::string>());
      words.push_back(valid.at(argument["type"]));
    }
    const Outcome outcome = ipsh(words);
    ASSERT_LE(outcome.exit_code, 1) << query["name"] << ": " << outcome.err;
    EXPECT_EQ(json::parse(outcome.out)["query"], query["name"]);
  }
}

TEST_F(IpshWithIpd, MemoryOfIpdIsShownByType) {
  start_ipd(small_plan);
  std::map<std::string, uint64_t> blocks;
  const json memory = json::parse(ipsh({"show", "memory", "--json"}).out)["memory"];
  for (const json &row : memory) {
    if (row["pid"] == ipd_.pid()) blocks[row["type_name"]] = row["blocks"];
  }
  EXPECT_EQ(blocks["IP_SM_MEM_ip_api_context_type"], 2u) << memory;
  EXPECT_EQ(blocks["IP_SM_MEM_ip_iftype"], 4u) << memory;
  EXPECT_EQ(blocks["IP_SM_MEM_ip_addrtype"], 9u) << memory;
}

TEST_F(IpshWithIpd, AWatchUnderLoadShowsOnlyWhatCanHaveHappened) {
  start_ipd(R"({"contexts": 2, "interfaces": 4, "addresses": 400, "measured_changes": 1, "changes_per_second": 500})");
  const Outcome outcome = ipsh({"watch", "--json", "--count", "200", "--timeout", "50"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  std::istringstream lines(outcome.out);
  int of_addresses = 0;
  for (std::string line; std::getline(lines, line);) {
    const json event = json::parse(line);
    if (event["kind"] != "event") continue;
    EXPECT_TRUE(event["object"] == "address" || event["object"] == "interface" || event["object"] == "context") << line;
    if (event["object"] != "address") {
      EXPECT_EQ(event["event"], "changed") << line;  // a count, or a router id
      continue;
    }
    ++of_addresses;
    const std::string address = event[event["event"] == "removed" ? "before" : "now"]["address"];
    EXPECT_EQ(std::stoi(address.substr(address.rfind('.') + 1)) % 2, 0) << "permanent: " << line;
  }
  EXPECT_GT(of_addresses, 20) << outcome.out;
}

TEST_F(IpshWithIpd, AWatchGoesOnWhenIpdIsKilledAndStartedAgain) {
  start_ipd(small_plan);
  test_support::Process watch({IPSH, "watch", "--json", "--count", "1", "--timeout", "50"});
  ASSERT_TRUE(test_support::wait_until([&] { return watch.output().find("watch-start") != std::string::npos; }));
  ipd_.kill_now();
  start_ipd(small_plan);
  ASSERT_EQ(watch.wait(), 0) << watch.output();
  EXPECT_NE(watch.output().find(R"("object":"ipd")"), std::string::npos) << watch.output();
  EXPECT_NE(watch.output().find("\"pid\":" + std::to_string(ipd_.pid())), std::string::npos) << watch.output();
}

}  // namespace
}  // namespace ipsh_test
