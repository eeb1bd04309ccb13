// SPDX-License-Identifier: Apache-2.0
// Sizes and offsets of every record of the public headers, as the language that includes this header sees them.
#ifndef TESTS_ABI_LAYOUT_ROWS_H
#define TESTS_ABI_LAYOUT_ROWS_H

#include <stddef.h>

struct layout_row {
  const char *what;
  size_t value;
};

// The same rows, compiled as C.
#ifdef __cplusplus
extern "C"
#endif
    const struct layout_row *
    c_layout_rows(size_t *count);

#define LAYOUT_SIZE(record) {"sizeof " #record, sizeof(record)},
#define LAYOUT_FIELD(record, field) {"offset of " #record "." #field, offsetof(record, field)},

// clang-format off
#define LAYOUT_ROWS                                                                                                  \
  LAYOUT_SIZE(struct ip_addrtype) LAYOUT_FIELD(struct ip_addrtype, next) LAYOUT_FIELD(struct ip_addrtype, addr)       \
  LAYOUT_FIELD(struct ip_addrtype, mask_len)                                                                          \
  LAYOUT_SIZE(struct ip_maddrtype) LAYOUT_FIELD(struct ip_maddrtype, next) LAYOUT_FIELD(struct ip_maddrtype, group)   \
  LAYOUT_FIELD(struct ip_maddrtype, group_data)                                                                       \
  LAYOUT_SIZE(struct ip_counter64)                                                                                    \
  LAYOUT_SIZE(struct ip_if_stats) LAYOUT_FIELD(struct ip_if_stats, mcast_packets1)                                    \
  LAYOUT_FIELD(struct ip_if_stats, mcast_packets2) LAYOUT_FIELD(struct ip_if_stats, mcast_packets3)                   \
  LAYOUT_FIELD(struct ip_if_stats, mcast_packets4) LAYOUT_FIELD(struct ip_if_stats, mcast_packets5)                   \
  LAYOUT_FIELD(struct ip_if_stats, mcast_bytes1) LAYOUT_FIELD(struct ip_if_stats, mcast_bytes2)                       \
  LAYOUT_SIZE(struct ip_iftype) LAYOUT_FIELD(struct ip_iftype, addr_list) LAYOUT_FIELD(struct ip_iftype, unnum_src_iod) \
  LAYOUT_FIELD(struct ip_iftype, unnum_data) LAYOUT_FIELD(struct ip_iftype, group_list)                               \
  LAYOUT_FIELD(struct ip_iftype, directed_bcast) LAYOUT_FIELD(struct ip_iftype, mcast_enabled)                        \
  LAYOUT_FIELD(struct ip_iftype, pim_assert_sent) LAYOUT_FIELD(struct ip_iftype, stats)                               \
  LAYOUT_FIELD(struct ip_iftype, vaddr_count) LAYOUT_FIELD(struct ip_iftype, fwd_enabled)                             \
  LAYOUT_SIZE(struct ip_api_context_type) LAYOUT_FIELD(struct ip_api_context_type, next)                              \
  LAYOUT_FIELD(struct ip_api_context_type, context_id) LAYOUT_FIELD(struct ip_api_context_type, name)                 \
  LAYOUT_FIELD(struct ip_api_context_type, table_id) LAYOUT_FIELD(struct ip_api_context_type, local_pt)               \
  LAYOUT_FIELD(struct ip_api_context_type, router_id) LAYOUT_FIELD(struct ip_api_context_type, router_id_iod)         \
  LAYOUT_SIZE(struct ip_root) LAYOUT_FIELD(struct ip_root, contexts) LAYOUT_FIELD(struct ip_root, second_part)        \
  LAYOUT_FIELD(struct ip_root, ecmp_loadshare_mode) LAYOUT_FIELD(struct ip_root, ecmp_loadshare_value)                \
  LAYOUT_SIZE(struct ip_local_addr_info) LAYOUT_FIELD(struct ip_local_addr_info, iod_list)                            \
  LAYOUT_FIELD(struct ip_local_addr_info, vip)                                                                        \
  LAYOUT_SIZE(struct ip_local_addr_node) LAYOUT_FIELD(struct ip_local_addr_node, info)                                \
  LAYOUT_SIZE(struct ip_client) LAYOUT_FIELD(struct ip_client, seg_desc) LAYOUT_FIELD(struct ip_client, rwsem_lock)   \
  LAYOUT_FIELD(struct ip_client, reg_aux8) LAYOUT_FIELD(struct ip_client, reg_aux32)                                  \
  LAYOUT_FIELD(struct ip_client, flags) LAYOUT_FIELD(struct ip_client, recv_fn)                                       \
  LAYOUT_SIZE(ip_icmp_err_source) LAYOUT_FIELD(ip_icmp_err_source, src_addr)                                          \
  LAYOUT_SIZE(ip_prefixtype) LAYOUT_FIELD(ip_prefixtype, addr) LAYOUT_FIELD(ip_prefixtype, mask_len)                  \
  LAYOUT_SIZE(ip_ecmp_loadshare_status) LAYOUT_FIELD(ip_ecmp_loadshare_status, mode)                                  \
  LAYOUT_FIELD(ip_ecmp_loadshare_status, value)                                                                       \
  LAYOUT_SIZE(ip_if_info_msg_entry) LAYOUT_FIELD(ip_if_info_msg_entry, f0) LAYOUT_FIELD(ip_if_info_msg_entry, f3)     \
  LAYOUT_FIELD(ip_if_info_msg_entry, f7) LAYOUT_FIELD(ip_if_info_msg_entry, f2)                                       \
  LAYOUT_FIELD(ip_if_info_msg_entry, f4) LAYOUT_FIELD(ip_if_info_msg_entry, f8)                                       \
  LAYOUT_FIELD(ip_if_info_msg_entry, f9) LAYOUT_FIELD(ip_if_info_msg_entry, f10)                                      \
  LAYOUT_FIELD(ip_if_info_msg_entry, f1) LAYOUT_SIZE(ip_if_info_msg) LAYOUT_FIELD(ip_if_info_msg, count)              \
  LAYOUT_SIZE(ip_if_info_notification) LAYOUT_FIELD(ip_if_info_notification, id)                                      \
  LAYOUT_FIELD(ip_if_info_notification, payload) LAYOUT_FIELD(ip_if_info_notification, payload_len)                   \
  LAYOUT_FIELD(ip_if_info_notification, tlv_payload)                                                                  \
  LAYOUT_SIZE(struct ip_if_info_msg_tbl_t) LAYOUT_FIELD(struct ip_if_info_msg_tbl_t, d)                               \
  LAYOUT_SIZE(struct ip_if_info_msg_entry_tbl_t) LAYOUT_FIELD(struct ip_if_info_msg_entry_tbl_t, d)                   \
  LAYOUT_SIZE(struct syslog_msg_rec) LAYOUT_FIELD(struct syslog_msg_rec, name)                                        \
  LAYOUT_FIELD(struct syslog_msg_rec, format) LAYOUT_FIELD(struct syslog_msg_rec, severity)                           \
  LAYOUT_SIZE(struct msg_error_rec) LAYOUT_FIELD(struct msg_error_rec, name) LAYOUT_FIELD(struct msg_error_rec, text) \
  LAYOUT_FIELD(struct msg_error_rec, rate) LAYOUT_FIELD(struct msg_error_rec, min_level)                              \
  LAYOUT_FIELD(struct msg_error_rec, flags) LAYOUT_FIELD(struct msg_error_rec, msg)                                   \
  LAYOUT_SIZE(struct msg_component_rec) LAYOUT_SIZE(struct syslog_fac_rec)                                            \
  LAYOUT_SIZE(ip_mem_type_t) LAYOUT_SIZE(ip_sm_mem_type_t)
// clang-format on

#endif
