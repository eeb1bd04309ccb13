// SPDX-License-Identifier: Apache-2.0
// The listings: what people see, what programs see, and that they hold still while the system does not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>

#include "ipsh_fixture.h"
#include "support/process.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

TEST_F(IpshWithSystem, ContextsAreATable) {
  const Outcome outcome = ipsh({"show", "contexts"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.out,
            "ID  NAME     TABLE  ROUTER-ID  FROM\n"
            " 1  default    254  10.0.1.1   eth0\n"
            " 2  red        100  192.0.2.1  eth1\n");
}

TEST_F(IpshWithSystem, InterfacesAreATableLoopbacksFirst) {
  EXPECT_EQ(ipsh({"show", "interfaces"}).out,
            "IOD  NAME  IFINDEX  CONTEXT  STATE         MTU  PRIMARY       SEC  VIRT  FLAGS\n"
            "  1  lo          1  default  up          65536  127.0.0.1/8     0     0  loopback,forwarding\n"
            "  2  eth0        2  default  up           1500  10.0.0.1/24     2     1  multicast,forwarding,"
            "directed-broadcast\n"
            "  3  eth1        3  red      admin-down   9000  192.0.2.1/25    0     0  multicast\n"
            "  4  tun0        4  default  down         1476  -               0     0  unnumbered(eth0)\n");
}

TEST_F(IpshWithSystem, AddressesAreATableWithTheirKinds) {
  EXPECT_EQ(ipsh({"show", "addresses"}).out,
            "ADDRESS        KIND       INTERFACE  IOD  CONTEXT\n"
            "127.0.0.1/8    primary    lo           1  default\n"
            "10.0.0.1/24    primary    eth0         2  default\n"
            "10.0.0.2/24    secondary  eth0         2  default\n"
            "10.0.1.1/24    secondary  eth0         2  default\n"
            "10.0.0.100/32  virtual    eth0         2  default\n"
            "192.0.2.1/25   primary    eth1         3  red\n");
}

TEST_F(IpshWithSystem, ListingsAreRestrictedByContextAndInterface) {
  const json of_red = json::parse(ipsh({"show", "addresses", "--context", "red", "--json"}).out);
  ASSERT_EQ(of_red["addresses"].size(), 1u);
  EXPECT_EQ(of_red["addresses"][0]["address"], "192.0.2.1");
  const json of_eth0 = json::parse(ipsh({"show", "interfaces", "--interface", "eth0", "--json"}).out);
  ASSERT_EQ(of_eth0["interfaces"].size(), 1u);
  EXPECT_EQ(of_eth0["interfaces"][0]["name"], "eth0");
}

TEST_F(IpshWithSystem, AnEmptyListingIsExitCode1) {
  const Outcome outcome = ipsh({"show", "addresses", "--interface", "tun0"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.out, "ADDRESS  KIND  INTERFACE  IOD  CONTEXT\n");
}

TEST_F(IpshWithSystem, SystemNamesThePublisherAndCountsWhatIsThere) {
  const Outcome outcome = ipsh({"show", "system", "--json"});
  EXPECT_EQ(outcome.exit_code, 0);
  const json system = json::parse(outcome.out);
  EXPECT_EQ(system["run_directory"], run_directory_.path());
  EXPECT_EQ(system["ipd_pid"], getpid());
  EXPECT_EQ(system["ipd_running"], true);
  EXPECT_EQ(system["contexts"], 2);
  EXPECT_EQ(system["interfaces"], 4);
  EXPECT_EQ(system["addresses"], 6);
  EXPECT_GT(system["database_bytes"], 0);
  EXPECT_LE(system["database_bytes"], system["database_window"]);
}

TEST_F(IpshWithSystem, MemoryShowsThePublishedRecordsByType) {
  const Outcome outcome = ipsh({"show", "memory", "--json"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  std::map<std::string, uint64_t> blocks;
  const json memory = json::parse(outcome.out)["memory"];
  for (const json &row : memory) {
    if (row["shared"] == true && row["pid"] == getpid()) blocks[row["type_name"]] = row["blocks"];
  }
  EXPECT_EQ(blocks["IP_SM_MEM_ip_api_context_type"], 2u) << outcome.out;
  EXPECT_EQ(blocks["IP_SM_MEM_ip_addrtype"], 5u) << outcome.out;
}

TEST_F(IpshWithSystem, ClientsShowWhoReads) {
  test_support::Process watcher({IPSH, "watch"});
  ASSERT_TRUE(test_support::wait_until([&] { return watcher.output().find("watching") != std::string::npos; }));
  const Outcome outcome = ipsh({"show", "clients", "--json"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const json clients = json::parse(outcome.out)["clients"];
  const bool listed = std::ranges::any_of(clients, [&](const json &row) { return row["pid"] == watcher.pid(); });
  EXPECT_TRUE(listed) << outcome.out;
}

TEST_F(IpshWithSystem, TheSupervisorStateIsSetAndShown) {
  EXPECT_EQ(ipsh({"system", "standby"}).out, "supervisor  standby\n");
  EXPECT_EQ(json::parse(ipsh({"show", "system", "--json"}).out)["supervisor"], "standby");
  EXPECT_EQ(ipsh({"system", "active"}).exit_code, 0);
  EXPECT_EQ(json::parse(ipsh({"show", "system", "--json"}).out)["supervisor"], "active");
}

TEST_F(IpshWithoutIpd, TheLastStateOfADeadIpdIsShownWithAWarning) {
  test_support::Process publisher([] {
    const std::unique_ptr<ipd::Publisher> published = publish_test_system();
    pause();
    return published ? 0 : 1;
  });
  ASSERT_TRUE(test_support::wait_until([] { return ipsh({"show", "contexts"}).exit_code == 0; }));
  EXPECT_EQ(ipsh({"show", "contexts"}).err, "");
  publisher.kill_now();
  const Outcome outcome = ipsh({"show", "contexts"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.err, "ipsh: ipd is not running: this is the last state that it published\n");
  EXPECT_EQ(json::parse(ipsh({"show", "system", "--json"}).out)["ipd_running"], false);
}

// Words of the database that its ipd left are overwritten, a few at a time: whatever they say, ipsh comes back by
// itself.
TEST_F(IpshWithoutIpd, ASpoiltDatabaseGivesAnotherTableButNeverACrash) {
  test_support::Process publisher([] {
    const std::unique_ptr<ipd::Publisher> published = publish_test_system();
    pause();
    return published ? 0 : 1;
  });
  ASSERT_TRUE(test_support::wait_until([] { return ipsh({"show", "contexts"}).exit_code == 0; }));
  publisher.kill_now();
  std::set<std::string> tables;
  std::mt19937 engine(20261120);
  const auto random = [&engine] { return static_cast<uint32_t>(engine()); };
  for (int round = 0; round < 40; ++round) {
    const std::string path = run_directory_.path() + (round % 4 == 0 ? "/im" : "/ip");
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    for (int word = 0; word < 400; ++word) {
      // Behind the header, at the starts of pages, where chunks of records begin; half of the words lead somewhere into
      // the windows.
      const uint32_t noise = word % 2 == 0 ? 0x60000000u + random() % 0x1f000000u / 4 * 4 : random();
      file.seekp(static_cast<std::streamoff>(4096 * (1 + random() % 160) + random() % 512 / 4 * 4));
      file.write(reinterpret_cast<const char *>(&noise), sizeof(noise));
    }
    ASSERT_TRUE(file.good());
    file.close();
    for (const char *command : {"contexts", "interfaces", "addresses", "vips", "groups", "counters"}) {
      test_support::Process program({IPSH, "show", command, "--json"});
      const int status = program.wait(std::chrono::seconds(60));
      ASSERT_TRUE(status == 0 || status == 1 || status == 3) << round << " " << command << ": " << status;
      tables.insert(program.output());
    }
  }
  EXPECT_GT(tables.size(), 10u);  // else the words that were overwritten mean nothing
}

// An interface comes and goes as fast as the publisher can, with the addresses of two contexts, while it is listed.
TEST_F(IpshWithSystem, TablesHoldStillWhileInterfacesComeAndGo) {
  const ipd::InterfaceState guest{.ifindex = 9,
                                  .name = "guest",
                                  .up = true,
                                  .admin_up = true,
                                  .loopback = false,
                                  .multicast = true,
                                  .forwarding = false,
                                  .directed_broadcast = false,
                                  .mtu = 1400,
                                  .context_id = 1};
  for (int listing = 0; listing < 20; ++listing) {
    test_support::Process program({IPSH, "show", listing % 2 == 0 ? "interfaces" : "addresses", "--json"});
    while (program.running()) {
      ASSERT_TRUE(publisher_->set_interface(guest)) << publisher_->last_error();
      ASSERT_TRUE(publisher_->set_address(9, {.addr = 0xcb007101, .mask_len = 24, .secondary = false, .scope = 0}));
      ASSERT_TRUE(publisher_->commit());
      ASSERT_TRUE(publisher_->remove_interface(9));
      ASSERT_TRUE(publisher_->commit());
      publisher_->tick(std::chrono::steady_clock::now());
    }
    ASSERT_EQ(program.wait(), 0) << program.output();
    const json listed = json::parse(program.output());
    int of_eth0 = 0;
    for (const json &row : listed[listing % 2 == 0 ? "interfaces" : "addresses"]) {
      const std::string name = row[listing % 2 == 0 ? "name" : "interface"];
      EXPECT_TRUE(name == "lo" || name == "eth0" || name == "eth1" || name == "tun0" || name == "guest") << row;
      if (name == "eth0") ++of_eth0;
    }
    EXPECT_EQ(of_eth0, listing % 2 == 0 ? 1 : 4) << program.output();
  }
}

}  // namespace
}  // namespace ipsh_test
