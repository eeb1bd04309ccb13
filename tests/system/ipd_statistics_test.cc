// SPDX-License-Identifier: Apache-2.0
// An interface's counters as a client asks ipd for them, held against what the kernel tells ip(8).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#define LIBIP_NO_INET_NTOA
#include "interface_information.h"
#include "ip_api.h"
#include "ipd_fixture.h"

namespace {

using ipd_test::IpdTest;
using Counters = std::map<uint32_t, uint64_t>;  // by IP_IF_STAT_...

// Those that ip(8) tells of.
const std::array<std::tuple<uint32_t, const char *, const char *>, 9> told_by_ip{{
    {IP_IF_STAT_RX_PACKETS, "rx", "packets"},
    {IP_IF_STAT_TX_PACKETS, "tx", "packets"},
    {IP_IF_STAT_RX_BYTES, "rx", "bytes"},
    {IP_IF_STAT_TX_BYTES, "tx", "bytes"},
    {IP_IF_STAT_RX_ERRORS, "rx", "errors"},
    {IP_IF_STAT_TX_ERRORS, "tx", "errors"},
    {IP_IF_STAT_RX_DROPPED, "rx", "dropped"},
    {IP_IF_STAT_TX_DROPPED, "tx", "dropped"},
    {IP_IF_STAT_COLLISIONS, "tx", "collisions"},
}};

class IpdStatisticsTest : public IpdTest {
 protected:
  // Nothing but the test sends on them.
  void make_idle_pair() {
    ip("link add va type veth peer name vb");
    for (const std::string name : {"va", "vb"}) {
      std::string output;
      test_support::run({"/bin/sh", "-c", "echo 1 > /proc/sys/net/ipv6/conf/" + name + "/disable_ipv6"}, &output);
      ip("link set " + name + " multicast off");
      ip("link set " + name + " up");
    }
    ip("addr add 10.1.0.1/24 dev va");
    ip("neigh add 10.1.0.2 lladdr 02:00:00:00:00:02 dev va");
  }

  static void send_to(const std::string &address, size_t bytes, int times) {
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    ASSERT_EQ(inet_pton(AF_INET, address.c_str(), &to.sin_addr), 1);
    const std::vector<char> payload(bytes);
    for (int i = 0; i < times; ++i) {
      ASSERT_EQ(sendto(sender, payload.data(), bytes, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
                static_cast<ssize_t>(bytes))
          << strerror(errno);
    }
    close(sender);
  }

  // What ipd answers; empty: it rejects.
  static Counters asked(uint32_t iod) {
    uint32_t queue = 0;
    EXPECT_EQ(ip_init_mts(&queue, -1), 1u);
    ip_msg_if_stats_request request{};
    request.iod = iod;
    void *answer = nullptr;
    Counters counters;
    if (ip_get_interface_stats(queue, &request, sizeof request, &answer) == 1) {
      ip_msg_if_stats_reply reply{};
      std::memcpy(&reply, answer, sizeof reply);
      std::free(answer);
      EXPECT_EQ(reply.header.major_type, IP_MAJOR_CLIENT);
      EXPECT_EQ(reply.header.minor_type, IP_MSG_GET_IF_STATS);
      EXPECT_EQ(reply.iod, iod);
      EXPECT_EQ(reply.count, 16u);
      for (uint32_t i = 0; i < reply.count; ++i) {
        counters[i] = reply.counters[i][0] | uint64_t{reply.counters[i][1]} << 32;
      }
    }
    mts_unbind(queue, 0);
    return counters;
  }

  static Counters kernels(const std::string &name) {
    std::string text;
    const int status =
        test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -j -s link show dev " + name}, &text);
    EXPECT_EQ(status, 0) << text;
    const auto link = nlohmann::json::parse(text).at(0);
    Counters counters;
    for (const auto &[number, direction, what] : told_by_ip) {
      counters[number] = link.at("stats64").at(direction).at(what);
    }
    return counters;
  }

  static void expect_as_kernel(const std::string &name) {
    const Counters kernel = kernels(name);
    const Counters answered = asked(iod(name));
    ASSERT_EQ(answered.size(), 16u);
    for (const auto &[number, value] : kernel) EXPECT_EQ(answered.at(number), value) << "counter " << number;
  }
};

TEST_F(IpdStatisticsTest, AnIdleVethHasTheKernelsCounters) {
  make_idle_pair();
  start_ipd();
  attach();
  expect_as_kernel("va");
  send_to("10.1.0.2", 1000, 7);
  EXPECT_EQ(asked(iod("va")).at(IP_IF_STAT_TX_PACKETS), 7u);
  EXPECT_EQ(asked(iod("vb")).at(IP_IF_STAT_RX_BYTES), 7u * (1000 + 8 + 20 + 14));
  expect_as_kernel("va");
  expect_as_kernel("vb");
}

TEST_F(IpdStatisticsTest, CountersGoOnBeyond32Bits) {
  make_idle_pair();
  ip("link set va mtu 65535");
  ip("link set vb mtu 65535");
  start_ipd();
  attach();
  constexpr size_t largest = 65507;
  send_to("10.1.0.2", largest, static_cast<int>((uint64_t{1} << 32) / largest) + 100);
  const Counters answered = asked(iod("va"));
  ASSERT_EQ(answered.size(), 16u);
  EXPECT_GT(answered.at(IP_IF_STAT_TX_BYTES), uint64_t{1} << 32);
  EXPECT_EQ(answered.at(IP_IF_STAT_TX_BYTES), kernels("va").at(IP_IF_STAT_TX_BYTES));
  EXPECT_EQ(answered.at(IP_IF_STAT_TX_PACKETS), kernels("va").at(IP_IF_STAT_TX_PACKETS));
}

TEST_F(IpdStatisticsTest, AnInterfaceThatIsNotThereIsRejected) {
  make_idle_pair();
  start_ipd();
  attach();
  const uint32_t there = iod("va");
  EXPECT_FALSE(asked(there).empty());
  EXPECT_TRUE(asked(0).empty());
  EXPECT_TRUE(asked(there + 1000).empty());
  ip("link del va");
  EXPECT_TRUE(asked(there).empty()) << "also before ipd has heard of it";
}

}  // namespace
