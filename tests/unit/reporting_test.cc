// SPDX-License-Identifier: Apache-2.0
// How a catalogue message is emitted: facility, level, rate limiter, parameter block, line, traceback. And the error
// text. The messages are provoked through queries that report them.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "unit/library_data.h"
#include "unit/library_test.h"

namespace unit {
namespace {

class ReportingTest : public LibraryTest {
 protected:
  // Each reports one message.
  static void provoke_ip_failure() {
    platform().scripts.fail_call("smm_api_init", 1);
    ip_api_init();
  }
  static void provoke_internal_error() { ip_api_close(); }
  static void provoke_invalid_notify() { ip_get_api_context(0); }

  static size_t lines_printed() { return platform().syslog.size(); }
};

constexpr char internal_error_text[] = "IP API not initialised while closing";

TEST_F(ReportingTest, WithoutAFacilityTheRateLimiterStillSeesTheMessage) {
  provoke_internal_error();
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", internal_error_text)});
  EXPECT_EQ(lines_printed(), 0u);
}

TEST_F(ReportingTest, AMessageIsLimitedThenPrintedThenTraced) {
  platform().set_facility("ospf", 3);
  provoke_internal_error();
  EXPECT_EQ(
      calls(),
      (Calls{limited("IP_INTERNAL_ERROR", internal_error_text),
             R"(trel_obun_syslog(params, 3, "<<%OSPF-3-IP_INTERNAL_ERROR>> IP API not initialised while closing"))",
             R"(syslog_traceback(params, "OSPF", 3, "IP_INTERNAL_ERROR"))"}));
  ASSERT_EQ(lines_printed(), 1u);
  EXPECT_EQ(platform().syslog[0].format, syslog_msg_IP_IP_INTERNAL_ERROR.format);
}

TEST_F(ReportingTest, TheDoubledWordingOfAFailureIsKept) {
  platform().set_facility("rip-7x", 7);
  provoke_ip_failure();
  ASSERT_EQ(lines_printed(), 1u);
  EXPECT_EQ(platform().syslog[0].text, "<<%RIP-7X-3-IP_FAILURE>> Failed to Failed call smm_api_init()");
  EXPECT_EQ(platform().syslog[0].severity, 3u);
  EXPECT_EQ(platform().log.count("syslog_traceback"), 0u);
}

TEST_F(ReportingTest, AMessageWithoutConversionsShowsItsOwnWords) {
  attach();
  platform().set_facility("ospf", 5);
  provoke_invalid_notify();
  EXPECT_EQ(
      calls(),
      (Calls{limited("INVALID_NOTIFY", "Failed to get IP API VRF 0"),
             R"(trel_obun_syslog(params, 5, "<<%OSPF-5-INVALID_NOTIFY>> Received invalid notification message"))"}));
}

struct Level {
  uint8_t facility_level;
  bool failure_printed;  // severity 3
  bool notify_printed;   // severity 5
};

class FacilityLevel : public ReportingTest, public testing::WithParamInterface<Level> {};

TEST_P(FacilityLevel, GatesByTheMessagesOwnLevel) {
  platform().set_facility("ip", GetParam().facility_level);
  provoke_ip_failure();
  EXPECT_EQ(lines_printed(), GetParam().failure_printed ? 1u : 0u);
  platform().syslog.clear();
  provoke_invalid_notify();
  EXPECT_EQ(lines_printed(), GetParam().notify_printed ? 1u : 0u);
}

TEST_P(FacilityLevel, BelowItTheRateLimiterIsNotEvenAsked) {
  platform().set_facility("ip", GetParam().facility_level);
  attach();
  provoke_invalid_notify();
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), GetParam().notify_printed ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Levels, FacilityLevel,
                         testing::Values(Level{0, false, false}, Level{2, false, false}, Level{3, true, false},
                                         Level{4, true, false}, Level{5, true, true}, Level{255, true, true}),
                         [](const auto &of) { return "Level" + std::to_string(of.param.facility_level); });

class RefusedMessage : public ReportingTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(RefusedMessage, IsNotPrinted) {
  platform().set_facility("ip", 7);
  platform().scripts.answer("syslog_msg_rate_limit", GetParam());
  provoke_internal_error();
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", internal_error_text)});
  for (uint8_t byte : syslog_vmsg_params) ASSERT_EQ(byte, 0xcd) << "the parameter block is not touched";
}

INSTANTIATE_TEST_SUITE_P(Answers, RefusedMessage, testing::Values(0, 2, 0xffffffff, 0x101));

TEST_F(ReportingTest, TheParameterBlockHoldsWhatThePrinterReads) {
  platform().set_facility("ip", 7);
  provoke_internal_error();
  ASSERT_EQ(lines_printed(), 1u);
  uint8_t expected[1024] = {};
  const uint32_t one = 1;
  std::memcpy(expected + 0, &one, 4);
  std::memcpy(expected + 24, syslog_preamble, 40);
  std::memcpy(expected + 64, &one, 4);
  expected[72] = expected[73] = ' ';
  for (size_t i = 0; i < sizeof expected; i++) EXPECT_EQ(platform().syslog[0].parameters[i], expected[i]) << i;
}

TEST_F(ReportingTest, TheParameterBlockIsClearedForEachMessage) {
  platform().set_facility("ip", 7);
  std::memset(syslog_vmsg_params, 0xff, sizeof syslog_vmsg_params);
  provoke_internal_error();
  ASSERT_EQ(lines_printed(), 1u);
  for (size_t i = 74; i < 1024; i++) ASSERT_EQ(platform().syslog[0].parameters[i], 0) << i;
  EXPECT_EQ(platform().syslog[0].parameters[4], 0);
  EXPECT_EQ(platform().syslog[0].parameters[68], 0);
}

TEST_F(ReportingTest, TheFacilityOfTheMomentCounts) {
  platform().set_facility("first", 7);
  provoke_internal_error();
  platform().set_facility("B", 7);
  provoke_internal_error();
  ASSERT_EQ(lines_printed(), 2u);
  EXPECT_TRUE(platform().syslog[0].text.starts_with("<<%FIRST-3-"));
  EXPECT_TRUE(platform().syslog[1].text.starts_with("<<%B-3-")) << "nothing of the longer name is left";
}

TEST_F(ReportingTest, ArgumentsAreFormattedIntoAtMost120Bytes) {
  attach();
  provoke_invalid_notify();
  ASSERT_EQ(platform().formatted.size(), 1u);
  EXPECT_EQ(platform().formatted[0].limit, 120u);
  EXPECT_EQ(platform().formatted[0].text, "Failed to get IP API VRF 0");
}

TEST_F(ReportingTest, BothReadersOfTheErrorTextGiveItsAddress) {
  EXPECT_EQ(ip_api_get_error(), ip_api_err_log);
  EXPECT_EQ(ip_get_api_error_info(), ip_api_err_log);
  EXPECT_EQ(sizeof ip_api_err_log, 256u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(ReportingTest, TheErrorTextIsEmptyAfterASuccessThatUsesIt) {
  database.context(1, "default");
  attach();
  EXPECT_EQ(ip_get_api_context_name(9), nullptr);
  EXPECT_STRNE(ip_api_get_error(), "");
  EXPECT_STREQ(ip_get_api_context_name(1), "default");
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_F(ReportingTest, QueriesThatDoNotUseTheErrorTextLeaveItAlone) {
  database.context(1, "default");
  database.interface(5);
  attach();
  ip_get_api_context_name(9);
  const std::string text = ip_api_get_error();
  ip_get_api_context(1);
  ip_get_api_context(9);
  ip_get_api_context_by_name("none");
  ip_get_api_context_id("none");
  ip_get_local_mask_len(1, 5);
  ip_get_secondary_count(5);
  uint32_t out = 0;
  ip_get_best_intf_vip(9, 1, 5, &out);
  EXPECT_EQ(ip_api_get_error(), text);
}

TEST_F(ReportingTest, TheErrorTextEndsAfter255Characters) {
  attach();
  const std::string name(300, 'x');
  std::memset(ip_api_err_log, 'y', sizeof ip_api_err_log);
  EXPECT_EQ(ip_get_iod_for_local_address(name.c_str(), 1), 0u);
  EXPECT_EQ(ip_api_get_error(), ("Failed to get ctxt_type for context " + name).substr(0, 255));
}

// ------------------------------------------------------------ debug lines

class DebugLineTest : public LibraryTest {
 protected:
  // The one-line report of a failed attach.
  static void provoke() {
    dbg_ip_api_misc = 1;
    platform().scripts.fail("sm_open");
    ip_attach_shm(nullptr);
  }
};

constexpr char debug_text[] = "IP: Couldn't get shared memory\n";

TEST_F(DebugLineTest, IsFormattedBeforeItsLevelIsAsked) {
  provoke();
  EXPECT_EQ(platform().log.count("sdwrap_chk_int"), 1u) << "a refused line asks once";
  EXPECT_EQ(platform().debug_lines, Calls{});
  EXPECT_STREQ(dbg_str, debug_text);
}

TEST_F(DebugLineTest, AsksItsLevelASecondTimeBeforeItPrints) {
  platform().scripts.answer_call("sdwrap_chk_int", 1, 1);
  platform().scripts.answer_call("sdwrap_chk_int", 2, 0);
  provoke();
  EXPECT_EQ(platform().log.count("sdwrap_chk_int"), 2u);
  EXPECT_EQ(platform().debug_lines, Calls{});
}

TEST_F(DebugLineTest, LeavesItsPrefixAloneInItsBuffer) {
  platform().scripts.answer_call("sdwrap_chk_int", 1, 1);
  provoke();
  std::string prefix(200, '\0');
  prefix.replace(0, 2, ") ");
  EXPECT_TRUE(library_data_holds(prefix));
}

TEST_F(DebugLineTest, IsPrintedUnderThePlatformsModuleAndTag) {
  platform().scripts.answer("sdwrap_chk_int", 77);
  provoke();
  EXPECT_EQ(platform().debug_lines, Calls{debug_text});
  EXPECT_EQ(calls().back(), std::string("buginf_func(1, \"fake-module\", \"[77] fake\", 0, \"") + debug_text + "\")");
}

struct InitFlags {
  uint32_t init, misc;
  bool speaks;
};

class InitDump : public LibraryTest, public testing::WithParamInterface<InitFlags> {};

TEST_P(InitDump, NeedsBothOfItsFlags) {
  dbg_api_init = GetParam().init;
  dbg_ip_api_misc = GetParam().misc;
  ip_shm_api_init();
  EXPECT_EQ(platform().log.count("sdwrap_chk_int"), GetParam().speaks ? 2u : 0u) << "one per line";
}

INSTANTIATE_TEST_SUITE_P(Flags, InitDump,
                         testing::Values(InitFlags{0, 0, false}, InitFlags{1, 0, false}, InitFlags{0, 1, false},
                                         InitFlags{1, 1, true}, InitFlags{0x80000000, 2, true}));

TEST_F(DebugLineTest, InitDumpsTheSegmentBetweenOpeningItAndRegisteringMemory) {
  dbg_api_init = dbg_ip_api_misc = 1;
  platform().descriptor.segment_id = 0xab;
  platform().scripts.answer("sdwrap_chk_int", 1);
  ip_shm_api_init();
  char first[80];
  char second[120];
  snprintf(first, sizeof first, "ip_dump_mem_seg (ip_api_init) 0x%x\n",
           static_cast<uint32_t>(reinterpret_cast<uintptr_t>(ip_client.seg_desc)));
  snprintf(second, sizeof second, "    id 0x%x bottom 0x%x base 0x%x top 0x%x size 0x%x\n", 0xab,
           platform().descriptor.bottom, platform().descriptor.base, platform().descriptor.top, 0x3000);
  EXPECT_EQ(platform().debug_lines, (Calls{first, second}));
  const Calls made = calls();
  const auto opened = std::find(made.begin(), made.end(), "im_ext_pub_lib_init(267, 0, 0)");
  ASSERT_LT(opened - made.begin() + 1, static_cast<ptrdiff_t>(made.size()));
  EXPECT_EQ(opened[1], "sdwrap_chk_int(150, 0, 0, 1)");
  EXPECT_EQ(made.end()[-4].substr(0, 11), "buginf_func");
}

TEST_F(DebugLineTest, InitDumpsTheCopyOfTheDescriptorNotTheSegment) {
  dbg_api_init = dbg_ip_api_misc = 1;
  platform().descriptor.base = 0x1000;
  platform().descriptor.end = 0x5000;
  ip_shm_api_init();
  EXPECT_NE(std::string(dbg_str).find("size 0x4000\n"), std::string::npos) << dbg_str;
}

TEST_F(DebugLineTest, TheLineBufferHas500Bytes) {
  EXPECT_EQ(sizeof dbg_str, 500u);
}

}  // namespace
}  // namespace unit
