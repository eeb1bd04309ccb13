// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/receivers.h"

#include "ipd/reception_rig.h"

namespace {

using namespace reception_rig;

constexpr uint32_t sap = 2048, other_sap = 2049;

class ReceiversTest : public testing::Test {
 protected:
  ReceiversTest() {
    receivers_.on_change([this](uint8_t protocol, bool wanted) { changes_.emplace_back(protocol, wanted); });
  }
  [[nodiscard]] std::vector<Receiver> of(uint8_t protocol) const {
    const auto each = receivers_.of(protocol);
    return {each.begin(), each.end()};
  }

  using Changes = std::vector<std::pair<uint8_t, bool>>;
  Receivers receivers_;
  Changes changes_;
};

TEST_F(ReceiversTest, ARegistrationWithAProtocolAndAQueueIsAReceiver) {
  receivers_.add(registration(1, 10, sap));
  EXPECT_EQ(of(ospf), (std::vector<Receiver>{{.pid = 10, .sap = sap, .by_segments = true}}));
  EXPECT_TRUE(of(pim).empty());
}

TEST_F(ReceiversTest, TheFlagsSayHowPacketsTravel) {
  receivers_.add(registration(1, 10, sap, ospf, 0));
  EXPECT_EQ(of(ospf), (std::vector<Receiver>{{.pid = 10, .sap = sap, .by_segments = false}}));
}

TEST_F(ReceiversTest, AProtocolIsWantedFromItsFirstReceiverToItsLast) {
  receivers_.add(registration(1, 10, sap));
  receivers_.add(registration(2, 20, other_sap));
  EXPECT_EQ(changes_, (Changes{{ospf, true}}));
  receivers_.remove(registration(1, 10, sap));
  EXPECT_EQ(changes_, (Changes{{ospf, true}}));
  receivers_.remove(registration(2, 20, other_sap));
  EXPECT_EQ(changes_, (Changes{{ospf, true}, {ospf, false}}));
  EXPECT_TRUE(of(ospf).empty());
}

TEST_F(ReceiversTest, AReplacedRegistrationDoesNotInterruptItsProtocol) {
  receivers_.add(registration(1, 10, sap));
  receivers_.add(registration(2, 10, other_sap));
  receivers_.remove(registration(1, 10, sap));
  EXPECT_EQ(changes_, (Changes{{ospf, true}}));
  EXPECT_EQ(of(ospf), (std::vector<Receiver>{{.pid = 10, .sap = other_sap, .by_segments = true}}));
}

TEST_F(ReceiversTest, AQueueThatIsNamedTwiceIsOneReceiverAsTheLastOneSays) {
  receivers_.add(registration(1, 10, sap));
  receivers_.add(registration(2, 10, sap, ospf, 0));
  EXPECT_EQ(of(ospf), (std::vector<Receiver>{{.pid = 10, .sap = sap, .by_segments = false}}));
  receivers_.remove(registration(2, 10, sap));
  EXPECT_EQ(of(ospf), (std::vector<Receiver>{{.pid = 10, .sap = sap, .by_segments = true}}));
}

TEST_F(ReceiversTest, ARegistrationWithoutAQueueIsNone) {
  receivers_.add(registration(1, 10, 0));
  EXPECT_TRUE(of(ospf).empty());
  EXPECT_TRUE(changes_.empty());
}

TEST_F(ReceiversTest, KeysThatAreNoProtocolsAreNotReceived) {
  receivers_.add(registration(1, 10, sap, 0));
  receivers_.add(registration(2, 10, sap, 255));
  EXPECT_TRUE(of(0).empty());
  EXPECT_TRUE(of(255).empty());
  EXPECT_TRUE(changes_.empty());
}

TEST_F(ReceiversTest, NobodyMakesOurOwnQueuesReceivers) {
  for (const uint32_t ours : {IP_SAP_CONTROL, IP_SAP_PACKET, IP_SAP_URIB}) receivers_.add(registration(1, 10, ours));
  EXPECT_TRUE(of(ospf).empty());
}

TEST_F(ReceiversTest, RemovingWhatWasNeverAddedChangesNothing) {
  receivers_.remove(registration(1, 10, sap));
  EXPECT_TRUE(changes_.empty());
}

}  // namespace
