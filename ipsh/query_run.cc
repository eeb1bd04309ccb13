// SPDX-License-Identifier: Apache-2.0
// The one loop behind all queries: decode each argument by its type, ask, and write the answer as its type is written.
// The library's error text is read right after the call: the process has asked nothing else before, so a text that is
// there belongs to this query.
#include "query_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "snapshot.h"

namespace ipsh {
namespace {

constexpr std::array<std::string_view, 10> result_type_names{
    "flag", "number", "interface", "address", "mask", "mask-length", "record", "text", "mac", "nothing"};

std::string interface_text(uint32_t iod, bool attached) {
  const std::string name = attached && iod != 0 ? interface_name(iod) : "";
  return name.empty() ? fmt::format("{}", iod) : fmt::format("{} ({})", iod, name);
}

std::string value_text(const ResultValue &value, bool attached) {
  if (value.text) return *value.text;
  switch (value.type) {
    case ResultType::flag:
    case ResultType::number:
    case ResultType::mask_length:
      return fmt::format("{}", value.number);
    case ResultType::interface:
      return interface_text(static_cast<uint32_t>(value.number), attached);
    case ResultType::address:
    case ResultType::mask:
      return address_text(static_cast<uint32_t>(value.number));
    case ResultType::record:
      return value.number == 0 ? "null" : fmt::format("0x{:08x}", value.number);
    case ResultType::text:
    case ResultType::mac:
      return "null";
    case ResultType::nothing:
      return "-";
  }
  return "";
}

std::string argument_text(ArgumentType type, const ArgumentValue &value, bool attached) {
  switch (type) {
    case ArgumentType::address:
    case ArgumentType::mask:
      return address_text(value.number);
    case ArgumentType::address_network_order:
      return inet_ntoa(value.number);
    case ArgumentType::prefix:
      return ip_print_prefix(&value.prefix);
    case ArgumentType::context_name:
    case ArgumentType::context_record:
    case ArgumentType::text:
      return value.text;
    case ArgumentType::interface:
      return interface_text(value.number, attached);
    case ArgumentType::mask_length:
    case ArgumentType::context_id:
    case ArgumentType::table_id:
    case ArgumentType::number:
      return fmt::format("{}", value.number);
  }
  return "";
}

ShownValue shown(const ResultValue &value, bool attached) {
  return {std::string(value.name), value, value_text(value, attached)};
}

}  // namespace

std::string_view type_name(ResultType type) {
  return result_type_names.at(static_cast<size_t>(type));
}

std::span<const QueryGroup> query_groups() {
  static const std::array<QueryGroup, 9> groups{{
      {"Contexts", context_queries()},
      {"Interfaces and local addresses", local_address_queries()},
      {"Subnets and overlap", subnet_queries()},
      {"An interface's own address", interface_address_queries()},
      {"Whose address it is, virtual addresses", address_ownership_queries()},
      {"IP state of interfaces", ip_state_queries()},
      {"Routes and reverse paths", route_queries()},
      {"Router ids, counters, groups, load sharing", statistics_queries()},
      {"Addresses, masks and prefixes (no running system needed)", address_utility_queries()},
  }};
  return groups;
}

const Query *find_query(std::string_view name) {
  for (const QueryGroup &group : query_groups()) {
    const auto row = std::ranges::find(group.queries, name, &Query::name);
    if (row != group.queries.end()) return &*row;
  }
  return nullptr;
}

Answer answer_number(ResultType type, uint32_t number) {
  return {number != 0, {"", type, number}};
}

Answer answer_outputs(bool found, uint32_t flag, std::vector<ResultValue> outputs) {
  return {found, {"", ResultType::flag, flag}, std::move(outputs)};
}

Answer answer_text(const char *text) {
  Answer answer{text != nullptr, {"", ResultType::text}};
  if (text != nullptr) answer.result.text = text;
  return answer;
}

bool has_all_arguments(const Query &query, const std::map<std::string, std::string, std::less<>> &words,
                       Failure *failure) {
  const auto missing = std::ranges::find_if(query.arguments, [&](const Argument &argument) {
    return !argument.preset && words.find(argument.name) == words.end();
  });
  if (missing == query.arguments.end()) return true;
  *failure = {ExitCode::usage, fmt::format("{} needs --{}", query.name, missing->name),
              fmt::format("give {}", type_info(missing->type).accepts)};
  return false;
}

bool run_query(const Query &query, const std::map<std::string, std::string, std::less<>> &words, bool attached,
               QueryResult *result, Failure *failure) {
  std::vector<ArgumentValue> values;
  for (const Argument &argument : query.arguments) {
    ArgumentValue value;
    value.number = argument.preset.value_or(0);
    const auto word = words.find(argument.name);
    if (word != words.end()) {
      const std::string option = fmt::format("--{}", argument.name);
      if (!decode_argument(argument.type, option, word->second, attached, &value, failure)) return false;
    }
    values.push_back(std::move(value));
  }

  const Answer answer = query.ask(values);
  const std::string error_text = ip_api_get_error();

  result->query = &query;
  for (size_t i = 0; i < values.size(); ++i) {
    const Argument &argument = query.arguments[i];
    result->arguments.emplace_back(argument.name, argument_text(argument.type, values[i], attached));
  }
  result->found = answer.found;
  result->result = shown(answer.result, attached);
  for (const ResultValue &output : answer.outputs) result->outputs.push_back(shown(output, attached));
  for (const std::vector<ResultValue> &call : answer.calls) {
    result->calls.emplace_back();
    for (const ResultValue &argument : call) result->calls.back().push_back(shown(argument, attached));
  }
  result->reads_as = answer.found ? query.reads_found : query.reads_none;
  result->error_text = error_text;
  return true;
}

}  // namespace ipsh
