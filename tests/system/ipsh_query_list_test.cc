// SPDX-License-Identifier: Apache-2.0
// The list of queries is whole: whatever the library exports can be asked, or stands here with the reason why not.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "ipsh_fixture.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

constexpr const char *start_and_stop =
    "builds up or tears down the state of a process: each ipsh does so around a query";
constexpr const char *memory_types = "names and numbers of memory types: ipsh show memory has them";
constexpr const char *own_state = "tells of the asking process, not of the system";
constexpr const char *transport = "moves messages of the asking process: it asks nothing by itself";
constexpr const char *registration = "makes the asking process known to the IP process, or undoes it";
constexpr const char *request = "asks the IP process to change something, or for what it alone knows: no query";
constexpr const char *if_info = "carries interfaces in messages: ipsh show interfaces has what they tell";
constexpr const char *packet = "works on bytes that the asking process holds";
constexpr const char *packets = "hands a packet to the IP process: no question";
constexpr const char *protocol_names = "names and numbers of IP protocols: they are the same on every system";
constexpr const char *summary = "writes into a command line of its caller: ipsh show addresses has what it tells";
constexpr const char *error_text = "shown with the answer of each query that leaves one";

const std::map<std::string, std::string> no_queries{
    {"__ip_mem_type_t_find", memory_types},
    {"__ip_mem_type_t_str2enum", memory_types},
    {"__ip_sm_mem_type_t_find", memory_types},
    {"__ip_sm_mem_type_t_str2enum", memory_types},
    {"ip_api_close", start_and_stop},
    {"ip_api_close_nodeps", start_and_stop},
    {"ip_api_get_error", error_text},
    {"ip_api_init", start_and_stop},
    {"ip_api_init_mts_q", start_and_stop},
    {"ip_attach_shm", start_and_stop},
    {"ip_data_queue_get_usage", own_state},
    {"ip_driver_api_close", start_and_stop},
    {"ip_driver_api_init", start_and_stop},
    {"ip_get_api_error_info", error_text},
    {"ip_get_client_pointer", own_state},
    {"ip_get_max_msg_size", own_state},
    {"ip_convert_if_info_notification_to_tlv", if_info},
    {"ip_download_if_info", if_info},
    {"ip_free_if_info_tlv", if_info},
    {"ip_if_info_msg_default_init", if_info},
    {"ip_if_info_msg_entry_field_get_next", if_info},
    {"ip_if_info_msg_entry_field_itr_init", if_info},
    {"ip_if_info_msg_entry_get_field", if_info},
    {"ip_if_info_msg_entry_get_struct_sz", if_info},
    {"ip_if_info_msg_entry_get_tlv_sz", if_info},
    {"ip_if_info_msg_entry_to_struct", if_info},
    {"ip_if_info_msg_entry_to_tlv", if_info},
    {"ip_if_info_msg_field_get_next", if_info},
    {"ip_if_info_msg_field_itr_init", if_info},
    {"ip_if_info_msg_get_field", if_info},
    {"ip_if_info_msg_get_struct_sz", if_info},
    {"ip_if_info_msg_get_sz", if_info},
    {"ip_if_info_msg_get_tlv_sz", if_info},
    {"ip_if_info_msg_to_struct", if_info},
    {"ip_if_info_msg_to_tlv", if_info},
    {"ip_parse_if_info_notification", if_info},
    {"ip_mem_init", start_and_stop},
    {"ip_remove_shm", start_and_stop},
    {"ip_shm_api_init", start_and_stop},
    {"is_fwd_enabled_spl_iod", own_state},
    {"set_fwd_enabled_spl_ifidx", own_state},
    {"ip_change_msg_owner", transport},
    {"ip_cl_mts_send", transport},
    {"ip_cl_mts_send_with_sz", transport},
    {"ip_free_message_queue", transport},
    {"ip_get_urib_q", transport},
    {"ip_init_mts", transport},
    {"ip_mts_send", transport},
    {"ip_client_set_ctrl_q", registration},
    {"ip_client_set_flags", registration},
    {"ip_client_set_recv_fn", registration},
    {"ip_client_set_recv_fn_with_tx_mts", registration},
    {"ip_deregister", registration},
    {"ip_register", registration},
    {"ip_register_with_ack", registration},
    {"ip_configure_address", request},
    {"ip_disable_multicast", request},
    {"ip_enable_multicast", request},
    {"ip_get_interface_stats", request},
    {"ip_join_channel", request},
    {"ip_join_group", request},
    {"ip_join_group_if", request},
    {"ip_leave_channel", request},
    {"ip_leave_group", request},
    {"ip_leave_group_if", request},
    {"ip_parse_config_response", request},
    {"ip_report_link_local", request},
    {"ip_req_redirect_disable", request},
    {"ip_request_load_share_cfg", request},
    {"ip_set_unnumbered", request},
    {"ip_unnumbered_pss_cleanup", request},
    {"ip_unset_unnumbered", request},
    {"in_cksum", packet},
    {"ip_build_ah_header", packet},
    {"ip_build_header", packet},
    {"ip_checksum", packet},
    {"ip_copy_packet_to_buffer", packet},
    {"ip_dump_buffer", packet},
    {"ip_dump_buffer_buginf", packet},
    {"ip_dump_packet", packet},
    {"ip_get_ttl_from_packet", packet},
    {"ip_hton_header", packet},
    {"ip_is_mpls_oam_echo_request_packet", packet},
    {"ip_ntoh_header", packet},
    {"ip_packet_hdr_total_len", packet},
    {"ip_packet_is_valid", packet},
    {"ip_pullup_header", packet},
    {"ip_set_df_in_packet", packet},
    {"ip_set_ttl_in_packet", packet},
    {"ip_verify_ah_header", packet},
    {"udp_build_header", packet},
    {"udp_checksum", packet},
    {"ip_cl_consume", packets},
    {"ip_cl_icmp_output", packets},
    {"ip_cl_input", packets},
    {"ip_cl_output", packets},
    {"ip_cl_output_l2", packets},
    {"ip_cl_output_l2_dce", packets},
    {"ip_cl_output_l2_mvr", packets},
    {"ip_cl_output_l2_pw", packets},
    {"ip_cl_output_nfree", packets},
    {"ip_cl_output_src_l2_addr", packets},
    {"ip_dont_forward_ra_on_restart", packets},
    {"ip_driver_send_icmp_packet", packets},
    {"ip_driver_send_icmp_unreachable", packets},
    {"ip_icmp_error", packets},
    {"ip_send_replicate", packets},
    {"ip_l3_encap", packet},
    {"ip_get_proto_name", protocol_names},
    {"ip_get_proto_num", protocol_names},
    {"ip_print_addr_summary", summary},
};

std::set<std::string> exported_functions() {
  std::set<std::string> names;
  std::ifstream file(IP_EXPORTS);
  for (std::string kind, name; file >> kind;) {
    if (kind != "function") {
      std::getline(file, name);
      continue;
    }
    file >> name;
    names.insert(name);
  }
  return names;
}

std::set<std::string> listed_queries() {
  const json list = json::parse(ipsh({"query", "--list", "--json"}).out);
  std::set<std::string> names;
  for (const json &row : list["queries"]) names.insert(row["name"].get<std::string>());
  return names;
}

TEST_F(IpshWithoutIpd, EveryExportedFunctionIsAQueryOrIsKnownToBeNone) {
  const std::set<std::string> queries = listed_queries();
  const std::set<std::string> exported = exported_functions();
  ASSERT_GT(exported.size(), 100u);
  for (const std::string &name : exported) {
    EXPECT_NE(queries.contains(name), no_queries.contains(name))
        << name << ": give it a row in ipsh/query_*.cc, or a reason here";
  }
  for (const std::string &name : queries) EXPECT_TRUE(exported.contains(name)) << name << " is not exported";
  for (const auto &[name, reason] : no_queries) EXPECT_TRUE(exported.contains(name)) << name << " is not exported";
}

TEST_F(IpshWithSystem, EveryQuerysExampleIsAnswered) {
  const json rows = json::parse(ipsh({"query", "--list", "--json"}).out)["queries"];
  const std::string table = ipsh({"query", "--list"}).out;
  for (const json &row : rows) {
    const std::string name = row["name"];
    EXPECT_NE(table.find("\n" + name + " "), std::string::npos) << name;
    std::vector<std::string> words{"query", name};
    std::ranges::move(words_of(row["example"]), std::back_inserter(words));
    const Outcome outcome = ipsh(words);
    EXPECT_LE(outcome.exit_code, 1) << name << ": " << outcome.err;
    EXPECT_TRUE(outcome.out.starts_with("call")) << name << ": " << outcome.out;
  }
}

}  // namespace
}  // namespace ipsh_test
