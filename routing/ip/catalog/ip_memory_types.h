// SPDX-License-Identifier: Apache-2.0
// The memory types of the IP component: what memory is taken for, as the memory tracker shows it. One row per type, in
// value order: (value, name without its prefix). The enumerations in ip_api.h and the name tables in memory_types.cc are
// generated from these two tables. Values are shared with the tracker's readers: a new type goes before MAX, and no
// value is ever given again.
#ifndef IP_MEMORY_TYPES_H
#define IP_MEMORY_TYPES_H

// clang-format off

// Private memory of a process: IP_MEM_<name>.
#define IP_MEMORY_TYPES(X)    \
  X(0, NONE)                  \
  X(1, ip_msgtype)            \
  X(2, ip_driver_msgtype)     \
  X(3, ip_context_type)       \
  X(4, net_l2_filter_t)       \
  X(5, mts_msg_ref_t)         \
  X(6, ip_client_entry)       \
  X(7, bitfield_attr_t)       \
  X(8, ip_msg_event)          \
  X(9, ip_if_info_msg)        \
  X(10, ip_addrtype)          \
  X(11, ip_statictype)        \
  X(12, ip_msg_entry)         \
  X(13, ip_context_iod_entry) \
  X(14, ipstats)              \
  X(15, icmpstats)            \
  X(16, cmi_payload_t)        \
  X(17, ppf_context)          \
  X(18, runtimeuri)           \
  X(19, acl_policy)           \
  X(20, ip_prefixtype)        \
  X(21, ip_urib_buffer)       \
  X(22, ip_mroute_enable)     \
  X(23, ip_hist_dump_buffer)  \
  X(24, ip_bfd_data_node)     \
  X(25, ip_bfd_entry_type)    \
  X(26, ipmibstats)           \
  X(27, ip_unnumbered)        \
  X(28, ip_static_rt)         \
  X(29, ip_static_rnh)        \
  X(30, ip_static_pfx)        \
  X(31, ip_static_intf)       \
  X(32, ip_aclfilt_gr_cr)     \
  X(33, ip_aclfilt_plc_cr)    \
  X(34, ip_acl_plcy_tr)       \
  X(35, ip_acl_plcy_maptr)    \
  X(36, ip_pbr_rmap)          \
  X(37, ip_pbr_set)           \
  X(38, ip_pbr_act_lst)       \
  X(39, ip_pbr_act)           \
  X(40, ip_pbr_nhv4)          \
  X(41, ip_pbr_nhv6)          \
  X(42, ip_pbr_vrf)           \
  X(43, ip_pbr_rmap_tr)       \
  X(44, if_index)             \
  X(45, ip_ppf_context)       \
  X(46, MAX)

// Records of the shared database: IP_SM_MEM_<name>.
#define IP_SHARED_MEMORY_TYPES(X) \
  X(0, NONE)                \
  X(1, ip_api_context_type) \
  X(2, ip_maddrtype)        \
  X(3, ip_component_data)   \
  X(4, ip_iod)              \
  X(5, ip_addrtype)         \
  X(6, ip_iftype)           \
  X(7, ip_urib_ipc_rnhtype) \
  X(8, ip_unnumbered)       \
  X(9, ip_local_addr_node)  \
  X(10, lisp_data_stats)    \
  X(11, MAX)

// clang-format on

#endif
