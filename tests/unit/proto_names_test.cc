// SPDX-License-Identifier: Apache-2.0
// Keywords of protocol numbers, both ways.
#include <clocale>
#include <string>

#include "unit/library_test.h"

namespace unit {
namespace {

using ProtoNamesTest = LibraryTest;

// By number, one blank between two.
const std::string all_names =
    "hopopt icmp igmp ggp ip st tcp cbt egp igp bbn-rcc-mon nvp-ii pup argus emcon xnet chaos udp mux dcn-meas hmp prm "
    "xns-idp trunk-1 trunk-2 leaf-1 leaf-2 rdp irtp iso-tp4 netblt mfe-nsp merit-inp sep 3pc idpr xtp ddp idpr-cmtp "
    "tp++ ir ipv6 sdrp ipv6-route ipv6-frag idrp rsvp gre mhrp bna esp ah i-nlsp swipe narp mobile tlsp skip ipv6-icmp "
    "ipv6-nonxt ipv6-opts ahip cftp alan sat-expak kryptolan rvd ippc adfs sat-mon visa ipcv cpnx cphb wsn pvp "
    "br-sat-mon sun-nd wb-mon wb-expak iso-ip vmtp secure-vmtp vines ttp nsfnet-igp dgp tcf eigrp ospf sprite-rpc larp "
    "mtp ax-25 ipip micp scc-sp etherip encap apes gmtp ifmp pnni pim aris scps qnx a-n ipcomp snp compaq-peer "
    "ipx-in-ip vrrp pgp azhp l2tp ddx iatp stp srp uti smp sm ptp isis-over-ipv4 fire crtp crudp sscopmce iplt sps "
    "pipe sctp fc rsvp-e2e-ignore";

TEST_F(ProtoNamesTest, EveryNumberHasItsKeyword) {
  std::string names;
  for (int number = 0; number <= 134; number++) {
    if (number > 0) names += ' ';
    names += ip_get_proto_name(static_cast<uint8_t>(number));
  }
  EXPECT_EQ(names, all_names);
}

TEST_F(ProtoNamesTest, WellKnownNumbersHaveTheirKeywords) {
  for (const auto &[number, name] : std::initializer_list<std::pair<uint8_t, const char *>>{
           {1, "icmp"},   {4, "ip"},     {6, "tcp"},    {17, "udp"},   {47, "gre"},
           {50, "esp"},   {51, "ah"},    {61, "ahip"},  {63, "alan"},  {68, "adfs"},
           {88, "eigrp"}, {89, "ospf"},  {94, "ipip"},  {98, "encap"}, {99, "apes"},
           {103, "pim"},  {112, "vrrp"}, {114, "azhp"}, {132, "sctp"}, {134, "rsvp-e2e-ignore"}}) {
    EXPECT_STREQ(ip_get_proto_name(number), name);
    EXPECT_EQ(ip_get_proto_num(name), number);
  }
}

TEST_F(ProtoNamesTest, NumbersAbove134AreUnknown) {
  for (int number = 135; number <= 255; number++)
    EXPECT_STREQ(ip_get_proto_name(static_cast<uint8_t>(number)), "unknown");
}

TEST_F(ProtoNamesTest, EveryKeywordHasItsNumber) {
  for (uint32_t number = 0; number <= 134; number++) {
    EXPECT_EQ(ip_get_proto_num(ip_get_proto_name(static_cast<uint8_t>(number))), number);
  }
}

TEST_F(ProtoNamesTest, LetterCaseDoesNotCount) {
  for (const char *name : {"OSPF", "ospf", "Ospf"}) EXPECT_EQ(ip_get_proto_num(name), 89u) << name;
  EXPECT_EQ(ip_get_proto_num("RSVP-E2E-IGNORE"), 134u);
}

TEST_F(ProtoNamesTest, WhatIsNoKeywordGives255) {
  for (const char *name : {"ipv4", "17", "unknown", "", " ospf", "ospf ", "osp", "ospff"}) {
    EXPECT_EQ(ip_get_proto_num(name), 255u) << name;
  }
  EXPECT_EQ(ip_get_proto_num(nullptr), 255u);
}

TEST_F(ProtoNamesTest, ALongNameIsNoKeyword) {
  EXPECT_EQ(ip_get_proto_num("rsvp-e2e-ignored"), 255u) << "16 characters";
  EXPECT_EQ(ip_get_proto_num("rsvp-e2e-ignore-and-more"), 255u);
  EXPECT_EQ(ip_get_proto_num(std::string(5000, 'a').c_str()), 255u);
}

TEST_F(ProtoNamesTest, BytesAbove127AreNoKeyword) {
  EXPECT_EQ(ip_get_proto_num("\xcf\xd3\xd0\xc6"), 255u);
  EXPECT_EQ(ip_get_proto_num("ospf\xff"), 255u);
}

}  // namespace
}  // namespace unit
