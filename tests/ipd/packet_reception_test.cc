// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/reception.h"

#include <cerrno>
#include <deque>

#include "ipd/process/log.h"
#include "ipd/reception_rig.h"

namespace {

using namespace reception_rig;
using ipd::kernel::RawPacket;

class FakeSockets final : public ipd::kernel::RawReception {
 public:
  int open(uint8_t protocol) override {
    ++opens;
    if (error == 0) opened.insert(protocol);
    return error;
  }
  void close(uint8_t protocol) override { opened.erase(protocol); }
  [[nodiscard]] int descriptor() const override { return -1; }
  size_t read(size_t most, const std::function<void(const RawPacket &)> &arrived) override {
    size_t taken = 0;
    for (; taken < most && !waiting.empty(); ++taken) {
      const auto [ifindex, truncated, bytes] = waiting.front();
      waiting.pop_front();
      arrived({.ifindex = ifindex, .truncated = truncated, .bytes = bytes});
    }
    return taken;
  }
  [[nodiscard]] uint64_t lost() const override { return 0; }

  struct Waiting {
    uint32_t ifindex;
    bool truncated;
    Bytes bytes;
  };
  std::deque<Waiting> waiting;
  std::set<uint8_t> opened;
  int error = 0;
  int opens = 0;
};

class PacketReceptionTest : public testing::Test {
 protected:
  PacketReceptionTest() {
    ipd::set_log_limit(LOG_CRIT);
    box_.add(5, 50, "eth0");
    box_.add(6, 60, "eth1").state.context_id = 7;
  }
  ~PacketReceptionTest() override { ipd::set_log_limit(LOG_NOTICE); }
  void receive(uint32_t ifindex, const Bytes &bytes, bool truncated = false) {
    sockets_.waiting.push_back({ifindex, truncated, bytes});
    reception_.read();
  }

  using Drops = std::vector<std::pair<uint32_t, Outcome>>;
  test_support::FakeBox box_;
  FakeSockets sockets_;
  RecordingLocal local_;
  Drops drops_;
  Reception reception_{box_, sockets_, local_, [this](uint32_t iod, Outcome outcome, std::span<const std::byte>) {
                         drops_.emplace_back(iod, outcome);
                       }};
  Reception::Clock::time_point now_{};
};

TEST_F(PacketReceptionTest, AProtocolIsReceivedWhileItIsWanted) {
  reception_.want(ospf, true);
  EXPECT_EQ(sockets_.opened, (std::set<uint8_t>{ospf}));
  reception_.want(ospf, false);
  EXPECT_TRUE(sockets_.opened.empty());
}

TEST_F(PacketReceptionTest, APacketIsDeliveredWithInterfaceAndContext) {
  receive(60, packet_with({}));
  ASSERT_EQ(local_.given.size(), 1u);
  EXPECT_EQ(local_.given[0].first, (Arrival{.iod = 6, .context_id = 7, .from_kernel = true}));
  EXPECT_EQ(local_.given[0].second, packet_with({}));
  EXPECT_EQ(reception_.counts(), (ReceptionCounts{.received = 1}));
  EXPECT_TRUE(drops_.empty());
}

TEST_F(PacketReceptionTest, AnInterfaceThatIsNotPublishedIsCountedAndDropped) {
  receive(70, packet_with({}));
  receive(0, packet_with({}));
  EXPECT_TRUE(local_.given.empty());
  EXPECT_EQ(reception_.counts(), (ReceptionCounts{.unknown_interface = 2}));
  EXPECT_EQ(drops_, (Drops{{0, Outcome::no_interface}, {0, Outcome::no_interface}}));
}

TEST_F(PacketReceptionTest, AnInterfaceThatCameAfterwardsIsKnownThen) {
  receive(70, packet_with({}));
  box_.add(8, 70, "eth2");
  reception_.interfaces_changed();
  receive(70, packet_with({}));
  ASSERT_EQ(local_.given.size(), 1u);
  EXPECT_EQ(local_.given[0].first.iod, 8u);
}

TEST_F(PacketReceptionTest, AnInterfaceThatMovedIsInItsNewContextThen) {
  receive(50, packet_with({}));
  box_.interfaces.at(5).state.context_id = 9;
  reception_.interfaces_changed();
  receive(50, packet_with({}));
  ASSERT_EQ(local_.given.size(), 2u);
  EXPECT_EQ(local_.given[1].first.context_id, 9u);
}

TEST_F(PacketReceptionTest, WhatIsCutOffIsCountedAndDropped) {
  receive(50, packet_with({}), true);
  EXPECT_TRUE(local_.given.empty());
  EXPECT_EQ(reception_.counts(), (ReceptionCounts{.malformed = 1}));
  EXPECT_EQ(drops_, (Drops{{5, Outcome::bad_packet}}));
}

TEST_F(PacketReceptionTest, WhatIsNoWholePacketIsCountedAndDropped) {
  Bytes version6 = packet_with({}), long_header = packet_with({.payload = 0}), short_header = packet_with({});
  Bytes longer = packet_with({}), shorter = packet_with({});
  version6[0] = std::byte{0x65};
  long_header[0] = std::byte{0x46};
  short_header[0] = std::byte{0x44};
  longer.push_back(std::byte{0});
  shorter.pop_back();
  const std::vector<Bytes> all{{}, Bytes(19, std::byte{0x45}), version6, long_header, short_header, longer, shorter};
  for (const Bytes &each : all) receive(50, each);
  EXPECT_TRUE(local_.given.empty());
  EXPECT_EQ(reception_.counts(), (ReceptionCounts{.malformed = all.size()}));
}

TEST_F(PacketReceptionTest, WhatWePutInOurselvesIsNotDeliveredAgain) {
  reception_.ignore(50);
  receive(50, packet_with({}));
  EXPECT_TRUE(local_.given.empty());
  EXPECT_TRUE(drops_.empty());
  EXPECT_EQ(reception_.counts(), (ReceptionCounts{.reentered = 1}));
  reception_.ignore(0);
  receive(50, packet_with({}));
  EXPECT_EQ(local_.given.size(), 1u);
}

TEST_F(PacketReceptionTest, AFloodIsTakenInPieces) {
  for (size_t i = 0; i < Reception::packets_in_a_row + 1; ++i) sockets_.waiting.push_back({50, false, packet_with({})});
  reception_.read();
  EXPECT_EQ(local_.given.size(), Reception::packets_in_a_row);
  reception_.read();
  EXPECT_EQ(local_.given.size(), Reception::packets_in_a_row + 1);
}

TEST_F(PacketReceptionTest, ASocketThatCannotBeHadIsTriedAgain) {
  sockets_.error = EMFILE;
  reception_.want(ospf, true);
  EXPECT_TRUE(sockets_.opened.empty());
  sockets_.error = 0;
  reception_.tick(now_ += Reception::retry_period);
  EXPECT_EQ(sockets_.opened, (std::set<uint8_t>{ospf}));
  reception_.tick(now_ += Reception::retry_period);
  EXPECT_EQ(sockets_.opens, 2);
}

TEST_F(PacketReceptionTest, WhatIsNotWantedAnyMoreIsNotTriedAgain) {
  sockets_.error = EPERM;
  reception_.want(ospf, true);
  reception_.want(ospf, false);
  sockets_.error = 0;
  reception_.tick(now_ += Reception::retry_period);
  EXPECT_TRUE(sockets_.opened.empty());
}

TEST_F(PacketReceptionTest, TheSameFailureIsSaidOnce) {
  ipd::set_log_limit(LOG_WARNING);
  sockets_.error = EPERM;
  testing::internal::CaptureStderr();
  reception_.want(ospf, true);
  reception_.want(pim, true);
  reception_.tick(now_ += Reception::retry_period);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("no packets of protocol 89 are received: Operation not permitted"), std::string::npos) << said;
  EXPECT_EQ(std::ranges::count(said, '\n'), 1) << said;
}

}  // namespace
