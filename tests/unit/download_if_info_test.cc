// SPDX-License-Identifier: Apache-2.0
// The request for interface information: every byte of it, the calls it takes, and what happens when one of them fails.
#include <unistd.h>

#include <cstring>

#include "fake_platform/console.h"
#include "unit/library_test.h"

namespace unit {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t queue = 41;
constexpr uint32_t cookie = 0xc00c1e01;
constexpr uint32_t mode = 0x80000002;
constexpr int32_t sap = 2050;

void put(Bytes &bytes, size_t offset, uint32_t word) {
  std::memcpy(&bytes[offset], &word, sizeof word);
}

class DownloadIfInfo : public LibraryTest {
 protected:
  DownloadIfInfo() { platform().queues[queue] = sap; }
  ~DownloadIfInfo() override { EXPECT_TRUE(platform().allocations.empty()) << "the message is left"; }

  // What it looks like on the way.
  static Bytes expected_message() {
    const auto pid = static_cast<uint32_t>(getpid());
    Bytes bytes(232, 0);
    bytes[0] = 5;
    bytes[2] = 19;
    put(bytes, 4, pid);
    put(bytes, 8, pid + 1000);
    put(bytes, 12, 0x01020304);
    put(bytes, 16, 0x05060708);
    put(bytes, 20, platform().uuid);
    put(bytes, 32, cookie);
    put(bytes, 36, 0xfe000000);
    put(bytes, 40, sap);
    put(bytes, 44, mode);
    return bytes;
  }
};

TEST_F(DownloadIfInfo, SendsItsArgumentsAndWhereToAnswer) {
  attach();
  EXPECT_EQ(ip_download_if_info(queue, cookie, mode), 1u);
  ASSERT_EQ(platform().sent.size(), 1u);
  const Bytes expected = expected_message();
  const fake_platform::SentMessage &sent = platform().sent[0];
  ASSERT_EQ(sent.payload.size(), expected.size());
  for (size_t i = 0; i < expected.size(); i++) EXPECT_EQ(sent.payload[i], expected[i]) << "offset " << i;
}

TEST_F(DownloadIfInfo, GoesFromTheQueueToTheControlSapWithFreshOptions) {
  attach();
  ip_download_if_info(queue, cookie, mode);
  ASSERT_EQ(platform().sent.size(), 1u);
  const fake_platform::SentMessage &sent = platform().sent[0];
  EXPECT_EQ(sent.queue, queue);
  EXPECT_EQ(sent.node, 0xfe000000u);
  EXPECT_EQ(sent.sap, 263u);
  EXPECT_EQ(sent.opcode, 0x14c01u);
  ASSERT_TRUE(sent.with_options);
  std::array<uint32_t, 17> options = {1};
  EXPECT_EQ(sent.options, options);
}

TEST_F(DownloadIfInfo, TakesMemoryFillsItSendsItAndGivesItBack) {
  attach();
  ip_download_if_info(queue, cookie, mode);
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(calls(), (Calls{"mtrack_alloc(267, 1, 232)", "ksink_get_epid(" + pid + ")", "trel_sys_mclock_get()",
                            "mts_sap_get(41)", "sysmgr_uuid_get()", "mts_send(41, 4261412864, 263, 84993, 232, 0)",
                            "mtrack_free(block)"}));
}

TEST_F(DownloadIfInfo, UnattachedIsReportedAndNothingIsSent) {
  EXPECT_EQ(ip_download_if_info(queue, cookie, mode), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "IP API not initialised while downloading if info")});
}

TEST_F(DownloadIfInfo, WithoutMemoryWarnsOnTheConsoleAndSendsNothing) {
  attach();
  platform().scripts.fail("mtrack_alloc");
  fake_platform::ConsoleCapture console;
  EXPECT_EQ(ip_download_if_info(queue, cookie, mode), 0u);
  const std::string text = console.text();
  EXPECT_TRUE(text.starts_with("Warning! Malloc Failure in routing/ip/ip_register_if_info.cc[")) << text;
  EXPECT_TRUE(text.ends_with("] for size 232\n")) << text;
  EXPECT_EQ(calls(), Calls{"mtrack_alloc(267, 1, 232)"});
}

TEST_F(DownloadIfInfo, WithoutMemoryTheDebugLineIsTheOneOfEveryRequest) {
  attach();
  dbg_ip_api_misc = 1;
  platform().scripts.fail("mtrack_alloc");
  platform().scripts.answer("sdwrap_chk_int", 1);
  ip_download_if_info(queue, cookie, mode);
  EXPECT_EQ(platform().debug_lines, Calls{"ip_register: no memory\n"});
}

TEST_F(DownloadIfInfo, ThatIsNotSentIsGivenBackAllTheSame) {
  attach();
  platform().scripts.fail("mts_send");
  EXPECT_EQ(ip_download_if_info(queue, cookie, mode), 0u);
  EXPECT_EQ(calls().back(), "mtrack_free(block)");
  EXPECT_TRUE(platform().sent.empty());
}

TEST_F(DownloadIfInfo, WithoutAQueueIsRefusedByTheTransport) {
  attach();
  EXPECT_EQ(ip_download_if_info(0xffffffff, cookie, mode), 0u);
  EXPECT_EQ(platform().log.count("mts_send"), 0u);
  EXPECT_EQ(calls().back(), "mtrack_free(block)");
}

TEST_F(DownloadIfInfo, MayBeAnsweredToNoSapAtAll) {
  attach();
  platform().queues.clear();
  EXPECT_EQ(ip_download_if_info(queue, cookie, mode), 1u);
  ASSERT_EQ(platform().sent.size(), 1u);
  uint32_t where = 1;
  std::memcpy(&where, &platform().sent[0].payload[40], sizeof where);
  EXPECT_EQ(where, 0u) << "what MTS answered is what is sent";
}

}  // namespace
}  // namespace unit
