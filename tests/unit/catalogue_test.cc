// SPDX-License-Identifier: Apache-2.0
// The message catalogue as the log collector knows it: written down here a second time, by hand.
#include <cstddef>

#include "unit/library_test.h"

namespace unit {
namespace {

struct Row {
  const char *symbol;
  const syslog_msg_rec *message;
  const msg_error_rec *error;
  uint32_t severity;
  uint32_t rate;
  const char *text;
};

#define ROW(name, severity, rate, text) \
  { #name, &syslog_msg_IP_##name, &msg_error_IP_##name, severity, rate, text }
const Row rows[] = {
    ROW(IP_STARTUP_FAILURE, 2, 0, "Failed to %s during startup. error %d"),
    ROW(CRIT_FAILURE, 2, 0, "Failed to %s"),
    ROW(IP_FAILURE, 3, 0, "Failed to %s"),
    ROW(IP_CLNT_FAILURE, 3, 0, "Invalid IP registration reply. Message major type %d, minor type %d"),
    ROW(NO_SH_MEM, 3, 10, "Failed to allocate shared memory %s"),
    ROW(IP_NO_MEM, 3, 10, "Failed to allocate private memory for %s"),
    ROW(IP_NO_MBUF, 3, 10, "Failed to allocate mbuf %s"),
    ROW(IP_THR_CREATE, 3, 10, "Failed to create %s thread. error %d"),
    ROW(IP_UNK_MSG, 3, 10, "Unrecognized message major type %d, minor type %d"),
    ROW(IP_UNK_MSG_MAJOR, 6, 10, "Unrecognized message from %s. Major type %d"),
    ROW(IP_UNK_MSG_MINOR, 6, 10, "Unrecognized message from %s. Minor type %d"),
    ROW(URIB_ERR, 3, 10, "Failed to %s urib"),
    ROW(IP_INTERNAL_ERROR, 3, 10, "%s"),
    ROW(STATS_ERROR, 6, 10, "Failed to get hardware statistics for interface %s, reason %s"),
    ROW(IM_RECOVER_ERROR, 6, 10, "Failed to recover correct information for interface %s %d"),
    ROW(MRIB_ADD_ROUTE, 3, 10, "MRIB add route failed in %s for VRF %s"),
    ROW(MRIB_DELETE_ROUTE, 3, 10, "MRIB delete route failed in %s for VRF %s"),
    ROW(TXLIST_CREATE, 3, 10, "Couldn't create txlist for %s"),
    ROW(MV_INIT, 3, 10, "Couldn't init mutex %s"),
    ROW(CV_INIT, 3, 10, "Couldn't init cond var %s"),
    ROW(INVALID_IF_INDEX, 3, 10, "Invalid interface index received from %d"),
    ROW(SYSMAN_CLEANUP, 6, 10, "Terminated by SYSMAN cleanup signal %d"),
    ROW(BAD_ICMP_PKT, 6, 10,
        "Received ICMP packet with bad length (%d). Min len %d, Adv len %d,IP hdr length %d, Expected IP hdr len %d"),
    ROW(MQ_FLUSH, 6, 10, "Flushing %d messages from the MRIB message queue"),
    ROW(REG_SEND_MSG, 6, 10, "Suppress PIM Data Register for (%s, %s) due to suppression-timer\n"),
    ROW(INVALID_NOTIFY, 5, 10, "Received invalid notification message"),
    ROW(IP_MTS_UNKNOWN_MSG, 6, 10, "Received unknown MTS message with opcde %d, dropping it"),
    ROW(IP_MTSRECV, 3, 10, "Error returned from mts_recv(), errno: %s"),
    ROW(IP_MTSDROP, 3, 10, "Error returned from mts_drop(), errno: %s"),
    ROW(IP_MTSSEND, 3, 10, "Error returned from mts_send(), errno: %s"),
    ROW(IP_MSG_TO_TLV, 3, 10, "TLV Conversion failed (%d)"),
    ROW(IP_TLV_TO_STRUCT, 3, 10, "TLV to Struct Conversion failed (%d)"),
    ROW(IP_HA_UPDATE, 3, 10, "HA update failed (%d)"),
    ROW(IP_CLIENT_GET, 3, 10, "HA client filter recovery failed (%d)"),
};
#undef ROW
static_assert(std::size(rows) == 34);

class Catalogue : public testing::TestWithParam<Row> {};

TEST_P(Catalogue, MessageRecordHasItsNameFormatAndSeverity) {
  const Row &row = GetParam();
  EXPECT_STREQ(row.message->name, row.symbol);
  EXPECT_EQ(row.message->format, std::string("<<%%%s-%d-") + row.symbol + ">> " + row.text);
  EXPECT_EQ(row.message->severity, row.severity);
  EXPECT_EQ(row.message->r4, 0u);
}

TEST_P(Catalogue, ErrorRecordHasItsTextRateAndLevel) {
  const Row &row = GetParam();
  EXPECT_STREQ(row.error->name, row.symbol);
  EXPECT_STREQ(row.error->text, row.text);
  EXPECT_EQ(row.error->rate, row.rate);
  EXPECT_EQ(row.error->min_level, row.severity);
  EXPECT_EQ(row.error->msg, row.message);
}

TEST_P(Catalogue, ReservedFieldsOfTheErrorRecordAreZero) {
  const msg_error_rec &error = *GetParam().error;
  EXPECT_EQ(error.r0, 0u);
  EXPECT_EQ(error.r12, 0u);
  for (uint32_t word : error.r20) EXPECT_EQ(word, 0u);
  EXPECT_EQ(error.r34[0], 0u);
  EXPECT_EQ(error.r34[1], 0u);
  EXPECT_EQ(error.r40, 0u);
}

TEST_P(Catalogue, OnlyTheInternalErrorAddsATraceback) {
  EXPECT_EQ(GetParam().error->flags, std::string(GetParam().symbol) == "IP_INTERNAL_ERROR" ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Messages, Catalogue, testing::ValuesIn(rows),
                         [](const auto &of) { return std::string(of.param.symbol); });

TEST(CatalogueOrder, MessageRecordsAscendInMemoryInTableOrder) {
  for (size_t i = 1; i < std::size(rows); i++) EXPECT_LT(rows[i - 1].message, rows[i].message) << rows[i].symbol;
}

TEST(CatalogueOrder, ErrorRecordsAscendInMemoryInTableOrder) {
  for (size_t i = 1; i < std::size(rows); i++) EXPECT_LT(rows[i - 1].error, rows[i].error) << rows[i].symbol;
}

TEST(CatalogueRecords, ComponentAndFacility) {
  EXPECT_STREQ(msg_component_IP.name, "IP");
  EXPECT_EQ(msg_component_IP.r4, 0u);
  EXPECT_STREQ(syslog_fac_LOG_IP.name, "ip");
  EXPECT_EQ(syslog_fac_LOG_IP.n1, 3048u);
  EXPECT_EQ(syslog_fac_LOG_IP.n2, 514u);
}

#if UINTPTR_MAX == 0xffffffffu
TEST(CatalogueRecords, LieAsTheLogCollectorReadsThem) {
  EXPECT_EQ(sizeof(syslog_msg_rec), 16u);
  EXPECT_EQ(offsetof(syslog_msg_rec, format), 8u);
  EXPECT_EQ(offsetof(syslog_msg_rec, severity), 12u);
  EXPECT_EQ(sizeof(msg_error_rec), 44u);
  EXPECT_EQ(offsetof(msg_error_rec, name), 4u);
  EXPECT_EQ(offsetof(msg_error_rec, text), 8u);
  EXPECT_EQ(offsetof(msg_error_rec, rate), 16u);
  EXPECT_EQ(offsetof(msg_error_rec, min_level), 32u);
  EXPECT_EQ(offsetof(msg_error_rec, flags), 33u);
  EXPECT_EQ(offsetof(msg_error_rec, msg), 36u);
  EXPECT_EQ(offsetof(msg_error_rec, r40), 40u);
  EXPECT_EQ(sizeof(msg_component_rec), 8u);
  EXPECT_EQ(offsetof(syslog_fac_rec, n1), 4u);
  EXPECT_EQ(offsetof(syslog_fac_rec, n2), 8u);
}
#endif

}  // namespace
}  // namespace unit
