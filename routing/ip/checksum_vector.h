// SPDX-License-Identifier: Apache-2.0
// Sums of bytes by the vector instructions of x86 processors, in both widths. Which of them a processor has is asked of
// the processor itself: the library's code is compiled for the oldest one of its width.
#ifndef IP_CHECKSUM_VECTOR_H
#define IP_CHECKSUM_VECTOR_H

#include <cstddef>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#define LIBIP_VECTOR_SUMS 1

namespace libip {

#pragma GCC visibility push(hidden)
// Does the processor have the instructions, and does the system keep their registers?
[[nodiscard]] bool has_sse2();
[[nodiscard]] bool has_avx2();
// Only of processors that do not slow down for it: those that came with its second byte extensions.
[[nodiscard]] bool has_fast_avx512();

// Of 16, 32 and 64 bytes and more.
[[nodiscard]] uint64_t sum_by_sse2(const uint8_t *from, size_t length);
[[nodiscard]] uint64_t sum_by_avx2(const uint8_t *from, size_t length);
[[nodiscard]] uint64_t sum_by_avx512(const uint8_t *from, size_t length);
#pragma GCC visibility pop

}  // namespace libip

#else
#define LIBIP_VECTOR_SUMS 0
#endif
#endif
