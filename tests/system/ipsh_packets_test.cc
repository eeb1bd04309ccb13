// SPDX-License-Identifier: Apache-2.0
// What ipsh tells of packets that clients hand over to a real ipd: counts, captures and echoes, in a network namespace
// of the test's own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "ip_api.h"
#include "ip_packet.h"
#include "ipd_fixture.h"
#include "ipsh_fixture.h"
#include "mts.h"

namespace {

using ipsh_test::ipsh;
using ipsh_test::Outcome;
using ipsh_test::words_of;
using nlohmann::json;
using test_support::Process;
using test_support::wait_until;

constexpr std::chrono::milliseconds long_wait(60000);

class IpshPackets : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link set lo up");
    start_ipd();
    ASSERT_EQ(ip_init_mts(&queue_, -1), 1u);
  }
  void TearDown() override {
    if (queue_ != ~0u) mts_unbind(queue_, 0);
    IpdTest::TearDown();
  }
  // A message that no packet stands behind.
  void send_malformed() {
    ip_msg_output message{};
    message.header.major_type = IP_MAJOR_CLIENT;
    message.header.minor_type = IP_MSG_OUTPUT;
    message.packet_len = 20;
    ASSERT_EQ(
        mts_send(queue_, IP_NODE_LOCAL, IP_SAP_PACKET, IP_OPCODE_PACKET, &message, sizeof message, nullptr, 0, nullptr),
        0);
  }
  uint32_t queue_ = ~0u;
};

json row_of(const Outcome &outcome, const std::string &name) {
  const json shown = json::parse(outcome.out);
  for (const json &row : shown["packets"]) {
    if (row["name"] == name) return row;
  }
  return {};
}

TEST_F(IpshPackets, CountsSayHowManyCameAndWhyTheyWereRefused) {
  const json before = row_of(ipsh({"show", "packets", "--json"}), "output");
  EXPECT_EQ(before["type"], IP_MSG_OUTPUT);
  EXPECT_EQ(before["direction"], "from-client");
  EXPECT_EQ(before["messages"], 0);
  send_malformed();
  send_malformed();
  json row;
  EXPECT_TRUE(wait_until(
      [&] {
        row = row_of(ipsh({"show", "packets", "--json"}), "output");
        return row["messages"] == 2;
      },
      long_wait))
      << row;
  EXPECT_EQ(row["refused"]["bad-length"], 2);
  EXPECT_EQ(row["done"], 0);
  const Outcome table = ipsh({"show", "packets"});
  EXPECT_NE(table.out.find("   4  from            2      0     0        2  bad-length:2  output\n"), std::string::npos)
      << table.out;
  EXPECT_TRUE(json::parse(ipsh({"show", "packets", "--json"}).out)["packets"].back()["direction"] == "to-client");
}

}  // namespace
