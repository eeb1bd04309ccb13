// SPDX-License-Identifier: Apache-2.0
// A notification that arrived: its record goes to the caller's function and is gone afterwards; the message stays.

#include "mts.h"
#include "unit/library_test.h"

namespace unit {
namespace {

// What the callback was given, and how often.
struct Told {
  int times = 0;
  const void *record = nullptr;
  uint32_t count = 0;
  size_t buffers = 0;  // of the TLV library, at that moment
};
Told told;

void tell(ip_if_info_msg *record) {
  told.times++;
  told.record = record;
  told.count = record->count;
  told.buffers = platform().tlv.buffers.size();
  platform().log.call("callback", static_cast<const void *>(record));
}

class IfInfoParse : public LibraryTest {
 protected:
  IfInfoParse() {
    told = {};
    platform().log.name(&ip_if_info_msg_tbl, "table");
    platform().tlv.decoded = {0x44, 0x33, 0x22, 0x11};
  }
  ~IfInfoParse() override {
    EXPECT_TRUE(platform().tlv.buffers.empty()) << "a record is left";
    EXPECT_FALSE(platform().tlv.freed_unknown);
    EXPECT_EQ(platform().log.count("mts_drop"), 0u) << "the message is the caller's";
    EXPECT_EQ(platform().received.size(), received_ ? 1u : 0u);
  }

  // A message with this payload, as it comes out of a queue.
  mts_msg_ref_t receive(std::vector<uint8_t> payload) {
    platform().replies.push_back({.opcode = IP_OPCODE_IF_INFO, .payload = std::move(payload)});
    mts_recv_opts options = {};
    mts_msg_ref_t msg = nullptr;
    EXPECT_EQ(mts_recv(1, &msg, &options), 0);
    received_ = true;
    platform().log.name(mts_payload_get(msg), "payload");
    platform().log.clear();
    return msg;
  }

 private:
  bool received_ = false;
};

TEST_F(IfInfoParse, DecodesThePayloadCallsBackAndFreesTheRecord) {
  mts_msg_ref_t msg = receive({1, 2, 3, 4, 5, 6, 7});
  EXPECT_EQ(ip_parse_if_info_notification(msg, tell), 1u);
  EXPECT_EQ(calls(),
            (Calls{"mts_payload_get()", "mts_payload_size()", "tlvu_table_convert_tlv_to_struct(payload, 7, table, 0)",
                   "callback(decoded)", "tlvu_free(decoded, 0)"}));
}

TEST_F(IfInfoParse, TheCallbackSeesTheDecodedRecord) {
  ip_parse_if_info_notification(receive({1}), tell);
  EXPECT_EQ(told.times, 1);
  EXPECT_EQ(told.count, 0x11223344u);
  EXPECT_EQ(told.buffers, 1u) << "the record lives while the callback runs";
}

TEST_F(IfInfoParse, WithoutACallbackTheMessageIsNotTouched) {
  mts_msg_ref_t msg = receive({1});
  EXPECT_EQ(ip_parse_if_info_notification(msg, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(IfInfoParse, WithoutAPayloadThereIsNothingToRead) {
  mts_msg_ref_t msg = receive({1});
  platform().scripts.fail("mts_payload_get");
  EXPECT_EQ(ip_parse_if_info_notification(msg, tell), 0u);
  EXPECT_EQ(calls(), Calls{"mts_payload_get()"});
  EXPECT_EQ(told.times, 0);
}

TEST_F(IfInfoParse, APayloadThatIsNoRecordIsShownAndReportedWithItsError) {
  mts_msg_ref_t msg = receive({1, 2, 3});
  platform().scripts.answer("tlvu_table_convert_tlv_to_struct", 0xff);
  EXPECT_EQ(ip_parse_if_info_notification(msg, tell), 0u);
  EXPECT_EQ(calls(),
            (Calls{"mts_payload_get()", "mts_payload_size()", "tlvu_table_convert_tlv_to_struct(payload, 3, table, 0)",
                   "tlvu_error_print(\"ip_if_info_msg_to_struct: ERR 0xff\n\")",
                   limited("IP_TLV_TO_STRUCT", "TLV to Struct Conversion failed (255)")}));
  EXPECT_EQ(told.times, 0);
}

TEST_F(IfInfoParse, NeedsNoAttachedLibrary) {
  mts_msg_ref_t msg = receive({1});
  ASSERT_EQ(ip_api_attached, 0u);
  EXPECT_EQ(ip_parse_if_info_notification(msg, tell), 1u);
}

}  // namespace
}  // namespace unit
