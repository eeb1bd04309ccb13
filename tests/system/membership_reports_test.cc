// SPDX-License-Identifier: Apache-2.0
// What a neighbour on the wire hears of memberships: IGMPv3 reports (RFC 3376), decoded by tshark on a veth pair of the
// test's own.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "asked_client.h"
#include "ipd_fixture.h"
#include "kernel_memberships.h"

namespace {

using ipd_test::IpdTest;
using test_support::AskedClient;
using test_support::Process;

constexpr uint32_t stream = 0xef010203, channel = 0xe8010203, source = 0x0a00002a;
constexpr uint16_t marker_port = 9999;
constexpr auto deadline = std::chrono::seconds(60);

// A group record of a report: "4 239.1.2.3" (its type and group), with the sources behind it.
using Record = std::string;

// RFC 3376, section 4.2.12.
constexpr const char *to_exclude = "4", *to_include = "3", *allow = "5", *block = "6";

class Wire {
 public:
  Wire()
      : tshark_({"tshark",
                 "-i",
                 "vb",
                 "-n",
                 "-l",
                 "-f",
                 "igmp or udp port 9999",
                 "-T",
                 "fields",
                 "-E",
                 "separator=;",
                 "-e",
                 "igmp.version",
                 "-e",
                 "igmp.type",
                 "-e",
                 "igmp.record_type",
                 "-e",
                 "igmp.num_src",
                 "-e",
                 "igmp.maddr",
                 "-e",
                 "igmp.saddr",
                 "-e",
                 "udp.dstport"}) {}
  ~Wire() {
    tshark_.signal(SIGINT);  // its capturing child ends with it then
    tshark_.wait();
  }
  Wire(const Wire &) = delete;
  Wire &operator=(const Wire &) = delete;

  // Sends packets into the other end until one is seen: from then on nothing is missed.
  bool captures(int out) {
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ip_mreqn by{};
    by.imr_ifindex = out;
    (void)setsockopt(sender, IPPROTO_IP, IP_MULTICAST_IF, &by, sizeof by);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(marker_port);
    to.sin_addr.s_addr = htonl(0xefffffff);
    const bool seen = test_support::wait_until(
        [&] {
          (void)sendto(sender, "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
          return tshark_.output().find(";" + std::to_string(marker_port) + "\n") != std::string::npos;
        },
        deadline);
    close(sender);
    return seen;
  }

  bool hears(const Record &record) {
    return test_support::wait_until(
        [&] {
          const auto all = records();
          return std::find(all.begin(), all.end(), record) != all.end();
        },
        deadline);
  }
  bool heard_before(const Record &record) {
    const auto all = records();
    return std::find(all.begin(), all.end(), record) != all.end();
  }
  const std::string &output() { return tshark_.output(); }

 private:
  static std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    std::istringstream rest(text);
    for (std::string part; std::getline(rest, part, separator);) parts.push_back(part);
    return parts;
  }

  // Of all whole lines so far.
  std::vector<Record> records() {
    std::vector<Record> found;
    const std::string text = tshark_.output().substr(0, tshark_.output().rfind('\n') + 1);
    for (const std::string &line : split(text, '\n')) {
      const auto fields = split(line, ';');
      if (fields.size() < 5 || fields[0] != "3" || fields[1] != "0x22") continue;  // version 3, a report
      const auto types = split(fields[2], ',');
      const auto counts = split(fields[3], ',');
      const auto groups = split(fields[4], ',');
      const auto sources = split(fields.size() > 5 ? fields[5] : "", ',');
      if (groups.size() != types.size() || counts.size() != types.size()) continue;
      size_t next = 0;
      for (size_t i = 0; i < types.size(); ++i) {
        Record record = types[i] + " " + groups[i];
        for (int left = std::atoi(counts[i].c_str()); left > 0 && next < sources.size(); --left) {
          record += " " + sources[next++];
        }
        found.push_back(record);
      }
    }
    return found;
  }

  Process tshark_;
};

class MembershipReportsTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add va type veth peer name vb");
    ip("addr add 10.0.0.1/24 dev va");
    ip("link set va up");
    ip("link set vb up");
    start_ipd();
  }
};

TEST_F(MembershipReportsTest, JoinsAndLeavesAreReportedAsIgmpSays) {
  AskedClient client("igmp");
  attach();
  Wire wire;
  ASSERT_TRUE(wire.captures(ifindex("va"))) << wire.output();
  const uint32_t va = iod("va");
  ASSERT_FALSE(wire.heard_before(Record(to_exclude) + " 239.1.2.3"));
  ASSERT_EQ(client.ip_join_group(stream, va), 1u);
  EXPECT_TRUE(wire.hears(Record(to_exclude) + " 239.1.2.3")) << wire.output();
  ASSERT_EQ(client.ip_join_channel(channel, source, va), 1u);
  EXPECT_TRUE(wire.hears(Record(allow) + " 232.1.2.3 10.0.0.42")) << wire.output();
  ASSERT_EQ(client.ip_join_channel(channel, source + 1, va), 1u);
  EXPECT_TRUE(wire.hears(Record(allow) + " 232.1.2.3 10.0.0.43")) << wire.output();
  ASSERT_EQ(client.ip_leave_channel(channel, source, va), 1u);
  EXPECT_TRUE(wire.hears(Record(block) + " 232.1.2.3 10.0.0.42")) << wire.output();
  ASSERT_EQ(client.ip_leave_group(stream, va), 1u);
  EXPECT_TRUE(wire.hears(Record(to_include) + " 239.1.2.3")) << wire.output();
}

TEST_F(MembershipReportsTest, AClientThatIsKilledIsReportedToHaveLeft) {
  AskedClient client("igmp");
  attach();
  Wire wire;
  ASSERT_TRUE(wire.captures(ifindex("va"))) << wire.output();
  const uint32_t va = iod("va");
  for (uint32_t i = 0; i < 30; ++i) ASSERT_EQ(client.ip_join_group(stream + i, va), 1u);
  ASSERT_EQ(client.ip_join_channel(channel, source, va), 1u);
  EXPECT_TRUE(wire.hears(Record(to_exclude) + " 239.1.2.32")) << wire.output();
  EXPECT_TRUE(wire.hears(Record(allow) + " 232.1.2.3 10.0.0.42")) << wire.output();
  client.kill();
  for (uint32_t i = 0; i < 30; ++i) {
    EXPECT_TRUE(wire.hears(Record(to_include) + " 239.1.2." + std::to_string(3 + i))) << wire.output();
  }
  EXPECT_TRUE(wire.hears(Record(block) + " 232.1.2.3 10.0.0.42")) << wire.output();
}

}  // namespace
