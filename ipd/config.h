// SPDX-License-Identifier: Apache-2.0
// The configuration file: what a kernel does not know. packaging/man/ipd.conf.5 says every key.
#ifndef IPD_CONFIG_H
#define IPD_CONFIG_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ipd {

struct ContextRule {
  std::string name;
  uint32_t id = 0;         // 0: ipd allots one
  uint32_t table = 0;      // 0: the VRF device says it
  uint32_t router_id = 0;  // host order; 0: chosen from the addresses
  // Interfaces by shell pattern; a rule with any makes its context even where the kernel has no such VRF device.
  std::vector<std::string> interfaces;
  bool operator==(const ContextRule &) const = default;
};

struct VipRule {
  std::string interface;
  uint32_t address = 0;  // host order
  bool operator==(const VipRule &) const = default;
};

struct UnnumberedRule {
  std::string interface;
  std::string source;  // the interface whose address is borrowed
  bool operator==(const UnnumberedRule &) const = default;
};

// A route table: a context's, or one by its number.
struct TableName {
  std::string context;  // empty: by number
  uint32_t table = 0;
  bool operator==(const TableName &) const = default;
};

struct MulticastNextHop {
  std::string interface;  // empty: found by resolving the address
  uint32_t address = 0;   // host order; 0: the source itself, or whatever is behind the interface
  bool operator==(const MulticastNextHop &) const = default;
};

// A static route that only reverse-path checks of multicast use.
struct MulticastRouteRule {
  TableName table;
  uint32_t addr = 0;  // host order
  uint8_t len = 0;
  uint32_t metric = 0;
  std::vector<MulticastNextHop> next_hops;  // at least one
  bool operator==(const MulticastRouteRule &) const = default;
};

// What `from` has for the prefix is visible in `to`.
struct LeakRule {
  uint32_t addr = 0;  // host order
  uint8_t len = 0;
  TableName from, to;
  bool operator==(const LeakRule &) const = default;
};

struct LoadShareRule {  // how equal-cost paths share the load
  uint8_t mode = 0;     // in the kernel's order: 0 "l3", 1 "l4", 2 "inner-l3", 3 "custom"
  uint32_t value = 0;
  bool operator==(const LoadShareRule &) const = default;
};

// How many ICMP errors are sent. A rate of 0 is no limit.
struct IcmpErrorRule {
  uint32_t rate = 1000;  // in a second, all together
  uint32_t burst = 50;   // at once, after a rest; never 0
  uint32_t destination_rate = 1;
  uint32_t destination_burst = 6;
  bool operator==(const IcmpErrorRule &) const = default;
};

struct Configuration {
  std::vector<ContextRule> contexts;  // in the file's order: the first rule that matches an interface has it
  std::vector<VipRule> vips;
  std::vector<UnnumberedRule> unnumbered;
  std::vector<MulticastRouteRule> multicast_routes;
  std::vector<LeakRule> leaks;
  uint32_t router_id = 0;        // of the default context
  std::optional<int> log_level;  // as in syslog(3)
  std::optional<LoadShareRule> load_share;
  IcmpErrorRule icmp_errors;
  // Who may ask, and who may change things; by name or number, empty: not said.
  std::string read_group, configure_group;
  bool input_to_kernel = false;  // packets that clients hand in for input go to the kernel, too
  bool operator==(const Configuration &) const = default;
};

inline constexpr const char *default_context_name = "default";
inline constexpr uint32_t default_context_id = 1;
inline constexpr uint32_t main_table = 254;

// Reads the text of a configuration. Nothing: *reason is "FILE: key: what is wrong", ready to print.
[[nodiscard]] std::optional<Configuration> parse_configuration(std::string_view text, std::string_view file,
                                                               std::string *reason);
// The same from a file.
[[nodiscard]] std::optional<Configuration> load_configuration(const std::string &file, std::string *reason);

// What --check prints: every value that is in force, one per line.
[[nodiscard]] std::string describe(const Configuration &configuration);

// "10.0.0.0/8" -> host order and length; nothing too when there are bits beyond the length.
[[nodiscard]] std::optional<std::pair<uint32_t, uint8_t>> parse_prefix(std::string_view text);
// "10.0.0.1" <-> host order.
[[nodiscard]] std::optional<uint32_t> parse_address(std::string_view text);
[[nodiscard]] std::string print_address(uint32_t address);

}  // namespace ipd

#endif
