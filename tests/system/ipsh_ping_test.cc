// SPDX-License-Identifier: Apache-2.0
// Pings to another system, through a real ipd: sent and received in namespaces of the test's own.
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ipd_fixture.h"
#include "ipsh_fixture.h"
#include "ipsh_schema_problems.h"
#include "support/peer_namespace.h"

namespace {

using ipsh_test::ipsh;
using ipsh_test::Outcome;
using ipsh_test::words_of;
using nlohmann::json;
using test_support::Process;
using test_support::wait_until;

constexpr std::chrono::milliseconds long_wait(60000);

std::vector<json> objects_of(const std::string &lines) {
  std::vector<json> objects;
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with('{')) objects.push_back(json::parse(line));
  }
  return objects;
}

class IpshPing : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link set lo up");
    peer_ = std::make_unique<test_support::PeerNamespace>();
    ASSERT_EQ(test_support::connect("eth0", "10.0.0.1/24", *peer_, "peer0", "10.0.0.2/24"), "");
    ip("route add 198.51.100.0/24 via 10.0.0.2");
    std::string output;
    ASSERT_EQ(test_support::run(peer_->command({"sysctl", "-qw", "net.ipv4.ip_forward=1"}), &output), 0) << output;
    start_ipd();
  }
  std::unique_ptr<test_support::PeerNamespace> peer_;
};

TEST_F(IpshPing, RepliesComeBackAndAreAddedUp) {
  const Outcome outcome = ipsh(words_of("ping 10.0.0.2 -c 3 -i 0.05 -W 60 --json"));
  EXPECT_EQ(outcome.exit_code, 0) << outcome.out << outcome.err;
  const std::vector<json> objects = objects_of(outcome.out);
  ASSERT_EQ(objects.size(), 4u) << outcome.out;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(objects[static_cast<size_t>(i)]["event"], "reply");
    EXPECT_EQ(objects[static_cast<size_t>(i)]["from"], "10.0.0.2");
    EXPECT_EQ(objects[static_cast<size_t>(i)]["length"], 64);
    EXPECT_EQ(objects[static_cast<size_t>(i)]["ttl"], 64);
  }
  EXPECT_EQ(objects[3]["sent"], 3);
  EXPECT_EQ(objects[3]["answered"], 3);
  EXPECT_GT(objects[3]["least_milliseconds"], 0);
  EXPECT_EQ(ipsh_test::schema_problems(run_directory_.path(), outcome.out), "");
}

TEST_F(IpshPing, TheInterfaceMayBeNamedAndTheLargestFits) {
  const Outcome outcome = ipsh(words_of("ping 10.0.0.2 -c 1 -W 60 -I eth0 -s 65507"));
  EXPECT_EQ(outcome.exit_code, 0) << outcome.out << outcome.err;
  EXPECT_NE(outcome.out.find("65515 bytes from 10.0.0.2: sequence 1, ttl 64, "), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("1 sent, 1 answered, 0% lost"), std::string::npos) << outcome.out;
}

TEST_F(IpshPing, AnAddressOfThisSystemAnswersToo) {
  EXPECT_EQ(ipsh(words_of("ping 10.0.0.1 -c 1 -W 60")).exit_code, 0);
}

TEST_F(IpshPing, AnErrorFromTheWaySaysWhy) {
  const Outcome outcome = ipsh(words_of("ping 198.51.100.1 -c 1 -W 60"));
  EXPECT_EQ(outcome.exit_code, 1) << outcome.err;
  EXPECT_NE(outcome.out.find("from 10.0.0.2: sequence 1, destination unreachable (type 3, code 0)"), std::string::npos)
      << outcome.out;
}

TEST_F(IpshPing, NoRouteIsSaidAtOnce) {
  const Outcome outcome = ipsh(words_of("ping 192.0.2.1 -c 1 -W 60 --json"));
  EXPECT_EQ(outcome.exit_code, 1) << outcome.err;
  const std::vector<json> objects = objects_of(outcome.out);
  ASSERT_EQ(objects.size(), 2u) << outcome.out;
  EXPECT_EQ(objects[0]["event"], "not-sent");
  EXPECT_EQ(objects[0]["outcome"], "no-route");
  EXPECT_EQ(ipsh_test::schema_problems(run_directory_.path(), outcome.out), "");
}

TEST_F(IpshPing, ACaptureSeesEchoesAndReplies) {
  Process capture({IPSH, "capture", "--json", "--protocol", "icmp", "-c", "2"});
  ASSERT_TRUE(wait_until([&] { return capture.output().find("capturing") != std::string::npos; }, long_wait));
  EXPECT_EQ(ipsh(words_of("ping 10.0.0.2 -c 1 -W 60")).exit_code, 0);
  EXPECT_EQ(capture.wait(long_wait), 0) << capture.output();
  const std::vector<json> objects = objects_of(capture.output());
  ASSERT_EQ(objects.size(), 2u) << capture.output();
  EXPECT_EQ(objects[0]["name"], "ICMP output");
  EXPECT_EQ(objects[0]["destination"], "10.0.0.2");
  EXPECT_EQ(objects[0]["outcome"], "done");
  EXPECT_EQ(objects[1]["direction"], "to-client");
  EXPECT_EQ(objects[1]["source"], "10.0.0.2");
  EXPECT_EQ(objects[1]["interface"], "eth0");
  EXPECT_EQ(objects[0]["client"], objects[1]["client"]);
  std::string lines;
  for (const json &object : objects) lines += object.dump() + "\n";
  EXPECT_EQ(ipsh_test::schema_problems(run_directory_.path(), lines + ipsh({"show", "packets", "--json"}).out), "");
}

}  // namespace
