// SPDX-License-Identifier: Apache-2.0
// Lets this program's tests see calls of free. A sanitizer has a free of its own and offers a hook; otherwise this
// program's free stands in front of the C library's.
#include <cstdlib>

#include "fake_platform/watched_blocks.h"

#ifdef LIBIP_SANITIZED

// Every sanitizer's runtime has it; gcc comes without the header.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the runtime's own name
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*on_malloc)(const volatile void *, size_t),
                                                         void (*on_free)(const volatile void *));

namespace {

void on_malloc(const volatile void *, size_t) {}
void on_free(const volatile void *block) {
  fake_platform::block_is_freed(const_cast<const void *>(block));
}
[[maybe_unused]] const int hooked = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);

}  // namespace

#else

extern "C" void __libc_free(void *block);  // NOLINT(bugprone-reserved-identifier): the C library's own name

extern "C" void free(void *block) {
  fake_platform::block_is_freed(block);
  __libc_free(block);
}

#endif
