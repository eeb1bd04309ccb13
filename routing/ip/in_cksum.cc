// SPDX-License-Identifier: Apache-2.0
// The Internet checksum over a part of a packet.
//
// Each buffer is summed where it lies. Words go on across buffers: a buffer that begins at an odd place of the part has
// its words shifted by a byte against the others, which is the same as its sum with the halves exchanged. So there are
// two sums, of buffers at even and of buffers at odd places, and the second is exchanged once, at the end.
#include <algorithm>

#include "checksum.h"
#include "ip_api.h"
#include "mbuf.h"
#include "report.h"

namespace libip {
namespace {

[[gnu::noinline, gnu::cold]] void show_call(struct mbuf *chain, int32_t length) {
  debug_line("in_cksum(0x%x %d)\n", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(chain)), length);
  mbuf_dump("in_cksum", chain, 0, 0);
}

[[gnu::noinline, gnu::cold]] void show_missing(uint32_t beyond, uint32_t missing) {
  if (beyond > 0) {
    debug_line("cksum: offset is %d greater than data len\n", static_cast<int32_t>(beyond));
  } else {
    debug_line("cksum: out of data %d\n", static_cast<int32_t>(missing));
  }
}

}  // namespace
}  // namespace libip

extern "C" {

uint16_t in_cksum(struct mbuf *chain, int32_t offset, int32_t length) {
  using namespace libip;
  if (dbg_in_cksum != 0) [[unlikely]] {
    show_call(chain, length);
  }
  if (chain == nullptr || length <= 0) return checksum_of(0);
  auto skip = static_cast<uint32_t>(std::max(offset, 0));
  auto missing = static_cast<uint32_t>(length);
  uint64_t sums[2] = {0, 0};  // of what begins at an even, and at an odd place
  uint32_t place = 0;
  for (struct mbuf *buffer = chain; buffer != nullptr && missing != 0; buffer = buffer->next.get()) {
    if (skip >= buffer->m_len) {
      skip -= buffer->m_len;
      continue;
    }
    const uint32_t bytes = std::min(buffer->m_len - skip, missing);
    sums[place & 1u] += sum_of_bytes(buffer->data.get() + skip, bytes);
    skip = 0;
    place += bytes;
    missing -= bytes;
  }
  if (missing != 0 && dbg_in_cksum != 0) [[unlikely]] {
    show_missing(skip, missing);
  }
  return checksum_of(sums[0] + shifted_by_a_byte(sums[1]));
}

}  // extern "C"
