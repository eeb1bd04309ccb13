// SPDX-License-Identifier: Apache-2.0
// Who owns a packet.
//
// Each buffer of a packet says which process it is taken back from when that process dies. The words lie in memory that
// processes share, and whoever takes buffers back reads them while their owner may be changing.
#include <atomic>

#include "mbuf.h"

#include "mbuf/attachment.h"

extern "C" {

void m_set_owner(struct mbuf *m, int32_t owner) {
  // First, so that nobody owns a buffer who would not be looked for.
  if (rsw::pool::is_attached() && owner > 0 && owner != rsw::pool::own_pid()) rsw::pool::note_owner(owner);
  for (struct mbuf *buffer = m; buffer != nullptr; buffer = buffer->next.get()) {
    // Relaxed: the word stands for itself; the packet's bytes become another process's by the message that names them.
    std::atomic_ref(buffer->owner).store(owner, std::memory_order_relaxed);
  }
}

}  // extern "C"
