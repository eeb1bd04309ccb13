// SPDX-License-Identifier: Apache-2.0
// The read guard, and the shape of a question to an interface.
//
// A query takes the read side of the client's lock, unless this process is the IP process itself, which owns the
// database. Whether it is attached is looked at only then; every exit gives the lock back. The same thread may take the
// lock again inside: queries call other queries.
#ifndef IP_GUARD_H
#define IP_GUARD_H

#include "im.h"
#include "ip_api.h"
#include "probe.h"
#include "tsp.h"

namespace libip {

class [[nodiscard]] ReadGuard {
 public:
  // `query`, for tracers: the function that asks.
  explicit ReadGuard(const char *query = __builtin_FUNCTION())
      : lock_(ip_client.rwsem_lock), held_(ip_is_server_flag == 0), query_(query) {
    IP_PROBE1(query_begin, query_);
    if (held_) [[likely]] {
      tsp_lock_acquire_rdlock(lock_);
    }
  }
  ~ReadGuard() {
    if (held_) [[likely]] {
      tsp_lock_release_rdlock(lock_);
    }
    IP_PROBE1(query_end, query_);
  }
  ReadGuard(const ReadGuard &) = delete;
  ReadGuard &operator=(const ReadGuard &) = delete;

 private:
  // Remembered, so that what was taken is what is given back.
  const uint32_t lock_;
  const bool held_;
  const char *const query_;
};

inline bool attached() {
  return ip_api_attached != 0;
}

// The interface's record; null when not attached, for no interface, and for one without IP state.
inline const ip_iftype *interface_record(uint32_t iod) {
  if (!attached() || iod == 0) return nullptr;
  return static_cast<const ip_iftype *>(lcache_im_get_extension1(iod, IP_COMPONENT));
}

// A question to one interface: guard, record, question(const ip_iftype &); `none` without a record.
template <class Answer, class Question>
inline Answer ask_interface(uint32_t iod, Answer none, Question question, const char *query = __builtin_FUNCTION()) {
  const ReadGuard guard(query);
  const ip_iftype *record = interface_record(iod);
  return record == nullptr ? none : question(*record);
}

}  // namespace libip

#endif
