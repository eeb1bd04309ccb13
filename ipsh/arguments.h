// SPDX-License-Identifier: Apache-2.0
// The words of a command line, turned into what the library takes: one decoder per type, in one table.
#ifndef IPSH_ARGUMENTS_H
#define IPSH_ARGUMENTS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "exit_code.h"
#include "ip_api.h"

namespace ipsh {

enum class ArgumentType {
  address,                // IPv4, host order
  address_network_order,  // IPv4 as it lies in memory in network order
  mask,                   // host order
  mask_length,            // bits
  prefix,
  interface,       // iod
  context_id,      // number
  context_name,    // text
  context_record,  // number: the id of the context whose record is meant, 0 for a null pointer; text: its name
  table_id,        // number
  number,
  text,
};

struct ArgumentValue {
  uint32_t number = 0;
  std::string text;
  ip_prefixtype prefix = {0, 0};
};

struct ArgumentTypeInfo {
  std::string_view name;     // in help and JSON: "address"
  std::string_view accepts;  // "an IPv4 address, 10.1.2.3 or 0x0a010203"
  bool needs_database;       // names are looked up in the running system
};
[[nodiscard]] const ArgumentTypeInfo &type_info(ArgumentType type);

// Names of interfaces and contexts are resolved only when `attached`. False: *failure names the option, what was given
// and what is accepted.
[[nodiscard]] bool decode_argument(ArgumentType type, std::string_view option, const std::string &given, bool attached,
                                   ArgumentValue *value, Failure *failure);

// Dotted text of an address in host order.
[[nodiscard]] std::string address_text(uint32_t addr);

}  // namespace ipsh

#endif
