// SPDX-License-Identifier: Apache-2.0
// Queries of subnets, interface addresses, IP state and router ids under their exported names, against a published
// system.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ipsh_asked.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

class IpshInterfaceQuery : public IpshWithSystem, public ::testing::WithParamInterface<Asked> {};
TEST_P(IpshInterfaceQuery, AnswersFromTheSharedDatabase) {
  expect_answer(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    OfSubnets, IpshInterfaceQuery,
    ::testing::Values(
        Asked{"ip_find_overlap_interface --ctx default --addr 10.0.0.77 --len 24", "1", 0, "out=2 (eth0)"},
        Asked{"ip_find_overlap_interface --ctx 1 --addr 10.0.0.77 --len 24 --ignore-iod eth0", "0", 1, "out=0"},
        Asked{"ip_find_overlap_interface --ctx null --addr 10.0.0.77 --len 24", "1", 0, "out=0"},
        Asked{"ip_check_for_prefix_overlap --ctx red --addr 192.0.2.9 --len 25", "0", 1, "out=0"},
        Asked{"ip_check_for_prefix_overlap_no_state --ctx red --addr 192.0.2.9 --len 25", "1", 0, "out=3 (eth1)"},
        Asked{"ip_check_target_addr_for_local_subnet --iod eth0 --target 10.0.1.77", "1", 0},
        Asked{"ip_check_target_addr_for_local_subnet --iod eth0 --target 192.0.2.9", "0", 1},
        Asked{"ip_get_local_addr_for_subnet --iod eth0 --addr 10.0.0.1", "10.0.0.2", 0},
        Asked{"ip_is_addr_on_attached_subnet --addr 10.0.1.77 --iod eth0", "10.0.1.1", 0},
        Asked{"ip_get_iod_for_local_subnet --name default --addr 10.0.1.0 --len 24", "2 (eth0)", 0},
        Asked{"ip_get_iod_for_local_subnet --name default --addr 10.0.1.0 --len 25", "0", 1}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

INSTANTIATE_TEST_SUITE_P(
    OfInterfaceAddresses, IpshInterfaceQuery,
    ::testing::Values(Asked{"ip_get_local_addr --iod tun0", "10.0.0.1", 0},
                      Asked{"ip_get_local_addr --iod 4000", "0.0.0.0", 1},
                      Asked{"ip_get_local_mask --iod eth1", "255.255.255.128", 0},
                      Asked{"ip_get_local_mask --iod tun0", "0.0.0.0", 1},
                      Asked{"ip_get_local_prefix --iod tun0", "1", 0, "addr=10.0.0.1 mask_len=24"},
                      Asked{"ip_get_local_prefix --iod 4000", "1", 1, "addr=0.0.0.0 mask_len=0"},
                      Asked{"ip_get_best_local_addr --iod eth0 --dest 10.0.1.77", "10.0.1.1", 0},
                      Asked{"ip_get_best_local_addr --iod eth0 --dest 203.0.113.9", "10.0.0.1", 0},
                      Asked{"ip_get_best_intf_addr --iod eth0 --dest 10.0.1.77", "1", 0, "out=10.0.1.1"},
                      Asked{"ip_get_best_intf_addr --iod eth0 --dest 203.0.113.9", "0", 1, "out=0.0.0.0"},
                      Asked{"ip_get_active_local_address --context-id default", "10.0.0.1", 0},
                      Asked{"ip_get_active_local_address --context-id red", "0.0.0.0", 1},
                      Asked{"ip_get_local_mcast_addr --context-id default", "10.0.0.1", 0, "iod=2 (eth0)"},
                      Asked{"ip_get_loopback_addr", "127.0.0.1", 0},
                      Asked{"ip_get_vaddr_count_for_iod --iod eth0", "1", 0},
                      Asked{"ip_is_addr_directed_broadcast --addr 192.0.2.127 --iod eth1", "1", 0},
                      Asked{"ip_is_addr_directed_broadcast --addr 192.0.2.9 --iod eth1", "0", 1},
                      Asked{"ip_get_unnumbered_info --iod tun0", "1", 0, "addr=10.0.0.1 flag=1 name=eth0"},
                      Asked{"ip_get_unnumbered_info --iod eth0", "1", 1, "addr=0.0.0.0 flag=0 name="},
                      Asked{"ip_update_icmp_err_source_address --if-name eth0 --iod eth0", "10.0.0.1", 0,
                            "if_name=eth0 src_addr=10.0.0.1"},
                      Asked{"ip_update_icmp_err_source_address --if-name eth0 --src-addr 10.0.0.1 --iod eth0 --flag 0",
                            "0.0.0.0", 1, "if_name=eth0 src_addr=0.0.0.0"}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

INSTANTIATE_TEST_SUITE_P(
    OfAddressOwnership, IpshInterfaceQuery,
    ::testing::Values(Asked{"ip_is_addr_local_intf --context-id default --addr 10.0.0.100", "2 (eth0)", 0},
                      Asked{"ip_is_addr_local_intf --context-id default --addr 192.0.2.1", "0", 1},
                      Asked{"ip_is_addr_local_vip --context-id default --addr 10.0.0.100", "2 (eth0)", 0},
                      Asked{"ip_is_addr_local_vip --context-id default --addr 10.0.0.1", "0", 1},
                      Asked{"ip_is_addr_local_active --name default --addr 10.0.0.1", "2 (eth0)", 0},
                      Asked{"ip_is_addr_local --name red --addr 192.0.2.1", "3 (eth1)", 0},
                      Asked{"ip_is_addr_local_configured --context-id default --addr 10.0.0.2", "2 (eth0)", 0},
                      Asked{"ip_is_addr_local_configured --context-id default --addr 10.0.0.100", "0", 1},
                      Asked{"ip_get_iod_for_local --context default --addr 127.0.0.1", "1 (lo)", 0},
                      Asked{"ip_get_iod_for_local --context null --addr 127.0.0.1", "0", 1},
                      Asked{"ip_get_next_address --name default", "10.0.0.1", 0},
                      Asked{"ip_get_next_address --name default --addr 10.0.0.2", "10.0.0.100", 0},
                      Asked{"ip_get_next_all_address --name red --addr 192.0.2.1", "0.0.0.0", 1}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

INSTANTIATE_TEST_SUITE_P(
    OfStateAndRouterIds, IpshInterfaceQuery,
    ::testing::Values(Asked{"ip_enabled --iod tun0", "1", 0}, Asked{"ip_enabled --iod 4000", "0", 1},
                      Asked{"ip_forward_enabled --iod eth0", "1", 0}, Asked{"ip_forward_enabled --iod eth1", "0", 1},
                      Asked{"ip_get_each_enabled_iod", "1 (lo)", 0},
                      Asked{"ip_get_each_enabled_iod --prev eth1", "4 (tun0)", 0},
                      Asked{"ip_get_each_enabled_iod --prev tun0", "0", 1},
                      Asked{"ip_get_each_multicast_iod", "2 (eth0)", 0},
                      Asked{"ip_get_each_multicast_iod --prev eth1", "0", 1},
                      Asked{"ip_get_router_id --context-id default", "10.0.1.1", 0},
                      Asked{"ip_get_router_id --context-id 7", "0.0.0.0", 1},
                      Asked{"ip_get_router_id_iod --context-id red", "3 (eth1)", 0},
                      Asked{"ip_get_router_id_by_name --name red", "192.0.2.1", 0},
                      Asked{"ip_get_router_id_iod_by_name --name default", "2 (eth0)", 0},
                      Asked{"ip_get_mcast_pkt_stats --iod eth0", "0", 1, "c1=0 c2=0 c3=0 c4=0 c5=0"},
                      Asked{"ip_get_mcast_byte_stats --iod eth0", "0", 1, "b1=0 b2=0"}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

TEST_F(IpshWithSystem, AnIcmpErrorSourceOfAnotherInterfaceIsLeftAlone) {
  const Outcome outcome =
      ipsh(words_of("query ip_update_icmp_err_source_address --if-name eth1 --src-addr 192.0.2.1 --iod eth0 --json"));
  const json answer = json::parse(outcome.out);
  EXPECT_EQ(answer["result"]["type"], "number");
  EXPECT_NE(answer["result"]["value"], 0);
  EXPECT_EQ(outputs_of(answer), "if_name=eth1 src_addr=192.0.2.1");
}

TEST_F(IpshWithSystem, AContextThatIsNoneIsRefusedWhereARecordIsWanted) {
  const Outcome outcome = ipsh(words_of("query ip_get_iod_for_local --context blue --addr 127.0.0.1"));
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.err,
            "ipsh: --context: 'blue' is not accepted here; give a context: its name or its id; null for a null "
            "pointer\n");
}

}  // namespace
}  // namespace ipsh_test
