// SPDX-License-Identifier: Apache-2.0
// What ipsh tells of packets that clients hand over to a real ipd: counts, captures and echoes, in a network namespace
// of the test's own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "ip_api.h"
#include "ip_packet.h"
#include "ipd_fixture.h"
#include "ipsh_fixture.h"
#include "mts.h"
#include "support/public_program.h"

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

// ------------------------------------------------------------------------------------------------------------ capture

class IpshCapture : public IpshPackets {
 protected:
  void TearDown() override {
    capture_.kill_now();
    IpshPackets::TearDown();
  }
  void capture(const std::string &words) {
    std::vector<std::string> line = words_of("capture " + words);
    line.insert(line.begin(), IPSH);
    capture_ = Process(line);
    ASSERT_TRUE(wait_until([this] { return capture_.output().find("capturing") != std::string::npos; }, long_wait))
        << capture_.output();
  }
  // Asks for an output of this packet, which ipd looks at and counts whatever comes of it.
  void send_output(const std::vector<uint8_t> &packet) {
    ip_msg_output message{};
    message.header.major_type = IP_MAJOR_CLIENT;
    message.header.minor_type = IP_MSG_OUTPUT;
    message.packet_len = static_cast<uint16_t>(packet.size());
    std::vector<uint8_t> bytes(sizeof message);
    std::memcpy(bytes.data(), &message, sizeof message);
    bytes.insert(bytes.end(), packet.begin(), packet.end());
    ASSERT_EQ(mts_send(queue_, IP_NODE_LOCAL, IP_SAP_PACKET, IP_OPCODE_PACKET, bytes.data(),
                       static_cast<uint32_t>(bytes.size()), nullptr, 0, nullptr),
              0);
  }
  // To 127.0.0.1.
  static std::vector<uint8_t> packet_of(uint8_t protocol, size_t size) {
    std::vector<uint8_t> packet(size, 0);
    ip_l3_encap(packet.data(), __builtin_bswap16(static_cast<uint16_t>(size)), protocol, 0x7f000001, 0x7f000001);
    return packet;
  }
  Process capture_;
};

TEST_F(IpshCapture, APacketIsShownWithWhatBecameOfIt) {
  capture("--count 1 --json");
  send_output(packet_of(253, 40));
  EXPECT_EQ(capture_.wait(long_wait), 0) << capture_.output();
  const std::string output = capture_.output();
  const size_t begin = output.find('{');
  ASSERT_NE(begin, std::string::npos) << output;
  const json row = json::parse(output.substr(begin, output.find('\n', begin) - begin));
  EXPECT_EQ(row["kind"], "captured");
  EXPECT_EQ(row["direction"], "from-client");
  EXPECT_EQ(row["client"], getpid());
  EXPECT_EQ(row["name"], "output");
  EXPECT_EQ(row["destination"], "127.0.0.1");
  EXPECT_EQ(row["protocol"], 253);
  EXPECT_EQ(row["length"], 40);
  EXPECT_EQ(row["bytes"].get<std::string>().size(), 80u);
}

TEST_F(IpshCapture, APacketOfAnotherProtocolIsNotShown) {
  capture("--count 1 --protocol 254");
  send_output(packet_of(253, 40));
  send_output(packet_of(254, 41));
  EXPECT_EQ(capture_.wait(long_wait), 0) << capture_.output();
  EXPECT_NE(capture_.output().find(", 41 bytes"), std::string::npos) << capture_.output();
  EXPECT_EQ(capture_.output().find(", 40 bytes"), std::string::npos) << capture_.output();
}

TEST_F(IpshCapture, AFileOpensInTsharkWithoutComplaint) {
  const std::string file = run_directory_.path() + "/packets.pcapng";
  capture("--count 3 --snap-length 24 -w " + file);
  send_malformed();  // without a packet: nothing for a file, but told of
  send_output(packet_of(253, 40));
  send_output(packet_of(89, 1400));
  EXPECT_EQ(capture_.wait(long_wait), 0) << capture_.output();
  const Outcome read = ipsh_test::run_command({"tshark", "-n",
                                               "-r",     file,
                                               "-T",     "fields",
                                               "-E",     "separator=;",
                                               "-e",     "frame.len",
                                               "-e",     "frame.cap_len",
                                               "-e",     "ip.proto",
                                               "-e",     "ip.dst",
                                               "-e",     "frame.comment",
                                               "-e",     "frame.interface_name"});
  EXPECT_EQ(read.exit_code, 0) << read.err;
  EXPECT_EQ(read.err.find("appears to"), std::string::npos) << read.err;
  const std::string who = "output from process " + std::to_string(getpid()) + ": ";
  EXPECT_EQ(read.out.find("40;24;253;127.0.0.1;" + who), 0u) << read.out << read.err;
  EXPECT_NE(read.out.find("\n1400;24;89;127.0.0.1;" + who), std::string::npos) << read.out;
  EXPECT_NE(read.out.find(";any\n"), std::string::npos) << read.out;
}

TEST_F(IpshCapture, ItEndsWithIpd) {
  capture("");
  ipd_.kill_now();
  EXPECT_EQ(capture_.wait(long_wait), 3) << capture_.output();
  EXPECT_NE(capture_.output().find("ipd is gone"), std::string::npos) << capture_.output();
}

TEST_F(IpshCapture, AnInterruptedOneThatSawNothingSaysSo) {
  capture("");
  capture_.signal(SIGINT);
  EXPECT_EQ(capture_.wait(long_wait), 1) << capture_.output();
}

TEST_F(IpshCapture, OneThatStandsStillHoldsNobodyUpAndIsToldWhatItMissed) {
  capture("");
  capture_.signal(SIGSTOP);
  const std::vector<uint8_t> packet = packet_of(253, 60000);
  constexpr int many = 400;  // more bytes than a queue takes
  for (int i = 0; i < many; ++i) send_output(packet);
  EXPECT_TRUE(wait_until(
      [] {
        return row_of(ipsh({"show", "packets", "--json"}), "output")["messages"] == many;
      },
      long_wait))
      << ipsh({"show", "packets"}).out;
  capture_.signal(SIGCONT);
  // What comes next says how many were missed.
  EXPECT_TRUE(wait_until(
      [&] {
        send_output(packet_of(253, 40));
        return capture_.output().find(", 40 bytes") != std::string::npos;
      },
      long_wait));
  capture_.signal(SIGTERM);
  EXPECT_EQ(capture_.wait(long_wait), 0);
  const std::string output = capture_.output();
  EXPECT_NE(output.find(" before it were not captured)"), std::string::npos) << output;
  const size_t sum = output.find(" captured, ");
  ASSERT_NE(sum, std::string::npos);
  EXPECT_GT(std::atoi(output.c_str() + sum + std::strlen(" captured, ")), 0) << output.substr(sum - 10);
}

TEST_F(IpshCapture, TheSeventeenthIsRefusedAndAnEndedOneMakesRoom) {
  std::vector<Process> captures;
  for (int i = 0; i < 16; ++i) captures.emplace_back(std::vector<std::string>{IPSH, "capture"});
  for (Process &one : captures) {
    ASSERT_TRUE(wait_until([&] { return one.output().find("capturing") != std::string::npos; }, long_wait));
  }
  const Outcome refused = ipsh({"capture"});
  EXPECT_EQ(refused.exit_code, 3);
  EXPECT_NE(refused.err.find("as many captures as ipd makes"), std::string::npos) << refused.err;
  captures.front().kill_now();
  EXPECT_TRUE(wait_until(
      [] {
        Process another({IPSH, "capture"});
        EXPECT_TRUE(wait_until([&] { return !another.output().empty(); }, long_wait));
        return another.output().find("capturing") != std::string::npos;
      },
      long_wait));
}

// --------------------------------------------------------------------------------------------------------------- ping

TEST_F(IpshPackets, APingThatIpdDoesNotSendSaysWhy) {
  const Outcome outcome = ipsh(words_of("ping 192.0.2.1 -c 2 -i 0.01 -W 60 --json"));
  EXPECT_EQ(outcome.exit_code, 1) << outcome.out << outcome.err;
  const json first = json::parse(outcome.out.substr(0, outcome.out.find('\n')));
  EXPECT_EQ(first["kind"], "ping-event");
  EXPECT_EQ(first["event"], "not-sent");
  EXPECT_EQ(first["sequence"], 1);
  const json last = json::parse(outcome.out.substr(outcome.out.rfind("{\"version\"")));
  EXPECT_EQ(last["kind"], "ping");
  EXPECT_EQ(last["sent"], 2);
  EXPECT_EQ(last["answered"], 0);
  EXPECT_EQ(last["not_sent"], 2);
}

// As another user, where we may become one. A ping looks at its own packets, which is the right that a capture needs.
TEST_F(IpshPackets, WhoMayNotSendIsToldSo) {
  ASSERT_EQ(chmod(run_directory_.path().c_str(), 0755), 0);
  std::vector<std::string> command{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "true"};
  const bool another_user = ipsh_test::run_command(command).exit_code == 0;
  command.pop_back();
  if (!another_user) command.clear();
  for (const std::string &word : test_support::public_program(IPSH)) command.push_back(word);
  for (const char *word : {"ping", "192.0.2.1", "-c", "1", "-W", "0.1"}) command.emplace_back(word);
  const Outcome outcome = ipsh_test::run_command(command);
  EXPECT_EQ(outcome.exit_code, another_user ? 4 : 1) << outcome.err;
  EXPECT_EQ(outcome.err, another_user
                             ? "ipsh: ping: ipd sends no packets for this user, or takes none; root, ipd's own "
                               "user and the group that its configuration names may send\n"
                             : "");
}

TEST_F(IpshPackets, WordsThatMakeNoSenseAreRefused) {
  for (const char *line : {"ping", "ping 10.0.0", "ping 10.0.0.1 -c 0", "ping 10.0.0.1 -s 65508", "ping 10.0.0.1 -W x",
                           "ping 10.0.0.1 -I nowhere", "capture -c x", "capture --protocol nonsense",
                           "capture --direction up", "capture --interface nowhere"}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 2) << line << ": " << outcome.err;
  }
}

}  // namespace
