// SPDX-License-Identifier: Apache-2.0
// Lists of interfaces, and the request for the load-sharing configuration.
#include <numeric>

#include "unit/messages.h"

namespace unit {
namespace {

constexpr uint32_t most = 30150;  // interfaces in one message

class ListRequestsTest : public MessagingTest {
 protected:
  ListRequestsTest() : iods(most + 2) { std::iota(iods.begin(), iods.end(), 0x01020304u); }

  static Image list(uint16_t minor, uint32_t count) {
    Image image = message(minor, 232 + size_t{4} * count);
    image.word(32, count);
    for (uint32_t i = 0; i < count; i++) image.word(36 + size_t{4} * i, 0x01020304 + i);
    return image;
  }

  std::vector<uint32_t> iods;
};

TEST_F(ListRequestsTest, BothListsAreLongerByTheirInterfaces) {
  for (const uint32_t count : {0u, 1u, 3u, 49u, 50u, 1000u, most}) {
    platform().sent.clear();
    EXPECT_EQ(ip_unnumbered_pss_cleanup(42, count, iods.data()), 1u);
    EXPECT_EQ(sent_bytes(), list(32, count).bytes()) << count;
    platform().sent.clear();
    EXPECT_EQ(ip_req_redirect_disable(42, count, iods.data()), 1u);
    EXPECT_EQ(sent_bytes(), list(29, count).bytes()) << count;
  }
}

TEST_F(ListRequestsTest, EveryStepIsTakenInItsOrder) {
  EXPECT_EQ(ip_unnumbered_pss_cleanup(42, 2, iods.data()), 1u);
  EXPECT_EQ(calls(), (Calls{epid_call(), "trel_sys_mclock_get()", "sysmgr_uuid_get()", send_call(42, 240)}));
  std::array<uint32_t, 17> fresh{1};
  EXPECT_EQ(sent().options, fresh);
  platform().log.clear();
  EXPECT_EQ(ip_req_redirect_disable(43, 2, iods.data()), 1u);
  EXPECT_EQ(calls(), (Calls{epid_call(), "trel_sys_mclock_get()", "sysmgr_uuid_get()", send_call(43, 240)}));
}

TEST_F(ListRequestsTest, AListWithoutInterfacesNeedsNoAddress) {
  EXPECT_EQ(ip_unnumbered_pss_cleanup(42, 0, nullptr), 1u);
  EXPECT_EQ(ip_req_redirect_disable(42, 0, nullptr), 1u);
}

TEST_F(ListRequestsTest, ACleanupOfMoreThanAMessageHoldsIsRefused) {
  const std::string report = limited("IP_FAILURE", "message size > max ipc payload, too many ifs to clean");
  for (const uint32_t count : {most + 1, 0x3fffffc6u, 0x40000000u, 0xffffffffu}) {
    platform().log.clear();
    EXPECT_EQ(ip_unnumbered_pss_cleanup(42, count, iods.data()), 0u) << count;
    EXPECT_EQ(calls(), Calls{report}) << count;
  }
}

TEST_F(ListRequestsTest, ALongListOfRedirectsIsLeftToTheTransport) {
  EXPECT_EQ(ip_req_redirect_disable(42, most + 1, iods.data()), 1u);
  EXPECT_EQ(sent_bytes(), list(29, most + 1).bytes());
  platform().scripts.fail("mts_send");
  EXPECT_EQ(ip_req_redirect_disable(42, most + 1, iods.data()), 0u);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
}

TEST_F(ListRequestsTest, RedirectsThatNoMessageCouldHoldFindNoMemory) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  for (const uint32_t count : {0x3fffffc6u, 0x40000000u, 0xffffffffu}) {
    platform().debug_lines.clear();
    EXPECT_EQ(ip_req_redirect_disable(42, count, iods.data()), 0u) << count;
    EXPECT_EQ(debug_lines(), Calls{"ip_register: no memory\n"}) << count;
  }
  EXPECT_EQ(sent_count(), 0u);
}

TEST_F(ListRequestsTest, ItsDebugLineNeedsItsFlag) {
  EXPECT_EQ(ip_req_redirect_disable(42, 0x40000000, iods.data()), 0u);
  EXPECT_STREQ(dbg_str, "");
}

TEST_F(ListRequestsTest, TheLoadShareRequestIsAHeader) {
  EXPECT_EQ(ip_request_load_share_cfg(42), 1u);
  EXPECT_EQ(sent_bytes(), message(23).bytes());
  EXPECT_EQ(calls(), (Calls{epid_call(), "trel_sys_mclock_get()", "sysmgr_uuid_get()", send_call(42)}));
  std::array<uint32_t, 17> fresh{1};
  EXPECT_EQ(sent().options, fresh);
}

TEST_F(ListRequestsTest, AllFailWhenTheyAreNotSent) {
  platform().scripts.fail("mts_send");
  EXPECT_EQ(ip_unnumbered_pss_cleanup(42, 2, iods.data()), 0u);
  EXPECT_EQ(ip_req_redirect_disable(42, 2, iods.data()), 0u);
  EXPECT_EQ(ip_request_load_share_cfg(42), 0u);
  EXPECT_EQ(platform().log.count("mts_send"), 3u);
}

TEST_F(ListRequestsTest, AllAreRefusedWithoutAQueue) {
  ip_client.ctrl_q = 30;  // it is the caller's queue that counts
  EXPECT_EQ(ip_unnumbered_pss_cleanup(no_queue, 2, iods.data()), 0u);
  EXPECT_EQ(ip_req_redirect_disable(no_queue, 2, iods.data()), 0u);
  EXPECT_EQ(ip_request_load_share_cfg(no_queue), 0u);
  EXPECT_EQ(platform().log.count("mts_send"), 0u);
}

}  // namespace
}  // namespace unit
