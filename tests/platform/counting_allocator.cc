// SPDX-License-Identifier: Apache-2.0
// The program's own malloc family stands in front of the C library's, for every library in it. Sanitizers have put
// theirs there already, and tell of each block instead.
#include "platform/counting_allocator.h"

#include <errno.h>
#include <stddef.h>

namespace {
thread_local uint64_t count = 0;
}  // namespace

uint64_t counting_allocator::allocations() {
  return count;
}

#ifdef LIBIP_SANITIZED

extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void *, size_t),
                                                         void (*freed)(const volatile void *));

namespace {
[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void *, size_t) { ++count; }, [](const volatile void *) {});
}  // namespace

#else

extern "C" {

#pragma GCC visibility push(default)

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t number, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);

void *malloc(size_t size) {
  ++count;
  return __libc_malloc(size);
}
void *calloc(size_t number, size_t size) {
  ++count;
  return __libc_calloc(number, size);
}
void *realloc(void *block, size_t size) {
  ++count;
  return __libc_realloc(block, size);
}
void *memalign(size_t alignment, size_t size) {
  ++count;
  return __libc_memalign(alignment, size);
}
void *aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}
int posix_memalign(void **block, size_t alignment, size_t size) {
  *block = memalign(alignment, size);
  return *block != nullptr ? 0 : ENOMEM;
}

#pragma GCC visibility pop

}  // extern "C"

#endif
