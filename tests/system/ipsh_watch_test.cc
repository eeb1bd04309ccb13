// SPDX-License-Identifier: Apache-2.0
// Changes as they happen: each test changes the published system under a running `ipsh watch`.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "ipsh_fixture.h"
#include "support/process.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

class IpshWatch : public IpshWithSystem {
 protected:
  void start(const std::vector<std::string> &options) {
    std::vector<std::string> argv{IPSH, "watch", "--timeout", "120"};
    argv.insert(argv.end(), options.begin(), options.end());
    watch_ = test_support::Process(argv);
    ASSERT_TRUE(test_support::wait_until([&] { return watch_.output().find("watch") != std::string::npos; }))
        << watch_.output();
  }
  std::vector<json> events() {
    std::vector<json> objects;
    std::istringstream lines(watch_.output());
    for (std::string line; std::getline(lines, line);) objects.push_back(json::parse(line));
    EXPECT_EQ(objects.at(0)["kind"], "watch-start");
    objects.erase(objects.begin());
    return objects;
  }
  test_support::Process watch_;
};

TEST_F(IpshWatch, AnAddedAddressIsShownWithItsInterfacesNewCounts) {
  start({"--count", "2", "--json"});
  ASSERT_TRUE(publisher_->set_address(2, {.addr = 0x0a000003, .mask_len = 24, .secondary = true, .scope = 0}));
  ASSERT_TRUE(publisher_->commit());
  ASSERT_EQ(watch_.wait(), 0) << watch_.output();
  const std::vector<json> seen = events();
  ASSERT_EQ(seen.size(), 2u) << watch_.output();
  EXPECT_EQ(seen[0]["event"], "changed");
  EXPECT_EQ(seen[0]["object"], "interface");
  EXPECT_EQ(seen[0]["before"]["secondary_count"], 2);
  EXPECT_EQ(seen[0]["now"]["secondary_count"], 3);
  EXPECT_EQ(seen[1]["event"], "added");
  EXPECT_EQ(seen[1]["object"], "address");
  EXPECT_EQ(seen[1]["now"]["address"], "10.0.0.3");
  EXPECT_EQ(seen[1]["now"]["interface"], "eth0");
  EXPECT_EQ(seen[1]["before"], nullptr);
}

TEST_F(IpshWatch, ARemovedInterfaceTakesItsAddressesAndContextWithItInOrder) {
  start({"--count", "3", "--json"});
  ASSERT_TRUE(publisher_->remove_interface(3));
  ASSERT_TRUE(publisher_->remove_context(2)) << publisher_->last_error();
  ASSERT_TRUE(publisher_->commit());
  ASSERT_EQ(watch_.wait(), 0) << watch_.output();
  std::string order;
  for (const json &event : events()) {
    order += event["event"].get<std::string>() + " " + event["object"].get<std::string>() + "; ";
    EXPECT_EQ(event["now"], nullptr);
    EXPECT_TRUE(event["before"].is_object());
  }
  EXPECT_EQ(order, "removed address; removed interface; removed context; ");
}

TEST_F(IpshWatch, AnInterfaceThatGoesDownIsAChange) {
  start({"--count", "1", "--json"});
  ASSERT_TRUE(publisher_->set_interface({.ifindex = 2,
                                         .name = "eth0",
                                         .up = false,
                                         .admin_up = true,
                                         .loopback = false,
                                         .multicast = true,
                                         .forwarding = true,
                                         .directed_broadcast = true,
                                         .mtu = 1500,
                                         .context_id = 1}));
  ASSERT_TRUE(publisher_->commit());
  ASSERT_EQ(watch_.wait(), 0) << watch_.output();
  const std::vector<json> seen = events();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0]["before"]["up"], true);
  EXPECT_EQ(seen[0]["now"]["up"], false);
}

TEST_F(IpshWatch, PeopleGetOneLineForEachChange) {
  start({"--count", "1"});
  ASSERT_TRUE(publisher_->set_context({.id = 7, .name = "blue", .table_id = 107, .router_id = 0x0a090909}));
  ASSERT_TRUE(publisher_->commit());
  ASSERT_EQ(watch_.wait(), 0);
  EXPECT_EQ(watch_.output(),
            "watching 2 contexts, 4 interfaces, 6 addresses\n"
            "added    context    blue (id 7), table 107, router id 10.9.9.9\n");
}

TEST_F(IpshWatch, ANewIpdOnTheSameDatabaseIsAChangeAndTheWatchGoesOn) {
  start({"--count", "2", "--json"});
  publisher_.reset();
  publisher_ = publish_test_system();
  ASSERT_NE(publisher_, nullptr);
  ASSERT_TRUE(test_support::wait_until([&] { return watch_.output().find("\"ipd\"") != std::string::npos; }))
      << watch_.output();
  ASSERT_TRUE(publisher_->set_context({.id = 7, .name = "blue", .table_id = 107, .router_id = 0x0a090909}));
  ASSERT_TRUE(publisher_->commit());
  ASSERT_EQ(watch_.wait(), 0) << watch_.output();
  const std::vector<json> seen = events();
  ASSERT_EQ(seen.size(), 2u) << watch_.output();
  EXPECT_EQ(seen[0]["object"], "ipd");
  EXPECT_LT(seen[0]["before"]["instance"], seen[0]["now"]["instance"]);
  EXPECT_EQ(seen[1]["object"], "context");
}

TEST_F(IpshWithSystem, AWatchWithoutChangesEndsInTimeWithExitCode1) {
  EXPECT_EQ(ipsh({"watch", "--timeout", "0.3"}).exit_code, 1);
  EXPECT_EQ(ipsh({"watch", "--timeout", "0.3", "--count", "1"}).exit_code, 1);
}

}  // namespace
}  // namespace ipsh_test
