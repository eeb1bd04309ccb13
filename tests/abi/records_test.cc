// SPDX-License-Identifier: Apache-2.0
// Records and objects of the library as another program sees them at run time.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <array>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ip_api.h"
#include "layout_rows.h"

namespace {

// libip.so, which this program is linked with.
void *library() {
  static void *const handle = dlopen("libip.so.1", RTLD_NOW | RTLD_NOLOAD);
  return handle;
}

// The library's own definition, not the copy that this program may hold.
const char *in_library(const std::string &name) {
  return static_cast<const char *>(dlsym(library(), name.c_str()));
}

const std::vector<std::string> &message_names() {
  static const std::vector<std::string> names{
#define NAME(name, severity, rate, traceback, text) #name,
      IP_MESSAGES(NAME)
#undef NAME
  };
  return names;
}

template <class Value>
Value value_at(const void *record, size_t offset) {
  Value value;
  std::memcpy(&value, static_cast<const char *>(record) + offset, sizeof value);
  return value;
}

constexpr bool is_32_bit = sizeof(void *) == 4;

TEST(CatalogueRecords, LieInTableOrderWithoutGaps) {
  ASSERT_NE(library(), nullptr) << dlerror();
  ASSERT_EQ(message_names().size(), 34u);
  const char *first_message = in_library("syslog_msg_IP_IP_STARTUP_FAILURE");
  const char *first_error = in_library("msg_error_IP_IP_STARTUP_FAILURE");
  ASSERT_NE(first_message, nullptr);
  ASSERT_NE(first_error, nullptr);
  for (size_t i = 0; i < message_names().size(); i++) {
    const std::string &name = message_names()[i];
#ifdef LIBIP_SANITIZED
    // The race and address detectors put space around each object.
    EXPECT_GE(in_library("syslog_msg_IP_" + name), first_message + i * sizeof(syslog_msg_rec)) << name;
    EXPECT_GE(in_library("msg_error_IP_" + name), first_error + i * sizeof(msg_error_rec)) << name;
#else
    EXPECT_EQ(in_library("syslog_msg_IP_" + name), first_message + i * sizeof(syslog_msg_rec)) << name;
    EXPECT_EQ(in_library("msg_error_IP_" + name), first_error + i * sizeof(msg_error_rec)) << name;
#endif
  }
}

struct RecordPair {
  syslog_msg_rec *message;
  msg_error_rec *error;
};

const std::vector<RecordPair> &record_pairs() {
  static const std::vector<RecordPair> pairs{
#define PAIR(name, severity, rate, traceback, text) {&syslog_msg_IP_##name, &msg_error_IP_##name},
      IP_MESSAGES(PAIR)
#undef PAIR
  };
  return pairs;
}

TEST(CatalogueRecords, AnErrorRecordLeadsToItsMessageRecordInEveryProgram) {
  for (const RecordPair &pair : record_pairs()) EXPECT_EQ(pair.error->msg, pair.message) << pair.error->name;
}

TEST(CatalogueRecords, BothRecordsOfAMessageBearItsName) {
  for (size_t i = 0; i < record_pairs().size(); i++) {
    EXPECT_EQ(record_pairs()[i].message->name, message_names()[i]);
    EXPECT_EQ(record_pairs()[i].error->name, message_names()[i]);
  }
}

TEST(CatalogueRecords, AFormatIsThePrefixAndTheText) {
  for (const RecordPair &pair : record_pairs()) {
    EXPECT_EQ(std::string(pair.message->format),
              "<<%%%s-%d-" + std::string(pair.message->name) + ">> " + pair.error->text);
  }
}

// The offsets that the log collector reads at, on 32 bits; on 64 the members stand in the same order.
TEST(CatalogueRecords, LieAsTheLogCollectorReadsThem) {
  const syslog_msg_rec *message = &syslog_msg_IP_IP_INTERNAL_ERROR;
  EXPECT_STREQ(value_at<const char *>(message, 0), "IP_INTERNAL_ERROR");
  EXPECT_EQ(value_at<uint32_t>(message, is_32_bit ? 4 : 8), 0u);
  EXPECT_STREQ(value_at<const char *>(message, is_32_bit ? 8 : 16), "<<%%%s-%d-IP_INTERNAL_ERROR>> %s");
  EXPECT_EQ(value_at<uint32_t>(message, is_32_bit ? 12 : 24), 3u);

  const msg_error_rec *error = &msg_error_IP_IP_INTERNAL_ERROR;
  EXPECT_EQ(value_at<uint32_t>(error, 0), 0u);
  EXPECT_STREQ(value_at<const char *>(error, is_32_bit ? 4 : 8), "IP_INTERNAL_ERROR");
  EXPECT_STREQ(value_at<const char *>(error, is_32_bit ? 8 : 16), "%s");
  EXPECT_EQ(value_at<uint32_t>(error, is_32_bit ? 12 : 24), 0u);
  EXPECT_EQ(value_at<uint32_t>(error, is_32_bit ? 16 : 28), 10u);
  for (size_t word = 0; word < 3; word++) EXPECT_EQ(value_at<uint32_t>(error, (is_32_bit ? 20 : 32) + 4 * word), 0u);
  EXPECT_EQ(value_at<uint8_t>(error, is_32_bit ? 32 : 44), 3u);
  EXPECT_EQ(value_at<uint8_t>(error, is_32_bit ? 33 : 45), 1u);
  EXPECT_EQ(value_at<const void *>(error, is_32_bit ? 36 : 48), message);
  EXPECT_EQ(value_at<uint32_t>(error, is_32_bit ? 40 : 56), 0u);
}

TEST(CatalogueRecords, ComponentAndFacilityBearTheirNamesAndNumbers) {
  EXPECT_STREQ(msg_component_IP.name, "IP");
  EXPECT_EQ(msg_component_IP.r4, 0u);
  EXPECT_STREQ(syslog_fac_LOG_IP.name, "ip");
  EXPECT_EQ(syslog_fac_LOG_IP.n1, 3048u);
  EXPECT_EQ(syslog_fac_LOG_IP.n2, 514u);
}

TEST(SharedRecords, CAndCppSeeTheSameLayouts) {
  const layout_row rows[] = {LAYOUT_ROWS};
  size_t count = 0;
  const layout_row *c_rows = c_layout_rows(&count);
  ASSERT_EQ(count, std::size(rows));
  for (size_t i = 0; i < count; i++) {
    EXPECT_STREQ(c_rows[i].what, rows[i].what);
    EXPECT_EQ(c_rows[i].value, rows[i].value) << rows[i].what;
  }
}

struct ExportedObject {
  const char *name;
  size_t size;
};

std::vector<ExportedObject> exported_objects() {
  std::vector<ExportedObject> objects{
#define OBJECT(name) {#name, sizeof(name)},
      OBJECT(ip_client) OBJECT(ip_shseg) OBJECT(ip_api_data) OBJECT(ip_api_mpib) OBJECT(ip_api_contexts_queue)
          OBJECT(ip_api_attached) OBJECT(ip_api_refcnt) OBJECT(ip_api_dep_modules_init_done) OBJECT(ip_is_server_flag)
              OBJECT(addr_ip_shseg) OBJECT(addr_ip_api_data) OBJECT(addr_ip_api_mpib) OBJECT(g_ip_fwd_enabled_spl_ifidx)
                  OBJECT(g_ip_fwd_enabled_spl_iod) OBJECT(dbg_ip_register) OBJECT(dbg_ip_deregister)
                      OBJECT(dbg_ip_cl_output) OBJECT(dbg_ip_cl_icmp_output) OBJECT(dbg_ip_cl_input)
                          OBJECT(dbg_cl_input) OBJECT(dbg_ip_cl_consume) OBJECT(dbg_api_init) OBJECT(dbg_ip_api_misc)
                              OBJECT(dbg_ip_icmp_error) OBJECT(dbg_get_message_queue) OBJECT(dbg_msg_set_notify)
                                  OBJECT(dbg_cl_mts_open) OBJECT(dbg_cl_mts_send) OBJECT(dbg_in_cksum) OBJECT(dbg_str)
                                      OBJECT(ip_api_err_log) OBJECT(ip_address_string) OBJECT(ip_address_string_next)
                                          OBJECT(ip_if_info_msg_tbl) OBJECT(ip_if_info_msg_entry_tbl)
                                              OBJECT(msg_component_IP) OBJECT(syslog_fac_LOG_IP)
#define MESSAGE(name, severity, rate, traceback, text) OBJECT(syslog_msg_IP_##name) OBJECT(msg_error_IP_##name)
                                                  IP_MESSAGES(MESSAGE)
#undef MESSAGE
#undef OBJECT
  };
  return objects;
}

// A program that is not position-independent holds a copy of each object it names, as large as the library says.
TEST(ExportedObjects, SayTheirSizes) {
  ASSERT_NE(library(), nullptr) << dlerror();
  for (const ExportedObject &object : exported_objects()) {
    const char *address = in_library(object.name);
    ASSERT_NE(address, nullptr) << object.name;
    Dl_info where{};
    ElfW(Sym) *symbol = nullptr;
    ASSERT_NE(dladdr1(address, &where, reinterpret_cast<void **>(&symbol), RTLD_DL_SYMENT), 0) << object.name;
    ASSERT_NE(symbol, nullptr) << object.name;
    EXPECT_STREQ(where.dli_sname, object.name);
    EXPECT_EQ(symbol->st_size, object.size) << object.name;
  }
}

TEST(ExportedObjects, AreTheSameForTheProgramAndTheLibrary) {
  EXPECT_EQ(ip_get_client_pointer(), &ip_client);
  EXPECT_EQ(ip_api_get_error(), ip_api_err_log);
  ip_address_string_next = 3;
  EXPECT_EQ(ip_print_addr(0x01020304), ip_address_string[3]);
  EXPECT_STREQ(ip_address_string[3], "1.2.3.4");
  EXPECT_EQ(ip_address_string_next, 4);
  ip_address_string_next = 0;
}

}  // namespace
