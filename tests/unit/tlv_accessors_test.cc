// SPDX-License-Identifier: Apache-2.0
// The calls of the TLV library on the two tables: which call with which arguments, what is answered, and how an error
// is shown. Each behaviour holds for the whole message's function and for the entry's.
#include <ostream>

#include "tlvu.h"
#include "unit/library_test.h"

namespace unit {
namespace {

struct Accessors {
  std::string name;  // of the record, and of its table in the log of calls
  const void *table;
  decltype(&ip_if_info_msg_field_itr_init) field_itr_init;
  decltype(&ip_if_info_msg_field_get_next) field_get_next;
  decltype(&ip_if_info_msg_get_field) get_field;
  decltype(&ip_if_info_msg_get_tlv_sz) get_tlv_sz;
  decltype(&ip_if_info_msg_get_struct_sz) get_struct_sz;
  decltype(&ip_if_info_msg_to_tlv) to_tlv;
  decltype(&ip_if_info_msg_to_struct) to_struct;

  // Else the test runner would print where the functions lie, which is another place in each run.
  friend void PrintTo(const Accessors &of, std::ostream *out) { *out << of.name; }
};

#define ACCESSORS(record)                                                                                              \
  Accessors {                                                                                                          \
#record, &record##_tbl, record##_field_itr_init, record##_field_get_next, record##_get_field, record##_get_tlv_sz, \
        record##_get_struct_sz, record##_to_tlv, record##_to_struct                                                    \
  }

class TlvAccessor : public LibraryTest, public testing::WithParamInterface<Accessors> {
 protected:
  TlvAccessor() {
    platform().log.name(&ip_if_info_msg_tbl, "ip_if_info_msg_tbl");
    platform().log.name(&ip_if_info_msg_entry_tbl, "ip_if_info_msg_entry_tbl");
    platform().log.name(&record, "record");
    platform().log.name(&tlv, "tlv");
    platform().log.name(&iterator, "iterator");
    platform().log.name(&field, "field");
  }
  ~TlvAccessor() override {
    while (!platform().tlv.buffers.empty()) tlvu_free(*platform().tlv.buffers.begin(), 0);
    EXPECT_FALSE(platform().tlv.freed_unknown);
  }

  static const Accessors &call() { return GetParam(); }
  static std::string table() { return GetParam().name + "_tbl"; }
  // How an error of a function of this record is shown.
  static std::string shown(const std::string &function, const std::string &error) {
    return "tlvu_error_print(\"" + GetParam().name + function + ": ERR " + error + "\n\")";
  }

  uint8_t record[4] = {}, tlv[4] = {}, iterator[4] = {}, field[4] = {};
};

TEST_P(TlvAccessor, AWalkBeginsWithItsTableAfterTheThirdArgument) {
  platform().scripts.answer("tlvu_field_itr_init", 0x8001);
  EXPECT_EQ(call().field_itr_init(11, 12, 13, 14, 65535), 0x8001u);
  EXPECT_EQ(calls(), Calls{"tlvu_field_itr_init(11, 12, 13, " + table() + ", 14, 65535)"});
}

TEST_P(TlvAccessor, AWalkGoesOnWithoutATable) {
  platform().scripts.answer("tlvu_field_itr_get_next", 9);
  EXPECT_EQ(call().field_get_next(iterator, field), 9u);
  EXPECT_EQ(calls(), Calls{"tlvu_field_itr_get_next(iterator, field)"});
}

TEST_P(TlvAccessor, AFieldIsFetchedWithTheTableLast) {
  platform().scripts.answer("tlvu_get_field", 3);
  EXPECT_EQ(call().get_field(21, 22, 23, 24, 25), 3u);
  EXPECT_EQ(calls(), Calls{"tlvu_get_field(21, 22, 23, 24, 25, " + table() + ")"});
}

TEST_P(TlvAccessor, TheEncodedSizeIsTheTlvLibrarys) {
  platform().scripts.answer("tlvu_table_size", 321);
  EXPECT_EQ(call().get_tlv_sz(record), 321u);
  EXPECT_EQ(calls(), Calls{"tlvu_table_size(" + table() + ", record)"});
}

TEST_P(TlvAccessor, TheDecodedSizeIsWhatTheTlvLibraryStored) {
  platform().tlv.record_size = 292;
  EXPECT_EQ(call().get_struct_sz(tlv), 292);
  EXPECT_EQ(calls(), Calls{"tlvu_table_get_struct_size_from_tlv(tlv, 0, " + table() + ")"});
}

TEST_P(TlvAccessor, AnErrorOfTheDecodedSizeIsShownAndMinusOne) {
  platform().scripts.answer("tlvu_table_get_struct_size_from_tlv", 0x1f);
  EXPECT_EQ(call().get_struct_sz(tlv), -1);
  ASSERT_EQ(calls().size(), 2u);
  EXPECT_EQ(calls()[1], shown("_get_struct_sz", "0x1f"));
}

TEST_P(TlvAccessor, ARecordIsEncodedWithTheCallersWords) {
  platform().tlv.encoded = {1, 2, 3};
  void *out = nullptr;
  uint32_t out_size = 0;
  EXPECT_EQ(call().to_tlv(record, &out, &out_size, 31, 32, 33), 0u);
  EXPECT_EQ(calls(), Calls{"tlvu_table_convert_struct_to_tlv(" + table() + ", record, 31, 32, 33)"});
  EXPECT_TRUE(platform().tlv.buffers.contains(out));
  EXPECT_EQ(out_size, 3u);
}

TEST_P(TlvAccessor, AnErrorOfAnEncodingIsShownAndAnswered) {
  platform().scripts.answer("tlvu_table_convert_struct_to_tlv", 0xabcdef01);
  void *out = nullptr;
  uint32_t out_size = 0;
  EXPECT_EQ(call().to_tlv(record, &out, &out_size, 0, 0, 0), 0xabcdef01u);
  ASSERT_EQ(calls().size(), 2u);
  EXPECT_EQ(calls()[1], shown("_to_tlv", "0xabcdef01"));
  EXPECT_EQ(out, nullptr);
}

TEST_P(TlvAccessor, ABufferIsDecodedWithItsSizeAndTheCallersWord) {
  platform().tlv.decoded = {4, 5};
  void *out = nullptr;
  EXPECT_EQ(call().to_struct(&out, tlv, 41, 42), 0u);
  EXPECT_EQ(calls(), Calls{"tlvu_table_convert_tlv_to_struct(tlv, 41, " + table() + ", 42)"});
  EXPECT_TRUE(platform().tlv.buffers.contains(out));
}

TEST_P(TlvAccessor, AnErrorOfADecodingIsShownAndAnswered) {
  platform().scripts.answer("tlvu_table_convert_tlv_to_struct", 7);
  void *out = nullptr;
  EXPECT_EQ(call().to_struct(&out, tlv, 4, 0), 7u);
  ASSERT_EQ(calls().size(), 2u);
  EXPECT_EQ(calls()[1], shown("_to_struct", "0x7"));
  EXPECT_EQ(out, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Records, TlvAccessor,
                         testing::Values(ACCESSORS(ip_if_info_msg), ACCESSORS(ip_if_info_msg_entry)),
                         [](const auto &of) { return of.param.name == "ip_if_info_msg" ? "Message" : "Entry"; });

using TlvBuffer = LibraryTest;

TEST_F(TlvBuffer, IsFreedByTheTlvLibraryWithTheCallersFlags) {
  platform().tlv.encoded = {1};
  void *out = nullptr;
  uint32_t out_size = 0;
  ip_if_info_msg_to_tlv(&out, &out, &out_size, 0, 0, 0);
  platform().log.clear();
  ip_free_if_info_tlv(out, 5);
  EXPECT_EQ(calls(), Calls{"tlvu_free(encoded, 5)"});
  EXPECT_TRUE(platform().tlv.buffers.empty());
}

TEST_F(TlvBuffer, ThatIsNullIsPassedOn) {
  ip_free_if_info_tlv(nullptr, 0);
  EXPECT_EQ(calls(), Calls{"tlvu_free(null, 0)"});
}

}  // namespace
}  // namespace unit
