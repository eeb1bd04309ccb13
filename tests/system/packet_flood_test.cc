// SPDX-License-Identifier: Apache-2.0
// Many packets, clients that are killed while theirs are on the way, and clients that lie: no buffer of the pool is
// lost, and ipd goes on.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "im.h"
#include "ipd_fixture.h"
#include "mbuf/buffers.h"
#include "mbuf/pool.h"

namespace {

using namespace ipd_test;
using test_support::Process;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(120);
#ifdef LIBIP_SANITIZED
constexpr uint64_t many = 100000;
#else
constexpr uint64_t many = 1000000;
#endif

// Packets that the kernel sent on an interface.
uint64_t sent_by(const std::string &interface) {
  std::ifstream in("/proc/net/dev");
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string name;
    if (!(words >> name) || name != interface + ":") continue;
    uint64_t number = 0;
    // Behind eight numbers of what came in, and the bytes that went out.
    for (int i = 0; i < 10; ++i) words >> number;
    return number;
  }
  return 0;
}

rsw::PoolReport pool() {
  rsw::PoolReport report;
  std::string reason;
  EXPECT_TRUE(rsw::report_pool(&report, &reason)) << reason;
  return report;
}

// Nobody has a buffer, but for these many of this process; none is missing.
bool all_are_back(uint32_t ours = 0) {
  const rsw::PoolReport report = pool();
  return report.in_use == ours && report.free + report.cached + report.in_use == report.total;
}

std::string told(const rsw::PoolReport &report) {
  std::ostringstream text;
  text << report.total << " buffers: " << report.in_use << " in use, " << report.cached << " cached, " << report.free
       << " free, " << report.reclaimed << " taken back, " << report.damaged << " damaged";
  return text.str();
}

bool says(Process &client, const std::string &line) {
  return wait_until([&] { return client.output().find(line) != std::string::npos || !client.running(); }, patience) &&
         client.output().find(line) != std::string::npos;
}

class PacketFloodTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    ip("addr add 10.0.0.1/24 dev va");
    start_ipd();
    attach();
    ASSERT_TRUE(wait_until([] { return iod("va") != 0; }, patience));
  }
  // 239.1.1.1 by va: no neighbour has to answer.
  static Process flood(const std::string &carriage, uint32_t size, uint64_t count) {
    return Process({PACKET_FLOOD, "send", carriage, std::to_string(iod("va")), "0xef010101", std::to_string(size),
                    std::to_string(count)});
  }
  static Process liar(uint32_t uid, uint32_t seed, uint32_t count, const std::vector<std::string> &targets = {}) {
    std::vector<std::string> command{PACKET_FLOOD, "lie", std::to_string(uid), std::to_string(seed),
                                     std::to_string(count)};
    command.insert(command.end(), targets.begin(), targets.end());
    return Process(command);
  }
};

TEST_F(PacketFloodTest, AMillionPacketsByReferenceLeaveNoBufferBehind) {
  const uint64_t before = sent_by("va");
  Process client = flood("reference", 100, many);
  EXPECT_TRUE(says(client, "sent " + std::to_string(many))) << client.output();
  EXPECT_EQ(client.wait(patience), 0) << client.output();
  EXPECT_TRUE(wait_until([&] { return sent_by("va") >= before + many; }, patience)) << sent_by("va") - before;
  EXPECT_TRUE(wait_until([] { return all_are_back(); }, patience)) << told(pool());
  EXPECT_EQ(pool().reclaimed, 0u) << "each was freed by who had it";
  EXPECT_EQ(pool().damaged, 0u);
  EXPECT_TRUE(ipd_.running());
}

TEST_F(PacketFloodTest, PacketsBySegmentsLeaveTheSameWay) {
  const uint64_t before = sent_by("va");
  constexpr uint64_t count = many / 10;
  Process client = flood("segments", 1400, count);
  EXPECT_TRUE(says(client, "sent " + std::to_string(count))) << client.output();
  EXPECT_EQ(client.wait(patience), 0) << client.output();
  EXPECT_TRUE(wait_until([&] { return sent_by("va") >= before + count; }, patience)) << sent_by("va") - before;
  EXPECT_TRUE(wait_until([] { return all_are_back(); }, patience)) << told(pool());
}

TEST_F(PacketFloodTest, AClientThatIsKilledWithPacketsOnTheWayLosesNoBuffer) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 20; ++round) {
    Process client = flood("reference", 100, 0);
    ASSERT_TRUE(says(client, "sending")) << client.output();
    const uint64_t goal = sent_by("va") + random() % 2000;
    EXPECT_TRUE(wait_until([&] { return sent_by("va") >= goal; }, patience));
    client.kill_now();
    EXPECT_TRUE(wait_until([] { return all_are_back(); }, patience)) << round << ": " << told(pool());
  }
  EXPECT_TRUE(ipd_.running());
}

TEST_F(PacketFloodTest, AClientThatIsKilledWhileIpdStandsStillLosesNoBuffer) {
  Process client = flood("reference", 100, 0);
  ASSERT_TRUE(says(client, "sending")) << client.output();
  ipd_.signal(SIGSTOP);
  // What it hands over now waits in the queue.
  EXPECT_TRUE(wait_until([] { return pool().in_use >= 64; }, patience)) << told(pool());
  client.kill_now();
  ipd_.signal(SIGCONT);
  EXPECT_TRUE(wait_until([] { return all_are_back(); }, patience)) << told(pool());
  EXPECT_TRUE(ipd_.running());
}

TEST_F(PacketFloodTest, WhatAKilledClientHeldIsTakenBack) {
  Process client({PACKET_FLOOD, "keep", "1000"});
  ASSERT_TRUE(says(client, "kept 1000")) << client.output();
  EXPECT_GE(pool().in_use, 1000u);
  client.kill_now();
  EXPECT_TRUE(wait_until([] { return all_are_back(); }, patience)) << told(pool());
  EXPECT_GE(pool().reclaimed, 1000u);
}

TEST_F(PacketFloodTest, WhatAKilledIpdHeldIsTakenBackByTheNext) {
  Process client = flood("reference", 100, 0);
  ASSERT_TRUE(says(client, "sending")) << client.output();
  ipd_.kill_now();
  client.kill_now();
  start_ipd();
  EXPECT_TRUE(wait_until([] { return all_are_back(); }, patience)) << told(pool());
}

TEST_F(PacketFloodTest, AnotherUsersPacketsGoNowhere) {
  std::filesystem::permissions(run_directory_.path(), std::filesystem::perms(0755));
  const uint64_t before = sent_by("va");
  Process client = liar(65534, 7, 2000);
  EXPECT_TRUE(says(client, "lied")) << client.output();
  EXPECT_EQ(client.wait(patience), 0) << client.output();
  EXPECT_TRUE(wait_until([this] { return ipd_said("the sender may not"); }, patience)) << ipd_.output();
  Process honest = flood("reference", 100, 10);
  EXPECT_EQ(honest.wait(patience), 0) << honest.output();
  EXPECT_TRUE(wait_until([&] { return sent_by("va") >= before + 10; }, patience));
  EXPECT_TRUE(ipd_.running());
}

TEST_F(PacketFloodTest, ALiarWithEveryRightGetsAtNobodysBuffers) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::vector<struct mbuf *> ours;
  std::vector<std::string> targets;
  const std::vector<uint8_t> bytes(64, 0x77);
  for (int i = 0; i < 8; ++i) {
    ours.push_back(rsw::make_packet(bytes));
    ASSERT_NE(ours.back(), nullptr);
    targets.push_back(std::to_string(reinterpret_cast<uintptr_t>(ours.back())));
  }
  Process client = liar(0, seed, 5000, targets);
  EXPECT_TRUE(says(client, "lied")) << client.output();
  EXPECT_EQ(client.wait(patience), 0) << client.output();
  Process honest = flood("reference", 100, 10);
  EXPECT_EQ(honest.wait(patience), 0) << honest.output();
  EXPECT_TRUE(wait_until([] { return all_are_back(8); }, patience)) << told(pool());
  for (struct mbuf *packet : ours) {
    ASSERT_EQ(m_length(packet), bytes.size());
    EXPECT_EQ(memcmp(packet->data.get(), bytes.data(), bytes.size()), 0);
    EXPECT_EQ(packet->owner, getpid());
    m_freem(packet);
  }
  EXPECT_TRUE(ipd_.running()) << ipd_.output();
}

}  // namespace
