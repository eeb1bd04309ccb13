// SPDX-License-Identifier: Apache-2.0
// The shape of a question to the URIB: which table, the URIB's read lock, the question, one value out.
//
// A route handle is good under the lock only, so a question gives back an iod or an address, never a route. The lock of
// the shared database is not held meanwhile: a context lookup takes and releases it by itself, and the table's number
// is read from a record that keeps its place. Who needs both locks takes the database's first, and does so elsewhere.
#ifndef IP_ROUTES_H
#define IP_ROUTES_H

#include "ip_api.h"
#include "urib.h"
#include "walks.h"

namespace libip {

inline constexpr uint32_t host_route = 32;  // mask length of an address as a prefix

class [[nodiscard]] RouteGuard {
 public:
  RouteGuard() { urib_acquire_rdlock(); }
  ~RouteGuard() { urib_release_rdlock(); }
  RouteGuard(const RouteGuard &) = delete;
  RouteGuard &operator=(const RouteGuard &) = delete;
};

// The table of a context; 0: no such context, or a context without a table.
inline uint32_t table_of(const char *name) {
  const ip_api_context_type *context = ip_get_api_context_by_name(name);
  return context == nullptr ? 0 : read_word(context->table_id);
}

// A question to one table, question(table), under the lock; 0 for table 0.
template <class Question>
inline uint32_t ask_table(uint32_t table, Question question) {
  if (table == 0) return 0;
  const RouteGuard guard;
  return question(table);
}

}  // namespace libip

#endif
