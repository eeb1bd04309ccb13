// SPDX-License-Identifier: Apache-2.0
// ip_driver_send_icmp_packet and ip_driver_send_icmp_unreachable: a message of 100 bytes, without a packet.
#include <numeric>

#include "fake_platform/console.h"
#include "unit/packet_calls.h"

namespace unit {
namespace {

class DriverIcmpTest : public PacketTest {
 protected:
  DriverIcmpTest() : quoted(68) { std::iota(quoted.begin(), quoted.end(), uint8_t{1}); }

  uint32_t send(uint32_t length) { return ip_driver_send_icmp_packet(0x11121314, 0x21222324, length, quoted.data()); }
  // Without a uuid: the length stands there.
  [[nodiscard]] Bytes expected(uint32_t length, uint32_t type = 0x11121314, uint32_t code = 0x21222324) const {
    Image image = message(18, 100);
    image.word(20, length).word(92, type).word(96, code);
    return image.text(24, {quoted.begin(), quoted.begin() + length}).bytes();
  }

  Bytes quoted;
};

TEST_F(DriverIcmpTest, QuotesWhatItIsGiven) {
  for (const uint32_t length : {28u, 29u, 67u, 68u}) {
    platform().sent.clear();
    platform().log.clear();
    EXPECT_EQ(send(length), 1u) << length;
    EXPECT_EQ(sent_bytes(), expected(length)) << length;
    EXPECT_EQ(calls(), (Calls{"mtrack_alloc(267, 2, 100)", epid_call(), "trel_sys_mclock_get()", packet_send_call(100),
                              "mtrack_free(block)"}));
    std::array<uint32_t, 17> fresh{1};
    EXPECT_EQ(sent().options, fresh);
  }
}

TEST_F(DriverIcmpTest, RefusesWhatIsNoHeaderAndEightBytes) {
  for (const uint32_t length : {0u, 27u, 69u, 0xffffffffu}) EXPECT_EQ(send(length), 0u) << length;
  EXPECT_EQ(ip_driver_send_icmp_packet(3, 4, 28, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(DriverIcmpTest, UnreachableMeansThatFragmentationWasNeeded) {
  EXPECT_EQ(ip_driver_send_icmp_unreachable(28, quoted.data()), 1u);
  EXPECT_EQ(sent_bytes(), expected(28, 3, 4));
  EXPECT_EQ(ip_driver_send_icmp_unreachable(27, quoted.data()), 0u);
  EXPECT_EQ(ip_driver_send_icmp_unreachable(28, nullptr), 0u);
  EXPECT_EQ(sent_count(), 1u);
}

TEST_F(DriverIcmpTest, OnlyANegativeStatusIsAFailureAndTheMessageIsReleased) {
  for (const auto &[status, result] : {std::pair{-1, 0u}, std::pair{-9, 0u}, std::pair{0, 1u}, std::pair{7, 1u}}) {
    platform().scripts.answer("mts_send", static_cast<uintptr_t>(static_cast<intptr_t>(status)));
    EXPECT_EQ(send(28), result) << status;
    EXPECT_TRUE(platform().allocations.empty());
  }
}

TEST_F(DriverIcmpTest, AsksNothingOfTheQueueAndNothingOfTheSystemManager) {
  ip_client.data_q = no_queue;
  EXPECT_EQ(send(28), 1u) << "MTS decides";
  EXPECT_EQ(sent().queue, no_queue);
  EXPECT_EQ(platform().log.count("sysmgr_uuid_get"), 0u);
}

TEST_F(DriverIcmpTest, WithoutMemoryTheConsoleIsTold) {
  dbg_ip_api_misc = dbg_ip_icmp_error = 1;
  platform().scripts.fail("mtrack_alloc");
  fake_platform::ConsoleCapture console;
  EXPECT_EQ(send(28), 0u);
  EXPECT_EQ(console.text(), "Warning! Malloc Failure in routing/ip/ip_api.cc[2392] for size 100\n");
  EXPECT_EQ(calls(), Calls{"mtrack_alloc(267, 2, 100)"});
}

}  // namespace
}  // namespace unit
