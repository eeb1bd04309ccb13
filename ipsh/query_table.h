// SPDX-License-Identifier: Apache-2.0
// Every query of the library that `ipsh query` offers: one row each, under the exported name.
//
// A row says what the query takes and what its answer means; decoding the words, running the query and printing the
// answer are written once, for all rows (query_run.cc). To add a query, add its row to the table of its subject.
#ifndef IPSH_QUERY_TABLE_H
#define IPSH_QUERY_TABLE_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "arguments.h"
#include "exit_code.h"

namespace ipsh {

struct Argument {
  std::string_view name;  // the option without its dashes
  ArgumentType type;
  std::string_view what;
  std::optional<uint32_t> preset = std::nullopt;  // taken when the option is left out; none: the option is required
};

// How a number that a query answers is written for people.
enum class ResultType { flag, number, interface, address, mask, mask_length, record, text, mac, nothing };
[[nodiscard]] std::string_view type_name(ResultType type);

// A value that comes out of a query: the number, or the text where there is one.
struct ResultValue {
  std::string_view name;  // of an output argument or of a record's field; empty for the result itself
  ResultType type = ResultType::number;
  uint64_t number = 0;
  std::optional<std::string> text = std::nullopt;
};

struct Answer {
  bool found = false;  // exit code 0 or 1
  ResultValue result;
  std::vector<ResultValue> outputs = {};
  std::vector<std::vector<ResultValue>> calls = {};  // of a query that calls back: the arguments of each call
};

using ArgumentValues = std::span<const ArgumentValue>;

struct Query {
  std::string_view name;  // as exported
  std::string_view what;  // one line
  std::vector<Argument> arguments;
  ResultType result;
  std::string_view reads_found;  // how a caller reads an answer other than 0
  std::string_view reads_none;   // and 0 or null
  std::string_view example;      // the arguments of an example call
  bool needs_database;
  Answer (*ask)(ArgumentValues values);
};

struct QueryGroup {
  std::string_view title;
  std::span<const Query> queries;
};

// Each table, by subject.
[[nodiscard]] std::span<const Query> context_queries();
[[nodiscard]] std::span<const Query> local_address_queries();
[[nodiscard]] std::span<const Query> subnet_queries();
[[nodiscard]] std::span<const Query> interface_address_queries();
[[nodiscard]] std::span<const Query> address_ownership_queries();
[[nodiscard]] std::span<const Query> ip_state_queries();
[[nodiscard]] std::span<const Query> route_queries();
[[nodiscard]] std::span<const Query> statistics_queries();
[[nodiscard]] std::span<const Query> address_utility_queries();
[[nodiscard]] std::span<const QueryGroup> query_groups();
[[nodiscard]] const Query *find_query(std::string_view name);

// Rows build their answers with these. A number other than 0 is "found".
[[nodiscard]] Answer answer_number(ResultType type, uint32_t number);
[[nodiscard]] Answer answer_outputs(bool found, uint32_t flag, std::vector<ResultValue> outputs);
[[nodiscard]] Answer answer_text(const char *text);  // null: not found

}  // namespace ipsh

#endif
