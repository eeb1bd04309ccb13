// SPDX-License-Identifier: Apache-2.0
// A packet as the data segments of a message: one piece per buffer, and one for everything beyond the limit.
#include <cstdlib>

#include "mbuf.h"

namespace {

struct mbuf *skip_empty(struct mbuf *m) {
  while (m != nullptr && m->m_len == 0) m = m->next.get();
  return m;
}

// Are there more than `limit` buffers with bytes?
bool exceeds(struct mbuf *m, uint32_t limit) {
  uint32_t pieces = 0;
  for (m = skip_empty(m); m != nullptr; m = skip_empty(m->next.get())) {
    if (++pieces > limit) return true;
  }
  return false;
}

}  // namespace

extern "C" {

struct mts_iovec *m_convert_mbuf_to_iovec_limited(struct mbuf *m, uint32_t limit, uint32_t *count, void **overflow,
                                                  uint32_t *total_len, uint32_t *copied_len,
                                                  uint32_t *vector_allocated) {
  *count = 0;
  *overflow = nullptr;
  *copied_len = 0;
  *vector_allocated = 0;
  *total_len = m_length(m);
  if (limit == 0) return nullptr;
  auto *vector = static_cast<struct mts_iovec *>(calloc(limit, sizeof(struct mts_iovec)));
  if (vector == nullptr) return nullptr;
  const uint32_t whole = exceeds(m, limit) ? limit - 1 : limit;
  uint32_t in_place = 0;
  for (m = skip_empty(m); m != nullptr && *count < whole; m = skip_empty(m->next.get())) {
    vector[(*count)++] = {m->data.get(), m->m_len};
    in_place += m->m_len;
  }
  if (m != nullptr) {
    const uint32_t rest = *total_len - in_place;
    *overflow = malloc(rest);
    if (*overflow == nullptr || m_copydata(m, 0, static_cast<int32_t>(rest), *overflow) != 0) {
      free(*overflow);
      free(vector);
      *overflow = nullptr;
      *count = 0;
      return nullptr;
    }
    *copied_len = rest;
    vector[(*count)++] = {*overflow, rest};
  }
  *vector_allocated = 1;
  return vector;
}

}  // extern "C"
