// SPDX-License-Identifier: Apache-2.0
// Context lookup: id to record, name to record, name to id, id to name.
//
// Contexts are records of one list, which begins at the root; ids and names are unique, the first match is the answer.
// There are few of them, and their records keep their addresses while the IP process comes and goes.
//
// The checks of the arguments come before the lock. Other queries call these lookups while they hold the lock, which
// the lock allows. A context that does not exist is no failure: callers probe for contexts, and only a question that
// cannot have an answer (id 0, no name) is reported.
#include "guard.h"
#include "ip_api.h"
#include "report.h"
#include "walks.h"

namespace libip {
namespace {

bool has_contexts() {
  return ip_api_contexts_queue != nullptr;
}

// First record that satisfies `matches`; null: none. Under the guard.
template <class Matches>
[[gnu::always_inline]] inline ip_api_context_type *find_context(Matches matches) {
  const auto *root = static_cast<const ip_root *>(ip_api_contexts_queue);
  for (ip_api_context_type &context : contexts_of(*root)) {
    if (matches(context)) return &context;
  }
  return nullptr;
}

ip_api_context_type *find_context_by_id(uint32_t id) {
  return find_context([id](const ip_api_context_type &context) { return context.context_id == id; });
}

// Compares with the terminating NUL, and never beyond the record: a damaged name may lack it. It stands in front of every
// query that names its context: names are too short to be worth a call, and unrolled, the loop costs half.
[[gnu::always_inline]] inline bool is_named(const ip_api_context_type &context, const char *name) {
#pragma GCC unroll 12
  for (size_t i = 0; i < sizeof context.name; i++) {
    if (context.name[i] != name[i]) return false;
    if (name[i] == '\0') return true;
  }
  return false;
}

[[gnu::always_inline]] inline ip_api_context_type *find_context_by_name(const char *name) {
  return find_context([name](const ip_api_context_type &context) { return is_named(context, name); });
}

}  // namespace
}  // namespace libip

extern "C" {

struct ip_api_context_type *ip_get_api_context(uint32_t context_id) {
  using namespace libip;
  if (!attached()) return nullptr;
  if (context_id == 0) {
    // Not as an internal error: operators filter on this message.
    report_formatted(msg_error_IP_INVALID_NOTIFY, "Failed to get IP API VRF %d", 0);
    return nullptr;
  }
  if (!has_contexts()) return nullptr;
  const ReadGuard guard;
  return find_context_by_id(context_id);
}

struct ip_api_context_type *ip_get_api_context_by_name(const char *name) {
  using namespace libip;
  if (!attached()) return nullptr;
  if (name == nullptr) {
    report_formatted(msg_error_IP_IP_INTERNAL_ERROR, "Failed to get IP VRF by name %s", name);
    return nullptr;
  }
  if (!has_contexts()) return nullptr;
  const ReadGuard guard;
  return find_context_by_name(name);
}

uint32_t ip_get_api_context_id(const char *name) {
  using namespace libip;
  if (!attached()) return 0;
  if (name == nullptr) {
    report_formatted(msg_error_IP_IP_INTERNAL_ERROR, "Failed to get IP VRF ID by name %s", name);
    return 0;
  }
  if (!has_contexts()) return 0;
  const ReadGuard guard;
  const ip_api_context_type *context = find_context_by_name(name);
  return context == nullptr ? 0 : context->context_id;
}

char *ip_get_api_context_name(uint32_t context_id) {
  using namespace libip;
  constexpr char function[] = "ip_get_api_context_name";
  clear_error_text();
  if (context_id == 0) {
    report_formatted(msg_error_IP_IP_INTERNAL_ERROR, "Failed to get IP VRF name %d", 0);
    set_error_text("%s: Failed to get VRF name for %d", function, 0);
    return nullptr;
  }
  if (!attached()) {
    set_error_text("%s: IP API init not done", function);
    return nullptr;
  }
  if (!has_contexts()) return nullptr;
  ip_api_context_type *context = nullptr;
  {
    const ReadGuard guard;
    context = find_context_by_id(context_id);
  }
  if (context == nullptr) {
    set_error_text("%s: No vrf name found for context ID %d", function, static_cast<int32_t>(context_id));
    return nullptr;
  }
  return context->name;
}

}  // extern "C"
