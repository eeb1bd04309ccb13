// SPDX-License-Identifier: Apache-2.0
#include "ipd/config.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <fstream>
#include <random>

#include "support/run_directory.h"

namespace {

using namespace ipd;

TEST(Config, AnEmptyFileAndAnEmptyObjectChangeNothing) {
  for (const char *text : {"", " \n\t", "{}", "{ } // nothing\n"}) {
    std::string reason;
    const auto configuration = parse_configuration(text, "f", &reason);
    ASSERT_TRUE(configuration) << reason;
    EXPECT_EQ(*configuration, Configuration{});
  }
}

TEST(Config, EveryKeyIsRead) {
  std::string reason;
  const auto configuration = parse_configuration(R"({
    // who we are
    "router_id": "192.0.2.1",
    "log_level": "debug",
    "read_group": "watchers",
    "configure_group": "500",
    "input_to_kernel": true,
    "contexts": [
      {"name": "default", "id": 1, "table": 254},
      {"name": "lab", "id": 7, "table": 100, "router_id": "192.0.2.7", "interfaces": ["eth1", "veth*"]}
    ],
    "vips": [{"interface": "eth0", "address": "198.51.100.9"}],
    "unnumbered": [{"interface": "tun0", "source": "lo"}],
    "load_share": {"mode": "custom", "value": 7},
    "icmp_errors": {"rate": 0, "burst": 1, "destination_rate": 1000000, "destination_burst": 9}
  })",
                                                 "f", &reason);
  ASSERT_TRUE(configuration) << reason;
  EXPECT_EQ(configuration->load_share, (LoadShareRule{.mode = 3, .value = 7}));
  EXPECT_EQ(configuration->icmp_errors,
            (IcmpErrorRule{.rate = 0, .burst = 1, .destination_rate = 1000000, .destination_burst = 9}));
  EXPECT_EQ(configuration->router_id, 0xc0000201u);
  EXPECT_EQ(configuration->log_level, LOG_DEBUG);
  EXPECT_EQ(configuration->read_group, "watchers");
  EXPECT_EQ(configuration->configure_group, "500");
  EXPECT_TRUE(configuration->input_to_kernel);
  ASSERT_EQ(configuration->contexts.size(), 2u);
  EXPECT_EQ(
      configuration->contexts[1],
      (ContextRule{.name = "lab", .id = 7, .table = 100, .router_id = 0xc0000207, .interfaces = {"eth1", "veth*"}}));
  EXPECT_EQ(configuration->vips, (std::vector<VipRule>{{.interface = "eth0", .address = 0xc6336409}}));
  EXPECT_EQ(configuration->unnumbered, (std::vector<UnnumberedRule>{{.interface = "tun0", .source = "lo"}}));
}

TEST(Config, WhatIsInForceIsDescribed) {
  std::string reason;
  const auto configuration = parse_configuration(
      R"({"router_id": "192.0.2.1", "log_level": "info", "contexts": [{"name": "lab", "id": 7, "table": 100,
          "router_id": "192.0.2.7", "interfaces": ["eth1", "veth*"]}], "vips": [{"interface": "eth0",
          "address": "198.51.100.9"}], "unnumbered": [{"interface": "tun0", "source": "lo"}],
          "load_share": {"mode": "l4"}, "read_group": "watchers", "configure_group": "routing",
          "icmp_errors": {"rate": 7}, "input_to_kernel": true})",
      "f", &reason);
  ASSERT_TRUE(configuration) << reason;
  EXPECT_EQ(describe(*configuration),
            "router id 192.0.2.1\n"
            "log level info\n"
            "load share l4 value 0\n"
            "ICMP errors in all 7 a second, 50 at once\n"
            "ICMP errors to one destination 1 a second, 6 at once\n"
            "read group watchers\n"
            "configure group routing\n"
            "input goes to the kernel, too\n"
            "context lab id 7 table 100 router id 192.0.2.7 interfaces eth1 veth*\n"
            "virtual address 198.51.100.9 on eth0\n"
            "unnumbered tun0 borrows from lo\n");
}

TEST(Config, LimitsOfIcmpErrorsThatAreNotGivenAreTheUsualOnes) {
  std::string reason;
  const auto configuration =
      parse_configuration(R"({"icmp_errors": {"destination_burst": 2, "destination_rate": 0}})", "f", &reason);
  ASSERT_TRUE(configuration) << reason;
  EXPECT_EQ(configuration->icmp_errors,
            (IcmpErrorRule{.rate = 1000, .burst = 50, .destination_rate = 0, .destination_burst = 2}));
  EXPECT_EQ(describe(*configuration),
            "ICMP errors in all 1000 a second, 50 at once\n"
            "ICMP errors to one destination without limit\n");
}

TEST(Config, InputGoesToTheKernelOnlyWhenTheFileSaysSo) {
  std::string reason;
  for (const char *text : {"{}", R"({"input_to_kernel": false})"}) {
    const auto configuration = parse_configuration(text, "f", &reason);
    ASSERT_TRUE(configuration) << reason;
    EXPECT_FALSE(configuration->input_to_kernel);
    EXPECT_EQ(describe(*configuration), "");
  }
}

struct Mistake {
  const char *name;
  const char *text;
  const char *reason;  // behind "f: "
};

const Mistake mistakes[] = {
    {"UnknownKey", R"({"colour": 1})", "colour: unknown key"},
    {"UnknownKeyOfAContext", R"({"contexts": [{"name": "a", "vrf": 1}]})", "contexts[0].vrf: unknown key"},
    {"UnknownKeyOfAVip", R"({"vips": [{"interface": "a", "address": "1.2.3.4", "mask": 1}]})",
     "vips[0].mask: unknown key"},
    {"UnknownKeyOfAnUnnumbered", R"({"unnumbered": [{"interface": "a", "source": "b", "x": 1}]})",
     "unnumbered[0].x: unknown key"},
    {"RepeatedKey", R"({"router_id": "1.1.1.1", "router_id": "2.2.2.2"})", "router_id: given twice"},
    {"RepeatedKeyInside", R"({"contexts": [{"name": "a", "name": "b"}]})", "name: given twice"},
    {"NotAnObject", "[]", "the file: must be an object { }"},
    {"JustANumber", "7", "the file: must be an object { }"},
    {"Unfinished", R"({"vips": [)", "line 1, column "},
    {"TrailingText", "{} {}", "line 1, column "},
    {"TooDeep", "[[[[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]]]]", "nested too deeply"},
    {"LoadShareNotAnObject", R"({"load_share": "l4"})", "load_share: must be an object { }"},
    {"LoadShareWithoutMode", R"({"load_share": {"value": 1}})", "load_share.mode: missing"},
    {"LoadShareOfNoMode", R"({"load_share": {"mode": "l5"}})",
     "load_share.mode: must be \"l3\", \"l4\", \"inner-l3\" or \"custom\""},
    {"IcmpErrorsNotAnObject", R"({"icmp_errors": 7})", "icmp_errors: must be an object { }"},
    {"UnknownKeyOfIcmpErrors", R"({"icmp_errors": {"limit": 7}})", "icmp_errors.limit: unknown key"},
    {"IcmpErrorsRateTooLarge", R"({"icmp_errors": {"rate": 1000001}})",
     "icmp_errors.rate: must be a whole number from 0 to 1000000"},
    {"IcmpErrorsBurstOfZero", R"({"icmp_errors": {"burst": 0}})",
     "icmp_errors.burst: must be a whole number from 1 to 1000000"},
    {"IcmpErrorsDestinationRateNegative", R"({"icmp_errors": {"destination_rate": -1}})",
     "icmp_errors.destination_rate: must be a whole number from 0 to 1000000"},
    {"IcmpErrorsDestinationBurstOfZero", R"({"icmp_errors": {"destination_burst": 0}})",
     "icmp_errors.destination_burst: must be a whole number from 1 to 1000000"},
    {"InputToKernelATextInQuotes", R"({"input_to_kernel": "true"})", "input_to_kernel: must be true or false"},
    {"InputToKernelANumber", R"({"input_to_kernel": 1})", "input_to_kernel: must be true or false"},
    {"ContextsNotAList", R"({"contexts": {}})", "contexts: must be a list [ ]"},
    {"VipsNotAList", R"({"vips": "eth0"})", "vips: must be a list [ ]"},
    {"UnnumberedNotAList", R"({"unnumbered": 4})", "unnumbered: must be a list [ ]"},
    {"ContextNotAnObject", R"({"contexts": ["a"]})", "contexts[0]: must be an object { }"},
    {"ContextWithoutName", R"({"contexts": [{"id": 2}]})", "contexts[0].name: missing"},
    {"ContextNameNotAText", R"({"contexts": [{"name": 3}]})", "contexts[0].name: must be a text in quotes"},
    {"ContextNameEmpty", R"({"contexts": [{"name": ""}]})", "contexts[0].name: must not be empty"},
    {"ContextNameTooLong", R"({"contexts": [{"name": "abcdefghijklmnopqrstuvwxyz0123456789"}]})",
     "contexts[0].name: longer than 35 characters"},
    {"ContextNameWithSpace", R"({"contexts": [{"name": "a b"}]})",
     "contexts[0].name: must not contain spaces or control characters"},
    {"ContextNameTwice", R"({"contexts": [{"name": "a"}, {"name": "a"}]})",
     "contexts[1].name: \"a\" is another context's already"},
    {"IdZero", R"({"contexts": [{"name": "a", "id": 0}]})",
     "contexts[0].id: must be a whole number from 1 to 2147483647"},
    {"IdNegative", R"({"contexts": [{"name": "a", "id": -5}]})",
     "contexts[0].id: must be a whole number from 1 to 2147483647"},
    {"IdFraction", R"({"contexts": [{"name": "a", "id": 2.5}]})",
     "contexts[0].id: must be a whole number from 1 to 2147483647"},
    {"IdAText", R"({"contexts": [{"name": "a", "id": "2"}]})",
     "contexts[0].id: must be a whole number from 1 to 2147483647"},
    {"IdTooLarge", R"({"contexts": [{"name": "a", "id": 2147483648}]})",
     "contexts[0].id: must be a whole number from 1 to 2147483647"},
    {"IdHuge", R"({"contexts": [{"name": "a", "id": 99999999999999999999999}]})",
     "contexts[0].id: must be a whole number from 1 to 2147483647"},
    {"IdOfDefault", R"({"contexts": [{"name": "a", "id": 1}]})", "contexts[0].id: 1 is the default context's"},
    {"IdTwice", R"({"contexts": [{"name": "a", "id": 2}, {"name": "b", "id": 2}]})",
     "contexts[1].id: is another context's already"},
    {"TableZero", R"({"contexts": [{"name": "a", "table": 0}]})",
     "contexts[0].table: must be a whole number from 1 to 4294967295"},
    {"TableOfDefault", R"({"contexts": [{"name": "a", "table": 254}]})",
     "contexts[0].table: 254 is the default context's"},
    {"TableOfTheKernel", R"({"contexts": [{"name": "a", "table": 255}]})",
     "contexts[0].table: 253 and 255 are the kernel's own"},
    {"TableTwice", R"({"contexts": [{"name": "a", "table": 9}, {"name": "b", "table": 9}]})",
     "contexts[1].table: is another context's already"},
    {"TableMissing", R"({"contexts": [{"name": "a", "interfaces": ["eth*"]}]})",
     "contexts[0].table: missing; a context with interfaces needs one"},
    {"DefaultWithAnotherId", R"({"contexts": [{"name": "default", "id": 2}]})",
     "contexts[0].id: the default context has id 1"},
    {"DefaultWithAnotherTable", R"({"contexts": [{"name": "default", "table": 7}]})",
     "contexts[0].table: the default context has table 254"},
    {"DefaultWithInterfaces", R"({"contexts": [{"name": "default", "interfaces": ["a"]}]})",
     "contexts[0].interfaces: the default context has every interface that no other context has"},
    {"RouterIdTwice", R"({"router_id": "1.1.1.1", "contexts": [{"name": "default", "router_id": "2.2.2.2"}]})",
     "contexts[0].router_id: given twice: the router_id at the top is the default context's"},
    {"RouterIdNotAnAddress", R"({"router_id": "1.1.1"})", "router_id: must be an IPv4 address such as \"192.0.2.1\""},
    {"RouterIdZero", R"({"router_id": "0.0.0.0"})", "router_id: must not be 0.0.0.0"},
    {"RouterIdANumber", R"({"router_id": 7})", "router_id: must be a text in quotes"},
    {"RouterIdNull", R"({"router_id": null})", "router_id: must be a text in quotes"},
    {"PatternsNotAList", R"({"contexts": [{"name": "a", "table": 9, "interfaces": "eth*"}]})",
     "contexts[0].interfaces: must be a list [ ]"},
    {"NoPattern", R"({"contexts": [{"name": "a", "table": 9, "interfaces": []}]})",
     "contexts[0].interfaces: must name at least one pattern"},
    {"PatternNotAText", R"({"contexts": [{"name": "a", "table": 9, "interfaces": ["x", 1]}]})",
     "contexts[0].interfaces[1]: must be a text in quotes"},
    {"PatternEmpty", R"({"contexts": [{"name": "a", "table": 9, "interfaces": [""]}]})",
     "contexts[0].interfaces[0]: must not be empty"},
    {"PatternTooLong",
     R"({"contexts": [{"name": "a", "table": 9, "interfaces": ["0123456789012345678901234567890123456789012345678901234567890123"]}]})",
     "contexts[0].interfaces[0]: longer than 63 characters"},
    {"PatternTwice", R"({"contexts": [{"name": "a", "table": 9, "interfaces": ["x", "x"]}]})",
     "contexts[0].interfaces[1]: given twice"},
    {"VipWithoutInterface", R"({"vips": [{"address": "1.2.3.4"}]})", "vips[0].interface: missing"},
    {"VipWithoutAddress", R"({"vips": [{"interface": "a"}]})", "vips[0].address: missing"},
    {"VipInterfaceTooLong", R"({"vips": [{"interface": "sixteen-letters-", "address": "1.2.3.4"}]})",
     "vips[0].interface: longer than 15 characters"},
    {"VipAddressMalformed", R"({"vips": [{"interface": "a", "address": "1.2.3.256"}]})",
     "vips[0].address: must be an IPv4 address such as \"192.0.2.1\""},
    {"VipMulticast", R"({"vips": [{"interface": "a", "address": "224.0.0.1"}]})",
     "vips[0].address: is not an address that a host can have"},
    {"VipLoopback", R"({"vips": [{"interface": "a", "address": "127.0.0.1"}]})",
     "vips[0].address: is not an address that a host can have"},
    {"VipZero", R"({"vips": [{"interface": "a", "address": "0.0.0.0"}]})",
     "vips[0].address: is not an address that a host can have"},
    {"VipTwice", R"({"vips": [{"interface": "a", "address": "1.2.3.4"}, {"interface": "a", "address": "1.2.3.4"}]})",
     "vips[1].address: given twice for this interface"},
    {"UnnumberedWithoutSource", R"({"unnumbered": [{"interface": "a"}]})", "unnumbered[0].source: missing"},
    {"UnnumberedWithoutInterface", R"({"unnumbered": [{"source": "a"}]})", "unnumbered[0].interface: missing"},
    {"UnnumberedFromItself", R"({"unnumbered": [{"interface": "a", "source": "a"}]})",
     "unnumbered[0].source: must be another interface"},
    {"UnnumberedTwice", R"({"unnumbered": [{"interface": "a", "source": "b"}, {"interface": "a", "source": "c"}]})",
     "unnumbered[1].interface: is unnumbered already"},
    {"UnnumberedFromUnnumbered",
     R"({"unnumbered": [{"interface": "a", "source": "b"}, {"interface": "c", "source": "a"}]})",
     "unnumbered[1].source: is unnumbered itself"},
    {"LenderBecomesUnnumbered",
     R"({"unnumbered": [{"interface": "a", "source": "b"}, {"interface": "b", "source": "c"}]})",
     "unnumbered[1].interface: lends its address to another interface"},
    {"SourceTooLong", R"({"unnumbered": [{"interface": "a", "source": "sixteen-letters-"}]})",
     "unnumbered[0].source: longer than 15 characters"},
    {"ReadGroupEmpty", R"({"read_group": ""})", "read_group: must not be empty"},
    {"ConfigureGroupANumber", R"({"configure_group": 500})", "configure_group: must be a text in quotes"},
    {"LogLevelUnknown", R"({"log_level": "loud"})",
     "log_level: must be \"error\", \"warning\", \"notice\", \"info\" or \"debug\""},
    {"LogLevelANumber", R"({"log_level": 7})", "log_level: must be a text in quotes"},
};

class ConfigMistake : public testing::TestWithParam<Mistake> {};

TEST_P(ConfigMistake, IsRefusedWithFileKeyAndReason) {
  std::string reason;
  EXPECT_FALSE(parse_configuration(GetParam().text, "f", &reason));
  EXPECT_EQ(reason.substr(0, 3 + strlen(GetParam().reason)), std::string("f: ") + GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(Table, ConfigMistake, testing::ValuesIn(mistakes),
                         [](const auto &tested) { return std::string(tested.param.name); });

TEST(Config, AFileThatIsNotThereIsNamed) {
  std::string reason;
  EXPECT_FALSE(load_configuration("/nowhere-at-all/ipd.conf", &reason));
  EXPECT_EQ(reason, "/nowhere-at-all/ipd.conf: No such file or directory");
}

TEST(Config, ADirectoryIsNotAFile) {
  test_support::RunDirectory directory;
  std::string reason;
  EXPECT_FALSE(load_configuration(directory.path(), &reason));
  EXPECT_EQ(reason, directory.path() + ": Is a directory");
}

TEST(Config, AFileBeyondTheLimitIsRefused) {
  test_support::RunDirectory directory;
  const std::string file = directory.path() + "/large.conf";
  std::ofstream(file) << std::string((16u << 20) + 1, ' ');
  std::string reason;
  EXPECT_FALSE(load_configuration(file, &reason));
  EXPECT_EQ(reason, file + ": larger than 16 MiB");
}

TEST(Config, DamagedTextIsRefusedOrReadButNeverWorse) {
  std::mt19937 random(42);
  const std::string whole =
      R"({"router_id":"192.0.2.1","contexts":[{"name":"a","table":9,"interfaces":["x"]}],"vips":[{"interface":"e","address":"1.2.3.4"}]})";
  int read = 0;
  int refused = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = whole;
    text[random() % text.size()] = static_cast<char>(random());
    text[random() % text.size()] = static_cast<char>(random());
    if (round % 3 == 0) text.resize(random() % text.size());
    std::string reason;
    if (parse_configuration(text, "f", &reason)) {
      ++read;
    } else {
      ++refused;
      ASSERT_EQ(reason.substr(0, 3), "f: ");
    }
  }
  EXPECT_GT(read, 0);
  EXPECT_GT(refused, 0);
}

TEST(Config, AddressesGoThroughTextAndBack) {
  for (uint32_t address : {0u, 1u, 0x0a000001u, 0xffffffffu, 0xc0000201u}) {
    EXPECT_EQ(parse_address(print_address(address)), address);
  }
  for (const char *text : {"", "1", "1.2.3", "1.2.3.4.5", "256.1.1.1", " 1.2.3.4", "1.2.3.4 ", "01.2.3.4x"}) {
    EXPECT_EQ(parse_address(text), std::nullopt) << text;
  }
}

}  // namespace
