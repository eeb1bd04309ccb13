// SPDX-License-Identifier: Apache-2.0
// Transport: binding queues, sending messages, handing packets on.
#include <cerrno>
#include <limits>

#include "fake_platform/packets.h"
#include "unit/messages.h"

namespace unit {
namespace {

class TransportTest : public MessagingTest {
 protected:
  TransportTest() { std::memset(&msg, 0x5a, sizeof msg); }

  uint32_t send(uint32_t q, int32_t prio = 0) { return ip_cl_mts_send(q, 777, &msg, prio, &options, 0x1234); }
  uint32_t send_sized(uint32_t q, uint32_t size, int32_t prio = 0) {
    return ip_cl_mts_send_with_sz(q, 777, long_message.data(), size, prio, &options, 0x1234);
  }
  [[nodiscard]] std::string shown(const void *address) const {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address)));
    return text;
  }

  ip_msgtype msg;
  Bytes long_message = Bytes(120832, 0x5a);
  mts_send_opts options = {.w = {9, 8, 7}};
};

// ------------------------------------------------------------ queues

TEST_F(TransportTest, AFreshProcessHasNoQueues) {
  EXPECT_EQ(ip_urib_mts_q, no_queue);
  EXPECT_EQ(ip_server_ctrl_mts_q, no_queue);
  EXPECT_EQ(ip_server_data_mts_q, no_queue);
}

struct Bind {
  int32_t sap;
  uint32_t flags;
};
class BindTest : public TransportTest, public testing::WithParamInterface<Bind> {};

TEST_P(BindTest, BindsThenUnblocks) {
  uint32_t queue = 0;
  EXPECT_EQ(ip_init_mts(&queue, GetParam().sap), 1u);
  EXPECT_EQ(queue, 100u);
  EXPECT_EQ(calls(), (Calls{"mts_bind(1, " + std::to_string(GetParam().sap) + ", " + std::to_string(GetParam().flags) +
                                ", \"IP MTS queue\")",
                            "mts_recv_q_unblock(100)"}));
  EXPECT_EQ(platform().bind_options, (std::array<uint32_t, 6>{1, GetParam().flags, 1024, 267, 0, 15}));
}

INSTANTIATE_TEST_SUITE_P(FixedSapsButThatOfPacketsHaveTheFlag, BindTest,
                         testing::Values(Bind{-1, 0}, Bind{264, 0}, Bind{263, 1}, Bind{265, 1}, Bind{300, 1},
                                         Bind{0, 1}, Bind{-2, 1}, Bind{65535, 1}),
                         [](const testing::TestParamInfo<Bind> &row) {
                           return "Sap" + std::to_string(static_cast<uint32_t>(row.param.sap));
                         });

TEST_F(TransportTest, WithoutAPlaceForTheHandleNothingIsBound) {
  EXPECT_EQ(ip_init_mts(nullptr, 300), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(TransportTest, AFailedBindStoresThatThereIsNoQueue) {
  platform().scripts.fail("mts_bind");
  uint32_t queue = 5;
  EXPECT_EQ(ip_init_mts(&queue, -1), 0u);
  EXPECT_EQ(queue, no_queue);
  EXPECT_EQ(calls(), Calls{"mts_bind(1, -1, 0, \"IP MTS queue\")"});
}

TEST_F(TransportTest, AQueueThatDoesNotUnblockIsStillBound) {
  platform().scripts.fail("mts_recv_q_unblock");
  uint32_t queue = 5;
  EXPECT_EQ(ip_init_mts(&queue, -1), 1u);
  EXPECT_EQ(queue, 100u);
  EXPECT_EQ(ip_get_urib_q(), 1u);
}

TEST_F(TransportTest, TheUribQueueIsBoundOnItsSapWithoutAModule) {
  EXPECT_EQ(ip_get_urib_q(), 1u);
  EXPECT_EQ(ip_urib_mts_q, 100u);
  EXPECT_EQ(calls(), (Calls{"mts_bind(1, 266, 1, \"IP-URIB MTS queue\")", "mts_recv_q_unblock(100)"}));
  EXPECT_EQ(platform().bind_options, (std::array<uint32_t, 6>{1, 1, 1024, 0, 0, 15}));
}

TEST_F(TransportTest, AUribQueueThatIsNotBoundIsReported) {
  platform().scripts.fail("mts_bind");
  ip_urib_mts_q = 5;
  EXPECT_EQ(ip_get_urib_q(), 0u);
  EXPECT_EQ(ip_urib_mts_q, no_queue);
  EXPECT_EQ(calls(), (Calls{"mts_bind(1, 266, 1, \"IP-URIB MTS queue\")",
                            limited("IP_STARTUP_FAILURE", "bind to MTS_SAP_IP_URIB")}));
}

TEST_F(TransportTest, TheReportOfAUribQueueEndsWithTheErrorNumber) {
  platform().set_facility("ip", 2);
  platform().scripts.fail("mts_bind");
  errno = EADDRINUSE;
  EXPECT_EQ(ip_get_urib_q(), 0u);
  ASSERT_EQ(platform().syslog.size(), 1u);
  EXPECT_EQ(platform().syslog[0].text,
            "<<%IP-2-IP_STARTUP_FAILURE>> Failed to bind to MTS_SAP_IP_URIB during startup. "
            "error " +
                std::to_string(EADDRINUSE));
}

TEST_F(TransportTest, TheServersQueuesAreUnboundAndTheirHandlesKept) {
  ip_server_ctrl_mts_q = 11;
  ip_server_data_mts_q = 12;
  platform().scripts.fail("mts_unbind");
  ip_free_message_queue();
  EXPECT_EQ(calls(), (Calls{"mts_unbind(11, 0)", "mts_unbind(12, 0)"}));
  EXPECT_EQ(ip_server_ctrl_mts_q, 11u);
  EXPECT_EQ(ip_server_data_mts_q, 12u);
}

// ------------------------------------------------------------ sending

TEST_F(TransportTest, AMessageGoesOutAsItIsWithTheSendersIdentity) {
  Bytes expected(232, 0x5a);
  std::memcpy(expected.data() + 20, &platform().uuid, 4);
  EXPECT_EQ(send(42), 1u);
  EXPECT_EQ(calls(), (Calls{"sysmgr_uuid_get()", "mts_send(42, 4261412864, 777, 4660, 232, 0)"}));
  EXPECT_EQ(sent_bytes(), expected);
  EXPECT_EQ(msg.uuid, platform().uuid);
  EXPECT_TRUE(sent().with_options);
  EXPECT_EQ(sent().options[0], 9u);
  EXPECT_EQ(sent().options[2], 7u);
}

TEST_F(TransportTest, AMessageOfAnySizeGoesOutLikewise) {
  for (const uint32_t size : {24u, 232u, 233u, 120832u}) {
    platform().sent.clear();
    platform().log.clear();
    std::memset(long_message.data() + 20, 0x5a, 4);
    Bytes expected(size, 0x5a);
    std::memcpy(expected.data() + 20, &platform().uuid, 4);
    EXPECT_EQ(send_sized(42, size), 1u);
    EXPECT_EQ(calls(),
              (Calls{"sysmgr_uuid_get()", "mts_send(42, 4261412864, 777, 4660, " + std::to_string(size) + ", 0)"}));
    EXPECT_EQ(sent_bytes(), expected);
  }
}

TEST_F(TransportTest, AMessageNeedNotBeAligned) {
  Bytes room(240, 0x5a);
  EXPECT_EQ(ip_cl_mts_send_with_sz(42, 777, room.data() + 1, 232, 0, &options, 1), 1u);
  Bytes expected(232, 0x5a);
  std::memcpy(expected.data() + 20, &platform().uuid, 4);
  EXPECT_EQ(sent_bytes(), expected);
}

struct Status {
  int32_t of_mts;
  uint32_t result;
};
class StatusTest : public TransportTest, public testing::WithParamInterface<Status> {};

TEST_P(StatusTest, OnlyANegativeOneIsAFailure) {
  dbg_ip_api_misc = 1;
  platform().scripts.answer("mts_send", static_cast<uintptr_t>(static_cast<intptr_t>(GetParam().of_mts)));
  EXPECT_EQ(send(42), GetParam().result);
  EXPECT_EQ(send_sized(42, 240), GetParam().result);
  EXPECT_STREQ(dbg_str, "") << "whoever called knows what it means";
}

INSTANTIATE_TEST_SUITE_P(OfSends, StatusTest, testing::Values(Status{0, 1}, Status{1, 1}, Status{-1, 0}, Status{-9, 0}),
                         [](const auto &row) { return "Row" + std::to_string(row.index); });

TEST_F(TransportTest, PrioritiesUpTo32768PassAndGoNowhere) {
  for (const int32_t prio : {0, 1, 32767, 32768, -5, std::numeric_limits<int32_t>::min()}) {
    platform().log.clear();
    EXPECT_EQ(send(42, prio), 1u) << prio;
    EXPECT_EQ(send_sized(42, 240, prio), 1u) << prio;
    EXPECT_EQ(only(calls(), {"mts_send"}),
              (Calls{"mts_send(42, 4261412864, 777, 4660, 232, 0)", "mts_send(42, 4261412864, 777, 4660, 240, 0)"}));
  }
}

TEST_F(TransportTest, HigherPrioritiesAreRefused) {
  show_debug_lines();
  dbg_ip_api_misc = dbg_cl_mts_send = 1;
  EXPECT_EQ(send(42, 32769), 0u);
  EXPECT_EQ(send_sized(42, 240, std::numeric_limits<int32_t>::max()), 0u);
  EXPECT_EQ(debug_lines(),
            (Calls{"ip_cl_mts_send: bad prio 32769 for message " + shown(&msg) + "\n",
                   "ip_cl_mts_send_with_sz: bad prio 2147483647 for message " + shown(long_message.data()) + "\n"}));
  EXPECT_EQ(sent_count(), 0u);
  EXPECT_EQ(msg.uuid, 0x5a5a5a5au);
}

TEST_F(TransportTest, ABadPriorityIsRefusedBeforeABadQueue) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(send(no_queue, 32769), 0u);
  EXPECT_EQ(debug_lines(), Calls{"ip_cl_mts_send: bad prio 32769 for message " + shown(&msg) + "\n"});
}

TEST_F(TransportTest, WithoutAQueueNothingIsSent) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(send(no_queue), 0u);
  EXPECT_EQ(send_sized(no_queue, 240), 0u);
  EXPECT_EQ(debug_lines(),
            (Calls{"ip_cl_mts_send: bad queue or message 0xffffffff " + shown(&msg) + "\n",
                   "ip_cl_mts_send_with_sz: bad queue or message 0xffffffff " + shown(long_message.data()) + "\n"}));
  EXPECT_EQ(platform().log.count("sysmgr_uuid_get"), 0u);
  EXPECT_EQ(sent_count(), 0u);
}

TEST_F(TransportTest, WithoutAMessageNothingIsSent) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_cl_mts_send(42, 777, nullptr, 0, &options, 1), 0u);
  EXPECT_EQ(ip_cl_mts_send_with_sz(42, 777, nullptr, 240, 0, &options, 1), 0u);
  EXPECT_EQ(debug_lines(), (Calls{"ip_cl_mts_send: bad queue or message 0x2a 0x0\n",
                                  "ip_cl_mts_send_with_sz: bad queue or message 0x2a 0x0\n"}));
  EXPECT_EQ(sent_count(), 0u);
}

TEST_F(TransportTest, EverySendIsTracedWithTheUsualLength) {
  show_debug_lines();
  dbg_cl_mts_send = 1;
  EXPECT_EQ(send(42), 1u);
  EXPECT_EQ(send_sized(42, 240), 1u);
  EXPECT_EQ(send(no_queue), 0u);
  EXPECT_EQ(debug_lines(), (Calls{"ip_cl_mts_send (0x2a " + shown(&msg) + ") len 232\n",
                                  "ip_cl_mts_send_with_sz (0x2a " + shown(long_message.data()) + ") len 232\n",
                                  "ip_cl_mts_send (0xffffffff " + shown(&msg) + ") len 232\n"}));
}

TEST_F(TransportTest, NothingIsSaidWithoutAFlag) {
  dbg_cl_mts_open = dbg_get_message_queue = dbg_msg_set_notify = 1;
  EXPECT_EQ(send(42), 1u);
  EXPECT_EQ(send(42, 32769), 0u);
  EXPECT_EQ(send(no_queue), 0u);
  EXPECT_STREQ(dbg_str, "");
  EXPECT_EQ(platform().log.count("sdwrap_chk_int"), 0u);
}

TEST_F(TransportTest, TheShortcutSendsFromTheControlQueueToTheIpProcess) {
  ip_client.ctrl_q = 42;
  ip_client.data_q = 43;
  EXPECT_EQ(ip_mts_send(&msg), 1u);
  EXPECT_EQ(calls(), (Calls{"sysmgr_uuid_get()", send_call(42)}));
  std::array<uint32_t, 17> fresh{1};
  EXPECT_EQ(sent().options, fresh);
  platform().scripts.fail("mts_send");
  EXPECT_EQ(ip_mts_send(&msg), 0u);
}

TEST_F(TransportTest, TheShortcutNeedsAQueueButNoAttachment) {
  EXPECT_EQ(ip_mts_send(&msg), 0u);
  EXPECT_EQ(ip_mts_send(nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

// ------------------------------------------------------------ packets

TEST_F(TransportTest, APacketIsHandedOnTwice) {
  mbuf *packet = fake_platform::packet_chain({{1, 2}, {3}});
  const auto word = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(packet));
  std::memcpy(reinterpret_cast<uint8_t *>(&msg) + 32, &word, 4);
  platform().log.name(packet, "packet");
  ip_change_msg_owner(&msg, -7);
  EXPECT_EQ(calls(), (Calls{"m_set_owner(packet, -7)", "m_set_owner(packet, -7)"}));
  EXPECT_EQ(packet->owner, -7);
}

TEST_F(TransportTest, AMessageWithoutAPacketHandsNothingOn) {
  std::memset(reinterpret_cast<uint8_t *>(&msg) + 32, 0, 4);
  ip_change_msg_owner(&msg, 7);
  ip_change_msg_owner(nullptr, 7);
  EXPECT_EQ(calls(), Calls{});
}

}  // namespace
}  // namespace unit
