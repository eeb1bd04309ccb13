// SPDX-License-Identifier: Apache-2.0
// The queries that look a context up. A record that a query hands out is copied field by field at once: it lies in
// shared memory and may be another context's tomorrow.
#include <array>
#include <cstring>

#include "ip_api.h"
#include "ip_db.h"
#include "query_table.h"

namespace ipsh {
namespace {

Answer answer_context(const ip_api_context_type *context) {
  Answer answer;
  answer.result.type = ResultType::record;
  if (context == nullptr) return answer;
  answer.found = true;
  answer.result.number = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(context));
  answer.outputs = {
      {"context_id", ResultType::number, context->context_id},
      {"name", ResultType::text, 0, std::string(context->name, strnlen(context->name, sizeof(context->name)))},
      {"table_id", ResultType::number, context->table_id},
      {"router_id", ResultType::address, context->router_id},
      {"router_id_iod", ResultType::interface, context->router_id_iod},
  };
  return answer;
}

constexpr std::string_view id_text = "the context's id";
constexpr std::string_view name_text = "the context's name, upper and lower case as it is";

}  // namespace

std::span<const Query> context_queries() {
  static const std::array<Query, 4> rows{{
      {"ip_get_api_context",
       "the context record of a context id",
       {{"context-id", ArgumentType::context_id, id_text}},
       ResultType::record,
       "the context's record in the shared database",
       "null: no context has that id",
       "--context-id 1",
       true,
       [](ArgumentValues v) { return answer_context(ip_get_api_context(v[0].number)); }},
      {"ip_get_api_context_by_name",
       "the context record of a context name",
       {{"name", ArgumentType::context_name, name_text}},
       ResultType::record,
       "the context's record in the shared database",
       "null: no context has that name",
       "--name default",
       true,
       [](ArgumentValues v) { return answer_context(ip_get_api_context_by_name(v[0].text.c_str())); }},
      {"ip_get_api_context_id",
       "the context id of a context name",
       {{"name", ArgumentType::context_name, name_text}},
       ResultType::number,
       "the context's id",
       "no context has that name",
       "--name default",
       true,
       [](ArgumentValues v) { return answer_number(ResultType::number, ip_get_api_context_id(v[0].text.c_str())); }},
      {"ip_get_api_context_name",
       "the context name of a context id",
       {{"context-id", ArgumentType::context_id, id_text}},
       ResultType::text,
       "the context's name",
       "null: no context has that id",
       "--context-id 1",
       true,
       [](ArgumentValues v) { return answer_text(ip_get_api_context_name(v[0].number)); }},
  }};
  return rows;
}

}  // namespace ipsh
