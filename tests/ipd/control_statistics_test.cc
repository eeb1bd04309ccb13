// SPDX-License-Identifier: Apache-2.0
// Answers about an interface's counters, with a kernel that counts whatever a test wants.
#include <gtest/gtest.h>

#include <cstring>

#include "ip_msg.h"
#include "ipd/control/statistics.h"
#include "ipd/control_fakes.h"
#include "ipd/netlink_messages.h"

namespace {

using ipd::control::Refusal;

class FakeCounters final : public ipd::kernel::InterfaceCounters {
 public:
  int read(uint32_t ifindex, rtnl_link_stats64 *counters) override {
    asked.push_back(ifindex);
    if (error == 0) *counters = counted;
    return error;
  }
  std::vector<uint32_t> asked;
  rtnl_link_stats64 counted{};
  int error = 0;
};

class ControlStatistics : public testing::Test {
 protected:
  Refusal ask(uint32_t iod, bool wants_answer = true) {
    ip_msg_if_stats_request asked{};
    asked.header.minor_type = IP_MSG_GET_IF_STATS;
    asked.iod = iod;
    auto request = test_support::request_of(asked, {.pid = 100, .uid = 0, .sap = 2048}, IP_OPCODE_CLIENT);
    request.wants_answer = wants_answer;
    return statistics_.handle(request);
  }
  uint64_t answered(uint32_t number) {
    const auto reply = transport_.sent.at(0).as<ip_msg_if_stats_reply>();
    return reply.counters[number][0] | uint64_t{reply.counters[number][1]} << 32;
  }

  test_support::FakeBox box_;
  test_support::FakeTransport transport_;
  FakeCounters counters_;
  ipd::control::Statistics statistics_{box_, transport_, counters_};
};

TEST_F(ControlStatistics, TheAnswerHasEachOfTheKernelsCountersInItsPlace) {
  box_.add(7, 70, "eth0");
  auto &kernel = counters_.counted;
  uint64_t value = uint64_t{1} << 40;
  for (auto *counter : {&kernel.rx_packets, &kernel.tx_packets, &kernel.rx_bytes, &kernel.tx_bytes, &kernel.rx_errors,
                        &kernel.tx_errors, &kernel.rx_dropped, &kernel.tx_dropped, &kernel.multicast,
                        &kernel.collisions, &kernel.rx_length_errors, &kernel.rx_crc_errors, &kernel.rx_frame_errors,
                        &kernel.rx_missed_errors, &kernel.tx_carrier_errors, &kernel.rx_nohandler}) {
    *counter = value++;
  }
  kernel.rx_over_errors = kernel.rx_fifo_errors = kernel.tx_aborted_errors = 4711;
  ASSERT_EQ(ask(7), Refusal::none);
  EXPECT_EQ(counters_.asked, std::vector<uint32_t>{70});
  ASSERT_EQ(transport_.sent.size(), 1u);
  EXPECT_EQ(transport_.sent[0].bytes.size(), sizeof(ip_msg_if_stats_reply));
  const auto reply = transport_.sent[0].as<ip_msg_if_stats_reply>();
  EXPECT_EQ(reply.header.major_type, IP_MAJOR_CLIENT);
  EXPECT_EQ(reply.header.minor_type, IP_MSG_GET_IF_STATS);
  EXPECT_EQ(reply.iod, 7u);
  EXPECT_EQ(reply.count, 16u);
  const uint32_t order[] = {
      IP_IF_STAT_RX_PACKETS,      IP_IF_STAT_TX_PACKETS,       IP_IF_STAT_RX_BYTES,          IP_IF_STAT_TX_BYTES,
      IP_IF_STAT_RX_ERRORS,       IP_IF_STAT_TX_ERRORS,        IP_IF_STAT_RX_DROPPED,        IP_IF_STAT_TX_DROPPED,
      IP_IF_STAT_MULTICAST,       IP_IF_STAT_COLLISIONS,       IP_IF_STAT_RX_LENGTH_ERRORS,  IP_IF_STAT_RX_CRC_ERRORS,
      IP_IF_STAT_RX_FRAME_ERRORS, IP_IF_STAT_RX_MISSED_ERRORS, IP_IF_STAT_TX_CARRIER_ERRORS, IP_IF_STAT_RX_NOHANDLER};
  for (uint32_t i = 0; i < 16; ++i) EXPECT_EQ(answered(order[i]), (uint64_t{1} << 40) + i) << i;
}

TEST_F(ControlStatistics, TheLowWordComesFirst) {
  box_.add(7, 70, "eth0");
  counters_.counted.tx_bytes = 0x1122334455667788;
  ASSERT_EQ(ask(7), Refusal::none);
  const auto reply = transport_.sent.at(0).as<ip_msg_if_stats_reply>();
  EXPECT_EQ(reply.counters[IP_IF_STAT_TX_BYTES][0], 0x55667788u);
  EXPECT_EQ(reply.counters[IP_IF_STAT_TX_BYTES][1], 0x11223344u);
}

TEST_F(ControlStatistics, AnUnknownInterfaceIsLeftToBeRejected) {
  box_.add(7, 70, "eth0");
  EXPECT_EQ(ask(8), Refusal::no_interface);
  EXPECT_EQ(ask(0), Refusal::no_interface);
  counters_.error = ENODEV;
  EXPECT_EQ(ask(7), Refusal::no_interface) << "the kernel has removed it, and we have not heard yet";
  EXPECT_TRUE(transport_.sent.empty());
}

TEST_F(ControlStatistics, WhatTheKernelRefusesIsLeftToBeRejected) {
  box_.add(7, 70, "eth0");
  for (const int error : {EAGAIN, ENOBUFS, EPERM, EBADMSG}) {
    counters_.error = error;
    EXPECT_EQ(ask(7), Refusal::kernel) << error;
  }
  EXPECT_TRUE(transport_.sent.empty());
}

TEST_F(ControlStatistics, WhoWantsNoAnswerAsksForNothing) {
  box_.add(7, 70, "eth0");
  EXPECT_EQ(ask(7, false), Refusal::bad_field);
  EXPECT_TRUE(counters_.asked.empty());
}

TEST_F(ControlStatistics, AnAnswerThatCannotBeDeliveredIsCountedAsSuch) {
  box_.add(7, 70, "eth0");
  for (const int error : {EAGAIN, ECONNRESET}) {
    transport_.error = error;
    EXPECT_EQ(ask(7), Refusal::no_answer) << error;
  }
}

using namespace netlink_messages;

constexpr uint32_t sequence = 9;

Bytes statistics(uint32_t ifindex, size_t size = sizeof(rtnl_link_stats64), uint16_t type = IFLA_STATS_LINK_64) {
  rtnl_link_stats64 counted{};
  counted.rx_packets = 5;
  counted.rx_nohandler = uint64_t{7} << 40;
  Bytes payload;
  append(payload, counted);
  payload.resize(size);
  Bytes body;
  if_stats_msg fixed{};
  fixed.ifindex = ifindex;
  append(body, fixed);
  attribute(body, type, payload);
  return body;
}

std::optional<int> parsed(const Bytes &bytes, rtnl_link_stats64 *counters) {
  return ipd::kernel::parse_interface_counters(bytes, sequence, 3, counters);
}

TEST(InterfaceCountersParse, ReadsTheCountersOfTheInterface) {
  rtnl_link_stats64 counters{};
  EXPECT_EQ(parsed(message(RTM_NEWSTATS, statistics(3), {.sequence = sequence}), &counters), 0);
  EXPECT_EQ(counters.rx_packets, 5u);
  EXPECT_EQ(counters.rx_nohandler, uint64_t{7} << 40);
}

TEST(InterfaceCountersParse, AnOlderKernelHasFewerAndANewerMore) {
  rtnl_link_stats64 counters{};
  counters.rx_nohandler = 1;
  const size_t older = offsetof(rtnl_link_stats64, rx_nohandler);
  EXPECT_EQ(parsed(message(RTM_NEWSTATS, statistics(3, older), {.sequence = sequence}), &counters), 0);
  EXPECT_EQ(counters.rx_packets, 5u);
  EXPECT_EQ(counters.rx_nohandler, 0u);
  EXPECT_EQ(parsed(message(RTM_NEWSTATS, statistics(3, 1000), {.sequence = sequence}), &counters), 0);
  EXPECT_EQ(counters.rx_nohandler, uint64_t{7} << 40);
}

TEST(InterfaceCountersParse, AnErrorIsTheAnswerToo) {
  rtnl_link_stats64 counters{};
  EXPECT_EQ(parsed(error({.sequence = sequence}, ENODEV), &counters), ENODEV);
  EXPECT_EQ(parsed(error({.sequence = sequence}, 0), &counters), EBADMSG) << "an acknowledgement answers nothing";
  EXPECT_EQ(parsed(message(NLMSG_ERROR, Bytes(2), {.sequence = sequence}), &counters), EBADMSG);
}

TEST(InterfaceCountersParse, AnotherRequestsAnswerIsPassedOver) {
  rtnl_link_stats64 counters{};
  const Bytes other = message(RTM_NEWSTATS, statistics(4), {.sequence = sequence - 1});
  EXPECT_EQ(parsed(other, &counters), std::nullopt);
  EXPECT_EQ(parsed(other + message(RTM_NEWSTATS, statistics(3), {.sequence = sequence}), &counters), 0);
}

TEST(InterfaceCountersParse, WhatMakesNoSenseIsRefusedAndLeavesTheCountersAlone) {
  const size_t older = offsetof(rtnl_link_stats64, rx_nohandler);
  rtnl_link_stats64 counters{};
  counters.rx_packets = 4711;
  for (const Bytes &body : {statistics(4), statistics(3, older - 1), statistics(3, 0),
                            statistics(3, older, IFLA_STATS_LINK_XSTATS), Bytes(4), Bytes()}) {
    EXPECT_EQ(parsed(message(RTM_NEWSTATS, body, {.sequence = sequence}), &counters), EBADMSG);
  }
  Bytes lying = statistics(3);
  lying[sizeof(if_stats_msg)] = std::byte{0xff};
  lying[sizeof(if_stats_msg) + 1] = std::byte{0xff};
  EXPECT_EQ(parsed(message(RTM_NEWSTATS, lying, {.sequence = sequence}), &counters), EBADMSG);
  EXPECT_EQ(counters.rx_packets, 4711u);
}

TEST(InterfaceCountersParse, ReadsNothingBeyondADatagramThatEndsAnywhere) {
  const Bytes whole = message(RTM_NEWSTATS, statistics(3), {.sequence = sequence});
  for (size_t size = 0; size < whole.size(); ++size) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    rtnl_link_stats64 counters{};
    EXPECT_EQ(parsed(cut, &counters), std::nullopt) << size;
  }
}

}  // namespace
