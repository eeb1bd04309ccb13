// SPDX-License-Identifier: Apache-2.0
// One decoder per argument type. Each takes the whole word or refuses it: no blanks, no signs, no trailing characters,
// no octets with leading zeros (a reader could take 010 for 8 or for 10). A number may be decimal or 0x hexadecimal.
//
// Where a type names something of the running system, a number is always the number; only what is not a number is
// looked up as a name. A context name is the exception: queries compare names, so the text goes to the library as
// given, also when no context bears it; only a number that is no context's name but some context's id is replaced by
// that name.
#include "arguments.h"

#include <fmt/format.h>
#include <netinet/in.h>

#include <array>
#include <charconv>
#include <optional>

#include "snapshot.h"

namespace ipsh {
namespace {

std::optional<uint32_t> parse_number(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return number;
}

std::optional<uint32_t> parse_dotted(std::string_view text) {
  uint32_t addr = 0;
  for (int octet = 0; octet < 4; ++octet) {
    const size_t dot = octet < 3 ? text.find('.') : text.size();
    if (dot == std::string_view::npos) return std::nullopt;
    const std::string_view digits = text.substr(0, dot);
    uint8_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || digits.empty()) return std::nullopt;
    if (digits.size() > 1 && digits.front() == '0') return std::nullopt;
    addr = addr << 8 | value;
    text.remove_prefix(octet < 3 ? dot + 1 : dot);
  }
  return addr;
}

bool is_hex(std::string_view text) {
  return text.starts_with("0x") || text.starts_with("0X");
}

bool decode_address(const std::string &given, bool, ArgumentValue *value) {
  const std::optional<uint32_t> addr = is_hex(given) ? parse_number(given) : parse_dotted(given);
  value->number = addr.value_or(0);
  return addr.has_value();
}

// The dotted form is the address; the hex form is the word itself.
bool decode_network_order(const std::string &given, bool attached, ArgumentValue *value) {
  if (!decode_address(given, attached, value)) return false;
  if (!is_hex(given)) value->number = htonl(value->number);
  return true;
}

bool decode_mask_length(const std::string &given, bool, ArgumentValue *value) {
  const std::optional<uint32_t> length = parse_number(given);
  value->number = length.value_or(0);
  return length && *length <= 32;
}

bool decode_mask(const std::string &given, bool attached, ArgumentValue *value) {
  if (!given.starts_with('/')) return decode_address(given, attached, value);
  if (!decode_mask_length(given.substr(1), attached, value)) return false;
  value->number = ip_bits2mask(static_cast<uint8_t>(value->number));
  return true;
}

bool decode_prefix(const std::string &given, bool attached, ArgumentValue *value) {
  const size_t slash = given.find('/');
  if (slash == std::string::npos) return false;
  if (!decode_mask_length(given.substr(slash + 1), attached, value)) return false;
  value->prefix.mask_len = static_cast<uint8_t>(value->number);
  if (!decode_address(given.substr(0, slash), attached, value)) return false;
  value->prefix.addr = value->number;
  return true;
}

bool decode_number(const std::string &given, bool, ArgumentValue *value) {
  const std::optional<uint32_t> number = parse_number(given);
  value->number = number.value_or(0);
  return number.has_value();
}

bool decode_interface(const std::string &given, bool attached, ArgumentValue *value) {
  if (decode_number(given, attached, value)) return true;
  value->number = attached && !given.empty() ? find_interface(given) : 0;
  return value->number != 0;
}

bool decode_context_id(const std::string &given, bool attached, ArgumentValue *value) {
  if (decode_number(given, attached, value)) return true;
  value->number = attached && !given.empty() ? ip_get_api_context_id(given.c_str()) : 0;
  return value->number != 0;
}

bool decode_context_name(const std::string &given, bool attached, ArgumentValue *value) {
  value->text = given;
  ArgumentValue id;
  if (!attached || !decode_number(given, attached, &id)) return true;
  std::string name_of_id;
  for (const ContextRow &context : read_contexts()) {
    if (context.name == given) return true;
    if (context.id == id.number) name_of_id = context.name;
  }
  if (!name_of_id.empty()) value->text = name_of_id;
  return true;
}

// A record has no name of its own: what is given must be a context, or say that there is none.
bool decode_context_record(const std::string &given, bool attached, ArgumentValue *value) {
  if (!attached) return false;
  ArgumentValue id;
  const bool is_number = decode_number(given, attached, &id);
  for (const ContextRow &context : read_contexts()) {
    if (context.name != given && !(is_number && context.id == id.number)) continue;
    value->number = context.id;
    value->text = context.name;
    return true;
  }
  value->text = given;
  return given == "null";
}

bool decode_text(const std::string &given, bool, ArgumentValue *value) {
  value->text = given;
  return true;
}

bool decode_table_id(const std::string &given, bool attached, ArgumentValue *value) {
  if (decode_number(given, attached, value)) return true;
  if (!attached) return false;
  for (const ContextRow &context : read_contexts()) {
    if (context.name != given) continue;
    value->number = context.table_id;
    return true;
  }
  return false;
}

struct Decoder {
  ArgumentTypeInfo info;
  bool (*decode)(const std::string &given, bool attached, ArgumentValue *value);
};

// In the order of ArgumentType.
constexpr std::array<Decoder, 12> decoders{{
    {{"address", "an IPv4 address: 10.1.2.3 or 0x0a010203", false}, decode_address},
    {{"address-network-order", "an IPv4 address: 10.1.2.3, or the word in network order as 0x hex", false},
     decode_network_order},
    {{"mask", "a mask: 255.255.255.0, 0xffffff00 or /24", false}, decode_mask},
    {{"mask-length", "a mask length: 0 to 32", false}, decode_mask_length},
    {{"prefix", "a prefix: 10.0.0.0/8", false}, decode_prefix},
    {{"interface", "an interface: its iod number or its name (ipsh show interfaces lists them)", true},
     decode_interface},
    {{"context-id", "a context: its id or its name (ipsh show contexts lists them)", true}, decode_context_id},
    {{"context-name", "a context: its name or its id", true}, decode_context_name},
    {{"context-record", "a context: its name or its id; null for a null pointer", true}, decode_context_record},
    {{"table-id", "a route table: its id or the name of a context", true}, decode_table_id},
    {{"number", "a number: 0 to 4294967295, or 0x hex", false}, decode_number},
    {{"text", "a text", false}, decode_text},
}};

const Decoder &decoder(ArgumentType type) {
  return decoders.at(static_cast<size_t>(type));
}

}  // namespace

const ArgumentTypeInfo &type_info(ArgumentType type) {
  return decoder(type).info;
}

bool decode_argument(ArgumentType type, std::string_view option, const std::string &given, bool attached,
                     ArgumentValue *value, Failure *failure) {
  if (decoder(type).decode(given, attached, value)) return true;
  *failure = {ExitCode::usage, fmt::format("{}: '{}' is not accepted here", option, given),
              fmt::format("give {}", decoder(type).info.accepts)};
  return false;
}

std::string address_text(uint32_t addr) {
  return ip_print_addr(addr);
}

}  // namespace ipsh
