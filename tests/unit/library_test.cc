// SPDX-License-Identifier: Apache-2.0
#include "unit/library_test.h"

#include <cstring>

namespace unit {

namespace {

// Before the builders of a fixture's members run.
Database fresh_database() {
  platform().reset();
  reset_library();
  return {};
}

}  // namespace

LibraryTest::LibraryTest() : database(fresh_database()) {
  platform().log.name(&ip_shseg, "&ip_shseg");
}

LibraryTest::~LibraryTest() {
  reset_library();
}

void LibraryTest::TearDown() {
  EXPECT_FALSE(platform().locks.released_unheld) << "a lock was released that was not held";
  for (const auto &[handle, depth] : platform().locks.depth) EXPECT_EQ(depth, 0) << "depth of lock " << handle;
  EXPECT_EQ(platform().locks.urib_depth, urib_depth_);
  EXPECT_FALSE(platform().locks.taken_in_wrong_order) << "the database's lock comes before URIB's";
  EXPECT_FALSE(platform().locks.route_used_unlocked) << "a route was used without URIB's lock";
  EXPECT_EQ(platform().scripts.unused(), Calls{}) << "answers that no call asked for";
}

void LibraryTest::attach() {
  ASSERT_EQ(ip_shm_api_init(), &ip_client);
  platform().log.clear();
  platform().formatted.clear();
}

void reset_library() {
  ip_client = {};
  ip_shseg = ip_api_data = ip_api_mpib = ip_api_contexts_queue = nullptr;
  addr_ip_shseg = addr_ip_api_data = addr_ip_api_mpib = nullptr;
  ip_api_attached = ip_api_refcnt = ip_api_dep_modules_init_done = ip_is_server_flag = 0;
  g_ip_fwd_enabled_spl_ifidx = g_ip_fwd_enabled_spl_iod = 0;
  ip_urib_mts_q = ip_server_ctrl_mts_q = ip_server_data_mts_q = ~uint32_t{0};
  ip_register_done = 0;
  for (uint32_t *flag :
       {&dbg_ip_register, &dbg_ip_deregister, &dbg_ip_cl_output, &dbg_ip_cl_icmp_output, &dbg_ip_cl_input,
        &dbg_cl_input, &dbg_ip_cl_consume, &dbg_api_init, &dbg_ip_api_misc, &dbg_ip_icmp_error, &dbg_get_message_queue,
        &dbg_msg_set_notify, &dbg_cl_mts_open, &dbg_cl_mts_send, &dbg_in_cksum}) {
    *flag = 0;
  }
  std::memset(dbg_str, 0, sizeof dbg_str);
  std::memset(ip_api_err_log, 0, sizeof ip_api_err_log);
  std::memset(ip_address_string, 0, sizeof ip_address_string);
  ip_address_string_next = 0;
}

uint32_t in_network_order(uint32_t word) {
  const uint8_t bytes[4] = {static_cast<uint8_t>(word >> 24), static_cast<uint8_t>(word >> 16),
                            static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word)};
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

std::string limited(const std::string &message, const std::string &text) {
  return "syslog_msg_rate_limit(" + message + ", \"" + text + "\")";
}

}  // namespace unit
