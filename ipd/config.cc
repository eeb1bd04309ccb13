// SPDX-License-Identifier: Apache-2.0
// The configuration file.
//
// A file is taken whole or not at all: the first thing that is wrong ends the reading with a line that names file, key
// and reason, and the caller goes on with what it had. So this is the only place where a value is checked, and
// everything behind it may trust a Configuration: names fit the shared records, contexts have distinct names, ids and
// tables, no virtual address is listed twice, no interface borrows from one that borrows itself.
//
// Interfaces are named, never checked for existence: they may come later.
#include "ipd/config.h"

#include <arpa/inet.h>
#include <syslog.h>

#include <array>
#include <charconv>
#include <set>
#include <utility>

#include "ipd/config_routes.h"
#include "ipd/json_reader.h"

namespace ipd {
namespace {

constexpr size_t longest_context_name = 35;    // a context record holds 36 bytes with the terminator
constexpr size_t longest_interface_name = 15;  // the kernel's limit
constexpr size_t longest_pattern = 63;
constexpr size_t longest_group_name = 255;
constexpr uint32_t largest_context_id = 0x7fffffff;  // some queries take it as a signed number

struct Level {
  const char *name;
  int value;
};
constexpr std::array<Level, 5> levels{
    {{"error", LOG_ERR}, {"warning", LOG_WARNING}, {"notice", LOG_NOTICE}, {"info", LOG_INFO}, {"debug", LOG_DEBUG}}};

constexpr std::array<const char *, 4> load_share_modes{"l3", "l4", "inner-l3", "custom"};

std::string item_path(const char *list, size_t index) {
  return std::string(list) + "[" + std::to_string(index) + "]";
}

bool host_address(uint32_t address) {
  const uint32_t first = address >> 24;
  return first != 0 && first != 127 && first < 224;
}

uint32_t read_router_id(const JsonObject &object) {
  const auto id = object.address("router_id");
  if (id && *id == 0) object.refuse("router_id", "must not be 0.0.0.0");
  return id.value_or(0);
}

std::vector<std::string> read_patterns(const JsonObject &object) {
  std::vector<std::string> patterns;
  for (const auto &item : object.array("interfaces")) {
    const std::string key = item_path("interfaces", patterns.size());
    if (!item.is_string()) object.refuse(key.c_str(), "must be a text in quotes");
    const auto &pattern = item.get_ref<const std::string &>();
    if (pattern.empty()) object.refuse(key.c_str(), "must not be empty");
    if (pattern.size() > longest_pattern) object.refuse(key.c_str(), "longer than 63 characters");
    if (pattern.find('\0') != std::string::npos) object.refuse(key.c_str(), "must not contain control characters");
    for (const std::string &other : patterns) {
      if (other == pattern) object.refuse(key.c_str(), "given twice");
    }
    patterns.push_back(pattern);
  }
  if (object.has("interfaces") && patterns.empty()) object.refuse("interfaces", "must name at least one pattern");
  return patterns;
}

void check_default_context(const JsonObject &object, const ContextRule &rule, const Configuration &configuration) {
  if (rule.id != 0 && rule.id != default_context_id) object.refuse("id", "the default context has id 1");
  if (rule.table != 0 && rule.table != main_table) object.refuse("table", "the default context has table 254");
  if (!rule.interfaces.empty()) {
    object.refuse("interfaces", "the default context has every interface that no other context has");
  }
  if (rule.router_id != 0 && configuration.router_id != 0) {
    object.refuse("router_id", "given twice: the router_id at the top is the default context's");
  }
}

void check_other_context(const JsonObject &object, const ContextRule &rule) {
  if (rule.id == default_context_id) object.refuse("id", "1 is the default context's");
  if (rule.table == main_table) object.refuse("table", "254 is the default context's");
  if (rule.table == 253 || rule.table == 255) object.refuse("table", "253 and 255 are the kernel's own");
  if (!rule.interfaces.empty() && rule.table == 0)
    object.refuse("table", "missing; a context with interfaces needs one");
}

void read_context(const JsonObject &object, Configuration &configuration) {
  ContextRule rule;
  rule.name = object.required_text("name", longest_context_name);
  rule.id = static_cast<uint32_t>(object.number("id", 1, largest_context_id).value_or(0));
  rule.table = static_cast<uint32_t>(object.number("table", 1, 0xffffffff).value_or(0));
  rule.router_id = read_router_id(object);
  rule.interfaces = read_patterns(object);
  for (const ContextRule &other : configuration.contexts) {
    if (other.name == rule.name) object.refuse("name", "\"" + rule.name + "\" is another context's already");
    if (rule.id != 0 && other.id == rule.id) object.refuse("id", "is another context's already");
    if (rule.table != 0 && other.table == rule.table) object.refuse("table", "is another context's already");
  }
  if (rule.name == default_context_name) {
    check_default_context(object, rule, configuration);
  } else {
    check_other_context(object, rule);
  }
  configuration.contexts.push_back(std::move(rule));
}

void read_vip(const JsonObject &object, Configuration &configuration) {
  VipRule rule;
  rule.interface = object.required_text("interface", longest_interface_name);
  const auto address = object.address("address");
  if (!address) object.refuse("address", "missing");
  if (!host_address(*address)) object.refuse("address", "is not an address that a host can have");
  rule.address = *address;
  for (const VipRule &other : configuration.vips) {
    if (other == rule) object.refuse("address", "given twice for this interface");
  }
  configuration.vips.push_back(std::move(rule));
}

void read_unnumbered(const JsonObject &object, Configuration &configuration) {
  UnnumberedRule rule;
  rule.interface = object.required_text("interface", longest_interface_name);
  rule.source = object.required_text("source", longest_interface_name);
  if (rule.interface == rule.source) object.refuse("source", "must be another interface");
  for (const UnnumberedRule &other : configuration.unnumbered) {
    if (other.interface == rule.interface) object.refuse("interface", "is unnumbered already");
    if (other.interface == rule.source) object.refuse("source", "is unnumbered itself");
    if (other.source == rule.interface) object.refuse("interface", "lends its address to another interface");
  }
  configuration.unnumbered.push_back(std::move(rule));
}

int read_level(const JsonObject &object, const std::string &text) {
  for (const Level &level : levels) {
    if (text == level.name) return level.value;
  }
  object.refuse("log_level", "must be \"error\", \"warning\", \"notice\", \"info\" or \"debug\"");
}

LoadShareRule read_load_share(const JsonObject &object) {
  const std::string mode = object.required_text("mode", 255);
  LoadShareRule rule;
  while (rule.mode < load_share_modes.size() && mode != load_share_modes[rule.mode]) ++rule.mode;
  if (rule.mode == load_share_modes.size()) {
    object.refuse("mode", "must be \"l3\", \"l4\", \"inner-l3\" or \"custom\"");
  }
  rule.value = static_cast<uint32_t>(object.number("value", 0, 0xffffffff).value_or(0));
  return rule;
}

uint32_t read_limit(const JsonObject &object, const char *key, uint32_t least, uint32_t otherwise) {
  constexpr uint64_t most = 1000000;
  return static_cast<uint32_t>(object.number(key, least, most).value_or(otherwise));
}

IcmpErrorRule read_icmp_errors(const JsonObject &object) {
  constexpr IcmpErrorRule otherwise;
  return {.rate = read_limit(object, "rate", 0, otherwise.rate),
          .burst = read_limit(object, "burst", 1, otherwise.burst),
          .destination_rate = read_limit(object, "destination_rate", 0, otherwise.destination_rate),
          .destination_burst = read_limit(object, "destination_burst", 1, otherwise.destination_burst)};
}

std::string describe_limit(const char *what, uint32_t rate, uint32_t burst) {
  if (rate == 0) return std::string("ICMP errors ") + what + " without limit\n";
  return std::string("ICMP errors ") + what + " " + std::to_string(rate) + " a second, " + std::to_string(burst) +
         " at once\n";
}

std::string describe_icmp_errors(const IcmpErrorRule &rule) {
  if (rule == IcmpErrorRule{}) return "";
  return describe_limit("in all", rule.rate, rule.burst) +
         describe_limit("to one destination", rule.destination_rate, rule.destination_burst);
}

std::string read_group(const JsonObject &object, const char *key) {
  return object.has(key) ? object.required_text(key, longest_group_name) : "";
}

template <class Read>
void read_list(const JsonObject &object, const char *key, std::initializer_list<std::string_view> known, Read read,
               Configuration &configuration) {
  size_t index = 0;
  for (const auto &item : object.array(key)) read(JsonObject(item, item_path(key, index++), known), configuration);
}

Configuration read_configuration(std::string_view text) {
  const nlohmann::json json = parse_json(text);
  const JsonObject object(json, "",
                          {"contexts", "vips", "unnumbered", "multicast_routes", "leaks", "router_id", "log_level",
                           "load_share", "icmp_errors", "read_group", "configure_group", "input_to_kernel"});
  Configuration configuration;
  configuration.router_id = read_router_id(object);
  if (const auto level = object.text("log_level", 255)) configuration.log_level = read_level(object, *level);
  if (object.has("load_share")) {
    configuration.load_share = read_load_share(JsonObject(json["load_share"], "load_share", {"mode", "value"}));
  }
  if (object.has("icmp_errors")) {
    configuration.icmp_errors = read_icmp_errors(
        JsonObject(json["icmp_errors"], "icmp_errors", {"rate", "burst", "destination_rate", "destination_burst"}));
  }
  configuration.read_group = read_group(object, "read_group");
  configuration.configure_group = read_group(object, "configure_group");
  configuration.input_to_kernel = object.truth("input_to_kernel").value_or(false);
  read_list(object, "contexts", {"name", "id", "table", "router_id", "interfaces"}, read_context, configuration);
  read_list(object, "vips", {"interface", "address"}, read_vip, configuration);
  read_list(object, "unnumbered", {"interface", "source"}, read_unnumbered, configuration);
  read_list(object, "multicast_routes", {"context", "table", "prefix", "metric", "next_hops"}, read_multicast_route,
            configuration);
  read_list(object, "leaks", {"prefix", "from", "from_table", "to", "to_table"}, read_leak, configuration);
  return configuration;
}

}  // namespace

std::optional<std::pair<uint32_t, uint8_t>> parse_prefix(std::string_view text) {
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const auto address = parse_address(text.substr(0, slash));
  const std::string_view digits = text.substr(slash + 1);
  uint8_t len = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), len);
  if (!address || error != std::errc{} || end != digits.data() + digits.size() || len > 32) return std::nullopt;
  if (len < 32 && (*address << len) != 0) return std::nullopt;
  return std::make_pair(*address, len);
}

std::optional<uint32_t> parse_address(std::string_view text) {
  in_addr address{};
  if (text.size() > 15 || inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::string print_address(uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 255) + "." +
         std::to_string((address >> 8) & 255) + "." + std::to_string(address & 255);
}

std::optional<Configuration> parse_configuration(std::string_view text, std::string_view file, std::string *reason) {
  try {
    return read_configuration(text);
  } catch (const JsonRefusal &refusal) {
    *reason = std::string(file) + ": " + refusal.text();
    return std::nullopt;
  }
}

std::optional<Configuration> load_configuration(const std::string &file, std::string *reason) {
  std::string text;
  if (!read_file(file, &text, reason)) return std::nullopt;
  return parse_configuration(text, file, reason);
}

std::string describe(const Configuration &configuration) {
  std::string out;
  if (configuration.router_id != 0) out += "router id " + print_address(configuration.router_id) + "\n";
  for (const Level &level : levels) {
    if (configuration.log_level == level.value) out += std::string("log level ") + level.name + "\n";
  }
  if (const auto &rule = configuration.load_share) {
    out += std::string("load share ") + load_share_modes[rule->mode] + " value " + std::to_string(rule->value) + "\n";
  }
  out += describe_icmp_errors(configuration.icmp_errors);
  if (!configuration.read_group.empty()) out += "read group " + configuration.read_group + "\n";
  if (!configuration.configure_group.empty()) out += "configure group " + configuration.configure_group + "\n";
  if (configuration.input_to_kernel) out += "input goes to the kernel, too\n";
  for (const ContextRule &rule : configuration.contexts) {
    out += "context " + rule.name;
    if (rule.id != 0) out += " id " + std::to_string(rule.id);
    if (rule.table != 0) out += " table " + std::to_string(rule.table);
    if (rule.router_id != 0) out += " router id " + print_address(rule.router_id);
    if (!rule.interfaces.empty()) out += " interfaces";
    for (const std::string &pattern : rule.interfaces) out += " " + pattern;
    out += "\n";
  }
  for (const VipRule &rule : configuration.vips) {
    out += "virtual address " + print_address(rule.address) + " on " + rule.interface + "\n";
  }
  for (const UnnumberedRule &rule : configuration.unnumbered) {
    out += "unnumbered " + rule.interface + " borrows from " + rule.source + "\n";
  }
  out += describe_routes(configuration);
  return out;
}

}  // namespace ipd
