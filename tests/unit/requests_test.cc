// SPDX-License-Identifier: Apache-2.0
// Requests that nobody waits for: groups, channels, multicast, unnumbered interfaces, the link-local report.
#include <functional>

#include "unit/messages.h"

namespace unit {
namespace {

constexpr uint32_t control_q = 30;
constexpr uint32_t group = 0xe8010101;
constexpr uint32_t source = 0x0a000001;

struct Request {
  const char *name;
  std::function<uint32_t()> ask;
  Image expected;
};

Image membership(uint16_t minor, uint32_t group_addr, uint32_t source_addr, uint32_t iod) {
  return Image(message(minor).word(32, group_addr).word(36, source_addr).word(40, iod));
}

std::vector<Request> requests() {
  return {
      {"EnableMulticast", [] { return ip_enable_multicast(5); }, membership(9, 0, 0, 5)},
      {"DisableMulticast", [] { return ip_disable_multicast(5); }, membership(10, 0, 0, 5)},
      {"JoinGroup", [] { return ip_join_group(0xe0000001, 5); }, membership(9, 0xe0000001, 0, 5)},
      {"JoinLastGroup", [] { return ip_join_group(0xefffffff, ~0u); }, membership(9, 0xefffffff, 0, ~0u)},
      {"LeaveGroup", [] { return ip_leave_group(0xe0000000, 5); }, membership(10, 0xe0000000, 0, 5)},
      {"JoinGroupByIndex", [] { return ip_join_group_if(group, 0x1a000000); }, membership(9, group, 0, 5)},
      {"LeaveGroupByIndex", [] { return ip_leave_group_if(group, 0x1a000000); }, membership(10, group, 0, 5)},
      {"JoinChannel", [] { return ip_join_channel(group, source, 5); }, membership(9, group, source, 5)},
      {"JoinChannelOfAnySource", [] { return ip_join_channel(group, 0, 5); }, membership(9, group, 0, 5)},
      {"LeaveChannel", [] { return ip_leave_channel(group, source, 5); }, membership(10, group, source, 5)},
      {"ReportLinkLocal", [] { return ip_report_link_local(0x0a0b0c0d, 0x01020304); },
       Image(message(24).word(32, 0x01020304).word(36, 0x0a0b0c0d))},
      {"ReportLinkLocalZero", [] { return ip_report_link_local(1, 0); }, Image(message(24).word(36, 1))},
      {"SetUnnumbered", [] { return ip_set_unnumbered(5, "loopback0"); },
       Image(message(27).word(32, 5).text(36, "loopback0"))},
      {"SetUnnumberedByALongName", [] { return ip_set_unnumbered(5, "0123456789012345678901234567890123456789abcde"); },
       Image(message(27).word(32, 5).text(36, "0123456789012345678901234567890123456789"))},
      {"UnsetUnnumbered", [] { return ip_unset_unnumbered(5); }, Image(message(28).word(32, 5))},
  };
}

class RequestsTest : public MessagingTest {
 protected:
  RequestsTest() {
    ip_client.ctrl_q = control_q;
    ip_client.data_q = 31;
    ip_register_done = 1;
    platform().interfaces[5].ifindex = 0x1a000000;
  }
};

TEST_F(RequestsTest, EachSaysWhatIsAskedAndNothingElse) {
  for (const Request &request : requests()) {
    platform().sent.clear();
    platform().log.clear();
    EXPECT_EQ(request.ask(), 1u) << request.name;
    EXPECT_EQ(sent_bytes(), request.expected.bytes()) << request.name;
    EXPECT_EQ(without(calls(), {"im_get_iod_frm_ifindex"}),
              (Calls{epid_call(), "trel_sys_mclock_get()", "sysmgr_uuid_get()", send_call(control_q)}))
        << request.name;
    std::array<uint32_t, 17> fresh{1};
    EXPECT_EQ(sent().options, fresh) << request.name;
  }
}

TEST_F(RequestsTest, EachFailsWhenItIsNotSent) {
  platform().scripts.fail("mts_send");
  for (const Request &request : requests()) EXPECT_EQ(request.ask(), 0u) << request.name;
  EXPECT_EQ(platform().log.count("mts_send"), requests().size());
}

TEST_F(RequestsTest, EachIsRefusedWithoutAControlQueue) {
  ip_client.ctrl_q = no_queue;
  for (const Request &request : requests()) EXPECT_EQ(request.ask(), 0u) << request.name;
  EXPECT_EQ(platform().log.count("mts_send"), 0u);
}

TEST_F(RequestsTest, NoneAsksWhetherTheProcessIsAttachedOrTheSupervisorActive) {
  platform().supervisor_state = 2;
  for (const Request &request : requests()) EXPECT_EQ(request.ask(), 1u) << request.name;
  EXPECT_EQ(ip_api_attached, 0u);
}

TEST_F(RequestsTest, BadArgumentsAreRefusedWithoutACall) {
  dbg_ip_api_misc = 1;
  const std::vector<std::pair<const char *, std::function<uint32_t()>>> refused{
      {"enable, no interface", [] { return ip_enable_multicast(0); }},
      {"disable, no interface", [] { return ip_disable_multicast(0); }},
      {"join, no interface", [] { return ip_join_group(0xef000001, 0); }},
      {"join, class E", [] { return ip_join_group(0xf0000001, 5); }},
      {"join, class C", [] { return ip_join_group(0xdfffffff, 5); }},
      {"join, no group", [] { return ip_join_group(0, 5); }},
      {"leave, no interface", [] { return ip_leave_group(0xef000001, 0); }},
      {"leave, class E", [] { return ip_leave_group(0xf0000001, 5); }},
      {"join by index, no interface", [] { return ip_join_group_if(group, 0); }},
      {"join by index, no group", [] { return ip_join_group_if(0x0a000001, 0x1a000000); }},
      {"leave by index, no interface", [] { return ip_leave_group_if(group, 0); }},
      {"leave by index, no group", [] { return ip_leave_group_if(0x0a000001, 0x1a000000); }},
      {"join channel, no interface", [] { return ip_join_channel(group, source, 0); }},
      {"join channel, no group", [] { return ip_join_channel(source, source, 5); }},
      {"join channel, a group as source", [] { return ip_join_channel(group, 0xe0000001, 5); }},
      {"leave channel, no interface", [] { return ip_leave_channel(group, source, 0); }},
      {"leave channel, no group", [] { return ip_leave_channel(source, source, 5); }},
      {"leave channel, a group as source", [] { return ip_leave_channel(group, 0xefffffff, 5); }},
      {"link-local, no reference", [] { return ip_report_link_local(0, 1); }},
      {"unnumbered, no interface", [] { return ip_set_unnumbered(0, "loopback0"); }},
      {"unnumbered, no name", [] { return ip_set_unnumbered(5, nullptr); }},
      {"unnumbered, empty name", [] { return ip_set_unnumbered(5, ""); }},
      {"numbered, no interface", [] { return ip_unset_unnumbered(0); }},
  };
  ip_register_done = 0;  // the arguments come first
  for (const auto &[name, ask] : refused) EXPECT_EQ(ask(), 0u) << name;
  EXPECT_EQ(calls(), Calls{});
  EXPECT_STREQ(dbg_str, "");
}

// ------------------------------------------------------------ by interface index

TEST_F(RequestsTest, AnIndexIsLookedUpAfterTheHeaderIsFilled) {
  EXPECT_EQ(ip_join_group_if(group, 0x1a000000), 1u);
  const Calls all = calls();
  ASSERT_EQ(all.size(), 5u);
  EXPECT_EQ(function_of(all[2]), "im_get_iod_frm_ifindex");
}

TEST_F(RequestsTest, AnIndexThatNobodyHasIsNotAskedFor) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_join_group_if(group, 0x1b000000), 0u);
  EXPECT_EQ(ip_leave_group_if(group, 0x1c000000), 0u);
  platform().scripts.fail("im_get_iod_frm_ifindex");
  EXPECT_EQ(ip_join_group_if(group, 0x1a000000), 0u);
  EXPECT_EQ(debug_lines(),
            (Calls{"ip_join_group_if: bad if_index 0x1b000000\n", "ip_leave_group_if: bad if_index 0x1c000000\n",
                   "ip_join_group_if: bad if_index 0x1a000000\n"}));
  EXPECT_EQ(sent_count(), 0u);
}

TEST_F(RequestsTest, TheDebugLineOfAnIndexNeedsItsFlag) {
  EXPECT_EQ(ip_join_group_if(group, 0x1b000000), 0u);
  EXPECT_STREQ(dbg_str, "");
}

// ------------------------------------------------------------ the registration that a join brings along

class ImplicitRegistration : public RequestsTest {
 protected:
  ImplicitRegistration() { ip_register_done = 0; }

  static Bytes reply(uint32_t result) { return Image(24).half(0, 5).half(2, 17).word(20, result).bytes(); }
};

TEST_F(ImplicitRegistration, StartsTheLibraryAndRegistersWithoutNameAndQueues) {
  arrive(control_opcode, reply(1));
  ip_join_group_if(group, 0x1a000000);
  EXPECT_EQ(ip_api_refcnt, 1u);
  EXPECT_EQ(ip_register_done, 1);
  EXPECT_EQ(sent_bytes(),
            message(1).word(28, 1).word(104, 0xffffffff).word(108, own_pid()).word(112, 1000).word(132, 3).bytes());
}

TEST_F(ImplicitRegistration, TakesTheControlQueueSoThatTheJoinItselfIsRefused) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  arrive(control_opcode, reply(1));
  EXPECT_EQ(ip_join_group_if(group, 0x1a000000), 0u);
  EXPECT_EQ(ip_client.ctrl_q, no_queue);
  EXPECT_EQ(sent_count(), 1u) << "the registration";
  ASSERT_FALSE(debug_lines().empty());
  EXPECT_TRUE(debug_lines().back().starts_with("ip_cl_mts_send: bad queue or message 0xffffffff 0x"));
  ip_client.ctrl_q = control_q;
  EXPECT_EQ(ip_join_group_if(group, 0x1a000000), 1u) << "with a control queue";
}

TEST_F(ImplicitRegistration, TakesAReferenceEachTime) {
  for (uint32_t time = 1; time <= 3; time++) {
    ip_register_done = 0;
    arrive(control_opcode, reply(1));
    ip_join_group_if(group, 0x1a000000);
    EXPECT_EQ(ip_api_refcnt, time);
  }
}

TEST_F(ImplicitRegistration, EndsTheJoinWhenTheLibraryDoesNotStart) {
  platform().scripts.fail("sm_open");
  EXPECT_EQ(ip_join_group_if(group, 0x1a000000), 0u);
  EXPECT_EQ(platform().log.count("mtrack_alloc"), 0u);
  EXPECT_EQ(platform().log.count("im_get_iod_frm_ifindex"), 0u);
}

TEST_F(ImplicitRegistration, EndsTheJoinWhenItIsRefused) {
  arrive(control_opcode, reply(0));
  EXPECT_EQ(ip_join_group_if(group, 0x1a000000), 0u);
  EXPECT_EQ(platform().log.count("im_get_iod_frm_ifindex"), 0u);
  EXPECT_EQ(sent_count(), 1u);
}

TEST_F(ImplicitRegistration, IsNotPartOfALeave) {
  EXPECT_EQ(ip_leave_group_if(group, 0x1a000000), 1u);
  EXPECT_EQ(ip_register_done, 0);
  EXPECT_EQ(ip_api_refcnt, 0u);
}

}  // namespace
}  // namespace unit
