// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/local_delivery.h"

#include <cerrno>

#include "ipd/reception_rig.h"

namespace {

using namespace reception_rig;

constexpr int32_t one = 10, two = 20;

class RecordingKernel final : public ipd::kernel::KernelInput {
 public:
  int input(std::span<const std::byte> packet) override {
    if (error == 0) given.emplace_back(packet.begin(), packet.end());
    return error;
  }
  std::vector<Bytes> given;
  int error = 0;
};

class LocalDeliveryTest : public testing::Test {
 protected:
  LocalDeliveryTest() {
    box_.add(5, 50, "eth0");
    box_.add(6, 60, "eth1");
    receivers_.add(registration(1, one, 2048));
    receivers_.add(registration(2, two, 2049));
  }
  Outcome deliver(const PacketFields &fields, Arrival arrival = {.iod = 5, .context_id = 1}) {
    return distribution_.deliver(arrival, packet_with(fields));
  }

  using Pids = std::vector<int32_t>;
  test_support::FakeBox box_;
  Members members_{box_};
  Receivers receivers_;
  RecordingDelivery delivery_;
  RecordingKernel kernel_;
  Distribution distribution_{receivers_, members_.memberships, delivery_};
};

TEST_F(LocalDeliveryTest, EachClientOfTheProtocolGetsACopy) {
  EXPECT_EQ(deliver({}), Outcome::done);
  ASSERT_EQ(delivery_.pids(), (Pids{one, two}));
  EXPECT_EQ(delivery_.given[0].packet, packet_with({}));
  EXPECT_EQ(delivery_.given[1].packet, packet_with({}));
}

TEST_F(LocalDeliveryTest, TheMessageSaysWhereThePacketCameIn) {
  const std::array<uint8_t, 6> mac{2, 3, 4, 5, 6, 7};
  ASSERT_EQ(deliver({}, {.iod = 6, .context_id = 7, .src_l2 = mac}), Outcome::done);
  const ip_msg_input &message = delivery_.given.at(0).message;
  EXPECT_EQ(message.header.major_type, IP_MAJOR_CLIENT);
  EXPECT_EQ(message.header.minor_type, IP_MSG_INPUT);
  EXPECT_EQ(message.iod, 6u);
  EXPECT_EQ(message.context_id, 7u);
  EXPECT_EQ(message.packet_len, 28u);
  EXPECT_EQ(message.packet_word, 0u);
  EXPECT_EQ(message.packet_byte, 0u);
  EXPECT_TRUE(std::ranges::equal(message.src_l2_addr, mac));
}

TEST_F(LocalDeliveryTest, NoClientSeesTheReferenceOfAnother) {
  ASSERT_EQ(deliver({}), Outcome::done);
  EXPECT_EQ(delivery_.given.at(1).message.packet_ref, 0u);
}

TEST_F(LocalDeliveryTest, AProtocolThatNobodyRegisteredForHasNoReceiver) {
  EXPECT_EQ(deliver({.protocol = pim}), Outcome::no_receiver);
  EXPECT_TRUE(delivery_.given.empty());
}

TEST_F(LocalDeliveryTest, AGroupGoesToThoseWhoJoinedItOnThatInterface) {
  members_.join(one, 5, group);
  members_.join(two, 6, group);
  EXPECT_EQ(deliver({.destination = group}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{one}));
}

TEST_F(LocalDeliveryTest, AChannelGoesToThoseWhoJoinedItsSource) {
  members_.join(one, 5, group, neighbor);
  members_.join(two, 5, group, neighbor + 1);
  EXPECT_EQ(deliver({.destination = group}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{one}));
}

TEST_F(LocalDeliveryTest, WhoTakesEveryGroupGetsThisOne) {
  members_.join(two, 5, 0);
  EXPECT_EQ(deliver({.destination = group}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{two}));
}

TEST_F(LocalDeliveryTest, AGroupThatNobodyJoinedHasNoMember) {
  EXPECT_EQ(deliver({.destination = all_ospf}), Outcome::no_member);
  EXPECT_TRUE(delivery_.given.empty());
}

TEST_F(LocalDeliveryTest, OfAnUnknownInterfaceAMemberOnAnyCounts) {
  members_.join(two, 6, group);
  EXPECT_EQ(deliver({.destination = group}, {.iod = 0, .context_id = 1}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{two}));
}

TEST_F(LocalDeliveryTest, AllHostsAndBroadcastsAreForEveryClient) {
  EXPECT_EQ(deliver({.destination = all_hosts}), Outcome::done);
  EXPECT_EQ(deliver({.destination = 0xffffffff}), Outcome::done);
  EXPECT_EQ(deliver({.destination = subnet_broadcast}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{one, two, one, two, one, two}));
}

TEST_F(LocalDeliveryTest, AFullQueueLosesItsCopyAndNoOther) {
  delivery_.outcomes[one] = Outcome::queue_full;
  EXPECT_EQ(deliver({}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{two}));
}

TEST_F(LocalDeliveryTest, WhenNobodyGetsItTheReasonIsToldBeforeAMissingMembership) {
  delivery_.outcomes[one] = Outcome::queue_full;
  members_.join(one, 5, group);
  EXPECT_EQ(deliver({.destination = group}), Outcome::queue_full);
}

TEST_F(LocalDeliveryTest, ClientsThatAreGoneAreNoReceivers) {
  delivery_.outcomes = {{one, Outcome::no_receiver}, {two, Outcome::no_receiver}};
  EXPECT_EQ(deliver({}), Outcome::no_receiver);
}

TEST_F(LocalDeliveryTest, WhoHandsAPacketInGetsNoCopy) {
  EXPECT_EQ(deliver({}, {.iod = 5, .context_id = 1, .from_pid = one}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{two}));
}

TEST_F(LocalDeliveryTest, AFragmentGoesToNoClient) {
  for (const uint16_t fragment : {uint16_t{0x2000}, uint16_t{0x0001}}) {
    EXPECT_EQ(deliver({.fragment = fragment}), Outcome::no_receiver);
  }
  EXPECT_TRUE(delivery_.given.empty());
}

TEST_F(LocalDeliveryTest, APacketThatMustNotBeFragmentedIsNoFragment) {
  EXPECT_EQ(deliver({.fragment = 0x4000}), Outcome::done);
  EXPECT_EQ(delivery_.pids(), (Pids{one, two}));
}

TEST_F(LocalDeliveryTest, TheKernelGetsWhatClientsHandIn) {
  distribution_.set_kernel(&kernel_);
  EXPECT_EQ(deliver({.protocol = pim}, {.iod = 5, .context_id = 1, .from_pid = one}), Outcome::done);
  EXPECT_EQ(kernel_.given, (std::vector<Bytes>{packet_with({.protocol = pim})}));
}

TEST_F(LocalDeliveryTest, TheKernelGetsFragments) {
  distribution_.set_kernel(&kernel_);
  EXPECT_EQ(deliver({.fragment = 0x2000}), Outcome::done);
  EXPECT_EQ(kernel_.given.size(), 1u);
}

TEST_F(LocalDeliveryTest, TheKernelGetsNothingUnlessItIsSwitchedOn) {
  distribution_.set_kernel(&kernel_);
  distribution_.set_kernel(nullptr);
  EXPECT_EQ(deliver({}), Outcome::done);
  EXPECT_TRUE(kernel_.given.empty());
}

TEST_F(LocalDeliveryTest, WhatCameFromTheKernelDoesNotGoBack) {
  distribution_.set_kernel(&kernel_);
  EXPECT_EQ(deliver({.protocol = pim}, {.iod = 5, .context_id = 1, .from_kernel = true}), Outcome::no_receiver);
  EXPECT_TRUE(kernel_.given.empty());
}

TEST_F(LocalDeliveryTest, TheKernelGetsNoGroupsAndNoOtherContexts) {
  distribution_.set_kernel(&kernel_);
  EXPECT_EQ(deliver({.destination = group}), Outcome::no_member);
  EXPECT_EQ(deliver({.protocol = pim}, {.iod = 5, .context_id = 7}), Outcome::no_receiver);
  EXPECT_TRUE(kernel_.given.empty());
}

TEST_F(LocalDeliveryTest, WhatTheKernelRefusesIsToldWhenNoClientGotIt) {
  distribution_.set_kernel(&kernel_);
  const std::vector<std::pair<int, Outcome>> expected{{EPERM, Outcome::no_privilege}, {EACCES, Outcome::no_privilege},
                                                      {EBADF, Outcome::kernel},       {ENOMEM, Outcome::no_memory},
                                                      {ENOBUFS, Outcome::no_memory},  {EIO, Outcome::kernel}};
  for (const auto &[error, outcome] : expected) {
    kernel_.error = error;
    EXPECT_EQ(deliver({.protocol = pim}), outcome) << error;
    EXPECT_EQ(deliver({}), Outcome::done);
  }
}

}  // namespace
