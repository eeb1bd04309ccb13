// SPDX-License-Identifier: Apache-2.0
// The router id of a context, and the interface it was taken from.
//
// Four questions of one shape: is there a database at all, the guard, the context by id or by name, one word. The
// context lookups say what they have to say about id 0 and about no name.
#include "guard.h"
#include "ip_api.h"
#include "walks.h"

namespace libip {
namespace {

// A word of the context that lookup() finds under the guard; 0: no database, no such context.
template <class Lookup>
uint32_t word_of_context(uint32_t ip_api_context_type::*word, Lookup lookup, const char *query) {
  if (ip_api_data == nullptr) return 0;
  const ReadGuard guard(query);
  const ip_api_context_type *context = lookup();
  return context == nullptr ? 0 : read_word(context->*word);
}

uint32_t word_of(uint32_t ip_api_context_type::*word, int32_t context_id, const char *query = __builtin_FUNCTION()) {
  return word_of_context(
      word, [context_id] { return ip_get_api_context(static_cast<uint32_t>(context_id)); }, query);
}

uint32_t word_of(uint32_t ip_api_context_type::*word, const char *name, const char *query = __builtin_FUNCTION()) {
  return word_of_context(
      word, [name] { return ip_get_api_context_by_name(name); }, query);
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_get_router_id(int32_t context_id) {
  return libip::word_of(&ip_api_context_type::router_id, context_id);
}

uint32_t ip_get_router_id_iod(int32_t context_id) {
  return libip::word_of(&ip_api_context_type::router_id_iod, context_id);
}

uint32_t ip_get_router_id_by_name(const char *name) {
  return libip::word_of(&ip_api_context_type::router_id, name);
}

uint32_t ip_get_router_id_iod_by_name(const char *name) {
  return libip::word_of(&ip_api_context_type::router_id_iod, name);
}

}  // extern "C"
