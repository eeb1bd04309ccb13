// SPDX-License-Identifier: Apache-2.0
// Queries of contexts, local addresses and address utilities under their exported names, and how an answer is shown.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ipsh_asked.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

class IpshUtilityQuery : public IpshWithoutIpd, public ::testing::WithParamInterface<Asked> {};
TEST_P(IpshUtilityQuery, AnswersWithoutARunningSystem) {
  expect_answer(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    OfAddressesMasksAndPrefixes, IpshUtilityQuery,
    ::testing::Values(
        Asked{"ip_bits2mask --len 24", "255.255.255.0", 0}, Asked{"ip_bits2mask --len 0", "0.0.0.0", 1},
        Asked{"ip_wildcard_mask --len 24", "0.0.0.255", 0}, Asked{"ip_wildcard_mask --len 32", "0.0.0.0", 1},
        Asked{"ip_mask2bits --mask 255.255.255.0", "24", 0}, Asked{"ip_mask2bits --mask /9", "9", 0},
        Asked{"ip_mask2bits --mask 0xff00ff00", "24", 0}, Asked{"ip_bytesinmask --mask 0xffffff00", "3", 0},
        Asked{"ip_natural_mask --addr 172.16.0.1", "255.255.0.0", 0},
        Asked{"ip_natural_mask --addr 224.0.0.1", "0.0.0.0", 1}, Asked{"ip_prefix_martian --addr 127.0.0.1", "1", 0},
        Asked{"ip_prefix_martian --addr 0.0.0.0", "0", 1}, Asked{"ip_address_martian --addr 0.0.0.0", "1", 0},
        Asked{"ip_is_addr_broadcast --addr 10.1.1.255 --mask 255.255.255.0", "1", 0},
        Asked{"ip_is_addr_broadcast --mask /24 --addr 10.1.1.7", "0", 1},
        Asked{"ip_is_addr_multicast --addr 224.0.0.5", "1", 0}, Asked{"ip_is_addr_multicast --addr 0xe0000005", "1", 0},
        Asked{"ip_is_mask_contiguous --mask 255.0.255.0", "0", 1},
        Asked{"ip_get_broadcast_address --addr 10.1.1.1 --len 24", "10.1.1.255", 0},
        Asked{"ip_is_addr_in_prefix --addr 10.1.2.3 --prefix 10.0.0.0 --len 8", "1", 0},
        Asked{"ip_is_addr_in_prefix --addr 11.1.2.3 --prefix 10.0.0.0 --len 8", "0", 1},
        Asked{"ip_get_mac_multicast --group 239.129.1.2", "-", 0, "mac=01:00:5e:01:01:02"},
        Asked{"ip_match_prefix --a 10.0.0.0/8 --b 10.0.0.1/8", "0", 1},
        Asked{"ip_match_prefix --a 10.0.0.0/8 --b 10.0.0.0/8", "1", 0},
        Asked{"ip_copy_prefix --src 10.0.0.0/8", "-", 0, "addr=10.0.0.0 mask_len=8"},
        Asked{"inet_ntoa --addr-net 10.1.2.3", "10.1.2.3", 0}, Asked{"ip_print_addr --addr 0x0a010203", "10.1.2.3", 0},
        Asked{"ip_print_prefix --prefix 255.255.255.255/32", "255.255.255.255/32", 0},
        Asked{"ip_is_syslog_svr_address --addr 10.1.2.3", "0", 1}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

class IpshSystemQuery : public IpshWithSystem, public ::testing::WithParamInterface<Asked> {};
TEST_P(IpshSystemQuery, AnswersFromTheSharedDatabase) {
  expect_answer(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    OfContextsAndLocalAddresses, IpshSystemQuery,
    ::testing::Values(
        Asked{"ip_get_api_context_id --name red", "2", 0}, Asked{"ip_get_api_context_id --name 2", "2", 0},
        Asked{"ip_get_api_context_id --name RED", "0", 1}, Asked{"ip_get_api_context_name --context-id 2", "red", 0},
        Asked{"ip_get_api_context_name --context-id 7", "null", 1},
        Asked{"ip_is_address_on_interface --addr 10.0.1.1 --iod eth0", "1", 0},
        Asked{"ip_is_address_on_interface --addr 10.0.1.1 --iod lo", "0", 1},
        Asked{"ip_is_address_on_interface --addr 10.0.1.1 --iod 4000", "0", 1},
        Asked{"ip_get_local_mask_len --addr 192.0.2.1 --iod eth1", "25", 0},
        Asked{"ip_get_next_secondary --iod eth0", "-", 0, "addr=10.0.0.2 mask_len=24"},
        Asked{"ip_get_next_secondary --iod eth0 --addr 10.0.0.2 --mask-len 24", "-", 0, "addr=10.0.1.1 mask_len=24"},
        Asked{"ip_get_next_secondary --iod eth0 --addr 10.0.1.1 --mask-len 24", "-", 1, "addr=0.0.0.0 mask_len=0"},
        Asked{"ip_get_secondary_count --iod eth0", "2", 0}, Asked{"ip_get_secondary_count --iod lo", "0", 1},
        Asked{"ip_is_group_joined --group 224.0.0.5 --iod eth0", "1", 0},
        Asked{"ip_is_group_joined --group 224.0.0.6 --iod eth0", "0", 1},
        Asked{"ip_allow_directed_broadcast --iod eth0", "1", 0}, Asked{"ip_allow_directed_broadcast --iod lo", "0", 1},
        Asked{"ip_is_iod_unnumbered --iod tun0", "1", 0}, Asked{"ip_is_iod_unnumbered --iod eth0", "0", 1},
        Asked{"ip_is_multicast_enabled --iod eth0", "1", 0}, Asked{"ip_is_multicast_enabled --iod lo", "0", 1},
        Asked{"ip_get_iod_for_local_address --name red --addr 192.0.2.1", "3 (eth1)", 0},
        Asked{"ip_get_iod_for_local_address --name 2 --addr 192.0.2.1", "3 (eth1)", 0},
        Asked{"ip_get_iod_for_local_address --name default --addr 192.0.2.1", "0", 1},
        Asked{"ip_get_alliod_for_address --name default --addr 127.0.0.1", "1 (lo)", 0},
        Asked{"ip_get_best_intf_vip --context-id default --addr 10.0.0.1 --iod eth0", "1", 0, "out=10.0.0.100"},
        Asked{"ip_get_best_intf_vip --context-id 1 --addr 127.0.0.1 --iod lo", "0", 1},
        Asked{"ip_urib_is_addr_active_local --table-id default --addr 203.0.113.9", "0", 1},
        Asked{"ip_get_mtu --iod eth1", "9000", 0}, Asked{"ip_get_mtu --iod 4000", "0", 1},
        Asked{"ip_calc_effective_mtu --iod eth0", "1500", 0},
        Asked{"ip_calc_effective_mtu --i1 1 --i2 2 --i3 3 --i4 4 --i5 5 --iod eth0", "1500", 0}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

TEST_F(IpshWithSystem, AContextRecordIsShownFieldByField) {
  for (const char *line : {"query ip_get_api_context --context-id red --json",
                           "query ip_get_api_context_by_name --name "
                           "red --json"}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 0);
    const json answer = json::parse(outcome.out);
    EXPECT_EQ(outputs_of(answer), "context_id=2 name=red router_id=192.0.2.1 router_id_iod=3 (eth1) table_id=100");
    EXPECT_TRUE(answer["result"]["value"].is_number_unsigned());
  }
  EXPECT_EQ(ipsh(words_of("query ip_get_api_context --context-id 9")).exit_code, 1);
  EXPECT_EQ(ipsh(words_of("query ip_get_api_context_by_name --name nobody")).exit_code, 1);
}

TEST_F(IpshWithSystem, AnUnderscoreInAnOptionsNameIsAsGoodAsADash) {
  EXPECT_EQ(ipsh(words_of("query ip_get_api_context_name --context_id red")).exit_code, 0);
  EXPECT_EQ(ipsh(words_of("query ip_get_api_context_name --context_id=1")).exit_code, 0);
}

TEST_F(IpshWithSystem, TheLibrarysErrorTextIsShown) {
  const Outcome outcome = ipsh(words_of("query ip_get_iod_for_local_address --name blue --addr 127.0.0.1"));
  EXPECT_EQ(outcome.out,
            "call        ip_get_iod_for_local_address(name=blue, addr=127.0.0.1)\n"
            "value       0\n"
            "reads as    no interface of the context holds the address\n"
            "error text  Failed to get ctxt_type for context blue\n");
  EXPECT_EQ(outcome.exit_code, 1);
}

TEST_F(IpshWithSystem, AnAnswerShowsTheCallTheValueAndHowToReadIt) {
  EXPECT_EQ(ipsh(words_of("query ip_is_address_on_interface --addr 10.0.0.2 --iod eth0")).out,
            "call      ip_is_address_on_interface(addr=10.0.0.2, iod=2 (eth0))\n"
            "value     1\n"
            "reads as  yes: it is an address of the interface\n");
}

}  // namespace
}  // namespace ipsh_test
