// SPDX-License-Identifier: Apache-2.0
// A notification's message in TLV form: what the IP process calls before it sends one.
#include <algorithm>
#include <cstring>

#include "fake_platform/console.h"
#include "mtrack.h"
#include "unit/library_test.h"

namespace unit {
namespace {

using Bytes = std::vector<uint8_t>;

class IfInfoConversion : public LibraryTest {
 protected:
  IfInfoConversion() {
    void *block = mtrack_alloc(component, IP_MEM_ip_if_info_msg, sizeof(ip_if_info_notification));
    notification = new (block)
        ip_if_info_notification{.id = 0x80000005, .payload = this, .payload_len = 0xaaaa, .tlv_payload = 0xbbbb};
    platform().log.name(&ip_if_info_msg_tbl, "table");
    platform().log.name(&message, "message");
    platform().log.clear();
    platform().scripts.answer("tlvu_table_size", 24);
    platform().tlv.encoded.resize(24);
    for (uint8_t i = 0; i < 24; i++) platform().tlv.encoded[i] = static_cast<uint8_t>(i + 1);
  }
  ~IfInfoConversion() override {
    EXPECT_TRUE(platform().tlv.buffers.empty()) << "a buffer of the TLV library is left";
    EXPECT_FALSE(platform().tlv.freed_unknown);
    if (!notification_is_kept()) return;
    if (platform().allocations.contains(notification->payload)) mtrack_free(notification->payload);
    mtrack_free(notification);
  }

  [[nodiscard]] bool notification_is_kept() const { return platform().allocations.contains(notification); }
  [[nodiscard]] Bytes payload() const {
    const auto *bytes = static_cast<const uint8_t *>(notification->payload);
    return {bytes, bytes + platform().allocations.at(notification->payload).size};
  }

  ip_if_info_notification *notification = nullptr;
  ip_if_info_msg message = {.count = 0};
};

TEST_F(IfInfoConversion, AsksTheSizeTakesMemoryEncodesAndFreesTheEncoding) {
  EXPECT_EQ(ip_convert_if_info_notification_to_tlv(notification, &message), 0u);
  EXPECT_EQ(calls(), (Calls{"tlvu_table_size(table, message)", "mtrack_alloc(267, 1, 24)",
                            "tlvu_table_convert_struct_to_tlv(table, message, 0, 0, 0)", "tlvu_free(encoded, 0)"}));
}

TEST_F(IfInfoConversion, LeavesTheEncodingInTheNotification) {
  ip_convert_if_info_notification_to_tlv(notification, &message);
  ASSERT_TRUE(notification_is_kept());
  EXPECT_EQ(payload(), platform().tlv.encoded);
  EXPECT_EQ(notification->payload_len, 24u);
  EXPECT_EQ(notification->tlv_payload, 1u);
  EXPECT_EQ(notification->id, 0x80000005u);
}

TEST_F(IfInfoConversion, WithoutMemoryWarnsReportsAndReleasesTheNotificationOnce) {
  platform().scripts.fail("mtrack_alloc");
  EXPECT_EQ(ip_convert_if_info_notification_to_tlv(notification, &message), 0u);
  EXPECT_EQ(
      calls(),
      (Calls{"tlvu_table_size(table, message)", "mtrack_alloc(267, 1, 24)",
             limited("IP_INTERNAL_ERROR", "IF_INFO mode notification: tlv allocation failed for -2147483643 (24)"),
             "mtrack_free(block)"}));
  EXPECT_FALSE(notification_is_kept());
  EXPECT_TRUE(platform().allocations.empty());
}

TEST_F(IfInfoConversion, WithoutMemoryTakesThePayloadAwayBeforeTheRelease) {
  platform().scripts.fail("mtrack_alloc");
  std::vector<ip_if_info_notification> released;
  platform().before_free = [&released](const void *block) {
    released.push_back(*static_cast<const ip_if_info_notification *>(block));
  };
  ip_convert_if_info_notification_to_tlv(notification, &message);
  ASSERT_EQ(released.size(), 1u);
  EXPECT_EQ(released[0].payload, nullptr);
  EXPECT_EQ(released[0].payload_len, 0xaaaau) << "nothing else of it is written";
  EXPECT_EQ(released[0].tlv_payload, 0xbbbbu);
}

TEST_F(IfInfoConversion, WithoutMemoryNamesTheSourceFileAndTheSizeOnTheConsole) {
  platform().scripts.fail("mtrack_alloc");
  fake_platform::ConsoleCapture console;
  ip_convert_if_info_notification_to_tlv(notification, &message);
  const std::string text = console.text();
  EXPECT_TRUE(text.starts_with("Warning! Malloc Failure in routing/ip/ip_util_if_info.cc[")) << text;
  EXPECT_TRUE(text.ends_with("] for size 24\n")) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST_F(IfInfoConversion, AnEncodingThatFailsLeavesAPayloadOfZeros) {
  platform().scripts.answer("tlvu_table_convert_struct_to_tlv", 18);
  EXPECT_EQ(ip_convert_if_info_notification_to_tlv(notification, &message), 0u);
  ASSERT_TRUE(notification_is_kept());
  EXPECT_EQ(payload(), Bytes(24, 0));
  EXPECT_EQ(notification->payload_len, 24u);
  EXPECT_EQ(notification->tlv_payload, 1u);
}

TEST_F(IfInfoConversion, AnEncodingThatFailsIsShownThenReportedWithItsError) {
  platform().scripts.answer("tlvu_table_convert_struct_to_tlv", 18);
  ip_convert_if_info_notification_to_tlv(notification, &message);
  const Calls made = calls();
  ASSERT_EQ(made.size(), 5u);
  EXPECT_EQ(made[3], "tlvu_error_print(\"ip_if_info_msg_to_tlv: ERR 0x12\n\")");
  EXPECT_EQ(made[4], limited("IP_TLV_TO_STRUCT", "TLV to Struct Conversion failed (18)"));
}

TEST_F(IfInfoConversion, AnEncodingWithoutABufferIsReportedAsError0) {
  platform().tlv.encoded.clear();
  EXPECT_EQ(ip_convert_if_info_notification_to_tlv(notification, &message), 0u);
  EXPECT_EQ(calls().back(), limited("IP_TLV_TO_STRUCT", "TLV to Struct Conversion failed (0)"));
  ASSERT_TRUE(notification_is_kept());
  EXPECT_EQ(payload(), Bytes(24, 0));
}

TEST_F(IfInfoConversion, TheErrorStandsAsANumberInTheOperatorsLine) {
  platform().set_facility("ospf", 5);
  platform().scripts.answer("tlvu_table_convert_struct_to_tlv", 18);
  ip_convert_if_info_notification_to_tlv(notification, &message);
  ASSERT_EQ(platform().syslog.size(), 1u);
  EXPECT_EQ(platform().syslog[0].text, "<<%OSPF-3-IP_TLV_TO_STRUCT>> TLV to Struct Conversion failed (18)");
  EXPECT_EQ(platform().syslog[0].severity, 3u);
  EXPECT_EQ(platform().syslog[0].format, syslog_msg_IP_IP_TLV_TO_STRUCT.format);
  EXPECT_EQ(platform().log.count("syslog_traceback"), 0u);
}

TEST_F(IfInfoConversion, ANumberHeldBackByTheLevelIsNotEvenCounted) {
  platform().set_facility("ospf", 2);
  platform().scripts.answer("tlvu_table_convert_struct_to_tlv", 18);
  ip_convert_if_info_notification_to_tlv(notification, &message);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
  EXPECT_TRUE(platform().syslog.empty());
}

TEST_F(IfInfoConversion, ANumberHeldBackByTheRateIsNotPrinted) {
  platform().set_facility("ospf", 7);
  platform().scripts.fail("syslog_msg_rate_limit");
  platform().scripts.answer("tlvu_table_convert_struct_to_tlv", 18);
  ip_convert_if_info_notification_to_tlv(notification, &message);
  EXPECT_TRUE(platform().syslog.empty());
}

}  // namespace
}  // namespace unit
