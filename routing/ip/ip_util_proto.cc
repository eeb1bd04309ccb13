// SPDX-License-Identifier: Apache-2.0
// Keywords of IP protocol numbers, for configuration and for what is shown.
//
// The numbers are IANA's; the keywords are this table's own and stand in configurations, so none ever changes: 4 is
// "ip" and 94 is "ipip" here.
#include <array>
#include <cctype>
#include <cstring>

#include "ip_api.h"

namespace {

constexpr size_t longest_name = 16;
constexpr uint32_t no_protocol = 255;

// By number.
constexpr std::array proto_names = {"hopopt",      "icmp",       "igmp",        "ggp",        "ip",
                                    "st",          "tcp",        "cbt",         "egp",        "igp",
                                    "bbn-rcc-mon", "nvp-ii",     "pup",         "argus",      "emcon",
                                    "xnet",        "chaos",      "udp",         "mux",        "dcn-meas",
                                    "hmp",         "prm",        "xns-idp",     "trunk-1",    "trunk-2",
                                    "leaf-1",      "leaf-2",     "rdp",         "irtp",       "iso-tp4",
                                    "netblt",      "mfe-nsp",    "merit-inp",   "sep",        "3pc",
                                    "idpr",        "xtp",        "ddp",         "idpr-cmtp",  "tp++",
                                    "ir",          "ipv6",       "sdrp",        "ipv6-route", "ipv6-frag",
                                    "idrp",        "rsvp",       "gre",         "mhrp",       "bna",
                                    "esp",         "ah",         "i-nlsp",      "swipe",      "narp",
                                    "mobile",      "tlsp",       "skip",        "ipv6-icmp",  "ipv6-nonxt",
                                    "ipv6-opts",   "ahip",       "cftp",        "alan",       "sat-expak",
                                    "kryptolan",   "rvd",        "ippc",        "adfs",       "sat-mon",
                                    "visa",        "ipcv",       "cpnx",        "cphb",       "wsn",
                                    "pvp",         "br-sat-mon", "sun-nd",      "wb-mon",     "wb-expak",
                                    "iso-ip",      "vmtp",       "secure-vmtp", "vines",      "ttp",
                                    "nsfnet-igp",  "dgp",        "tcf",         "eigrp",      "ospf",
                                    "sprite-rpc",  "larp",       "mtp",         "ax-25",      "ipip",
                                    "micp",        "scc-sp",     "etherip",     "encap",      "apes",
                                    "gmtp",        "ifmp",       "pnni",        "pim",        "aris",
                                    "scps",        "qnx",        "a-n",         "ipcomp",     "snp",
                                    "compaq-peer", "ipx-in-ip",  "vrrp",        "pgp",        "azhp",
                                    "l2tp",        "ddx",        "iatp",        "stp",        "srp",
                                    "uti",         "smp",        "sm",          "ptp",        "isis-over-ipv4",
                                    "fire",        "crtp",       "crudp",       "sscopmce",   "iplt",
                                    "sps",         "pipe",       "sctp",        "fc",         "rsvp-e2e-ignore"};
static_assert(proto_names.size() == 135, "numbers 0 to 134");

}  // namespace

extern "C" {

const char *ip_get_proto_name(uint8_t proto) {
  return proto < proto_names.size() ? proto_names[proto] : "unknown";
}

uint32_t ip_get_proto_num(const char *name) {
  if (name == nullptr) return no_protocol;
  char lower[longest_name + 1];
  size_t length = 0;
  for (; length < longest_name && name[length] != '\0'; length++) {
    lower[length] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[length])));
  }
  lower[length] = '\0';
  for (uint32_t number = 0; number < proto_names.size(); number++) {
    if (std::strcmp(lower, proto_names[number]) == 0) return number;
  }
  return no_protocol;
}

}  // extern "C"
