// SPDX-License-Identifier: Apache-2.0
// The names of memory types: by value, by name in any letter case, and as they are registered with the memory tracker.
#include <algorithm>
#include <cctype>

#include "unit/library_test.h"

namespace unit {
namespace {

const std::vector<std::string> private_names = {"IP_MEM_NONE",
                                                "IP_MEM_ip_msgtype",
                                                "IP_MEM_ip_driver_msgtype",
                                                "IP_MEM_ip_context_type",
                                                "IP_MEM_net_l2_filter_t",
                                                "IP_MEM_mts_msg_ref_t",
                                                "IP_MEM_ip_client_entry",
                                                "IP_MEM_bitfield_attr_t",
                                                "IP_MEM_ip_msg_event",
                                                "IP_MEM_ip_if_info_msg",
                                                "IP_MEM_ip_addrtype",
                                                "IP_MEM_ip_statictype",
                                                "IP_MEM_ip_msg_entry",
                                                "IP_MEM_ip_context_iod_entry",
                                                "IP_MEM_ipstats",
                                                "IP_MEM_icmpstats",
                                                "IP_MEM_cmi_payload_t",
                                                "IP_MEM_ppf_context",
                                                "IP_MEM_runtimeuri",
                                                "IP_MEM_acl_policy",
                                                "IP_MEM_ip_prefixtype",
                                                "IP_MEM_ip_urib_buffer",
                                                "IP_MEM_ip_mroute_enable",
                                                "IP_MEM_ip_hist_dump_buffer",
                                                "IP_MEM_ip_bfd_data_node",
                                                "IP_MEM_ip_bfd_entry_type",
                                                "IP_MEM_ipmibstats",
                                                "IP_MEM_ip_unnumbered",
                                                "IP_MEM_ip_static_rt",
                                                "IP_MEM_ip_static_rnh",
                                                "IP_MEM_ip_static_pfx",
                                                "IP_MEM_ip_static_intf",
                                                "IP_MEM_ip_aclfilt_gr_cr",
                                                "IP_MEM_ip_aclfilt_plc_cr",
                                                "IP_MEM_ip_acl_plcy_tr",
                                                "IP_MEM_ip_acl_plcy_maptr",
                                                "IP_MEM_ip_pbr_rmap",
                                                "IP_MEM_ip_pbr_set",
                                                "IP_MEM_ip_pbr_act_lst",
                                                "IP_MEM_ip_pbr_act",
                                                "IP_MEM_ip_pbr_nhv4",
                                                "IP_MEM_ip_pbr_nhv6",
                                                "IP_MEM_ip_pbr_vrf",
                                                "IP_MEM_ip_pbr_rmap_tr",
                                                "IP_MEM_if_index",
                                                "IP_MEM_ip_ppf_context",
                                                "IP_MEM_MAX"};

const std::vector<std::string> shared_names = {"IP_SM_MEM_NONE",
                                               "IP_SM_MEM_ip_api_context_type",
                                               "IP_SM_MEM_ip_maddrtype",
                                               "IP_SM_MEM_ip_component_data",
                                               "IP_SM_MEM_ip_iod",
                                               "IP_SM_MEM_ip_addrtype",
                                               "IP_SM_MEM_ip_iftype",
                                               "IP_SM_MEM_ip_urib_ipc_rnhtype",
                                               "IP_SM_MEM_ip_unnumbered",
                                               "IP_SM_MEM_ip_local_addr_node",
                                               "IP_SM_MEM_lisp_data_stats",
                                               "IP_SM_MEM_MAX"};

struct Table {
  const char *name;
  const std::vector<std::string> *names;
  const char *(*find)(uint32_t);
  uint32_t (*value_of)(const char *);
};

std::string with_case(const std::string &text, int (*change)(int)) {
  std::string changed = text;
  std::transform(text.begin(), text.end(), changed.begin(), [&](char c) { return static_cast<char>(change(c)); });
  return changed;
}

class MemoryTypes : public testing::TestWithParam<Table> {};

TEST_P(MemoryTypes, EveryValueHasItsName) {
  const auto &names = *GetParam().names;
  for (uint32_t value = 0; value < names.size(); value++) EXPECT_STREQ(GetParam().find(value), names[value].c_str());
}

TEST_P(MemoryTypes, ValuesBeyondTheTableHaveNone) {
  const auto size = static_cast<uint32_t>(GetParam().names->size());
  for (uint32_t value : {size, size + 1, 1000u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    EXPECT_EQ(GetParam().find(value), nullptr) << value;
  }
}

TEST_P(MemoryTypes, EveryNameGivesItsValueInAnyLetterCase) {
  const auto &names = *GetParam().names;
  for (uint32_t value = 0; value < names.size(); value++) {
    EXPECT_EQ(GetParam().value_of(names[value].c_str()), value);
    EXPECT_EQ(GetParam().value_of(with_case(names[value], std::toupper).c_str()), value);
    EXPECT_EQ(GetParam().value_of(with_case(names[value], std::tolower).c_str()), value);
  }
}

TEST_P(MemoryTypes, UnknownNamesGiveZero) {
  for (const std::string &name : {std::string("no such type"), std::string(), (*GetParam().names)[1] + "x",
                                  (*GetParam().names)[1].substr(0, 9), std::string("ip_addrtype")}) {
    EXPECT_EQ(GetParam().value_of(name.c_str()), 0u) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Tables, MemoryTypes,
    testing::Values(Table{"Private", &private_names, __ip_mem_type_t_find, __ip_mem_type_t_str2enum},
                    Table{"Shared", &shared_names, __ip_sm_mem_type_t_find, __ip_sm_mem_type_t_str2enum}),
    [](const auto &of) { return of.param.name; });

TEST(MemoryTypeValues, AsTheTrackerKnowsThem) {
  EXPECT_STREQ(__ip_sm_mem_type_t_find(11), "IP_SM_MEM_MAX");
  EXPECT_EQ(__ip_sm_mem_type_t_find(12), nullptr);
  EXPECT_EQ(__ip_mem_type_t_str2enum("ip_mem_IP_BFD_entry_TYPE"), 25u);
  EXPECT_EQ(__ip_mem_type_t_str2enum("IP_SM_MEM_ip_iod"), 0u) << "a shared type is no private type";
  EXPECT_EQ(IP_MEM_MAX, 46);
  EXPECT_EQ(IP_SM_MEM_MAX, 11);
}

using MemoryRegistrationTest = LibraryTest;

TEST_F(MemoryRegistrationTest, HandsTheNamesToTheTrackerInValueOrder) {
  ip_mem_init();
  const auto &private_types = platform().private_types;
  EXPECT_EQ(private_types.names, std::vector<std::string>(private_names.begin(), private_names.end() - 1));
  const auto &shared_types = platform().shared_types;
  EXPECT_EQ(shared_types.names, std::vector<std::string>(shared_names.begin(), shared_names.end() - 1));
}

}  // namespace
}  // namespace unit
