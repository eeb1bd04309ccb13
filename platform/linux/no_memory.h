// SPDX-License-Identifier: Apache-2.0
// Where C calls us: the one exception that the library has, that of no memory, becomes an answer there. A caller
// without exceptions of its own would be ended by it.
#ifndef RSW_NO_MEMORY_H
#define RSW_NO_MEMORY_H

#include <errno.h>

#include <new>

namespace rsw {

// What `call` answers; `otherwise`, and ENOMEM in errno, when it has no memory.
template <class Answer, class Call>
Answer unless_without_memory(Answer otherwise, const Call &call) noexcept {
  try {
    return call();
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return otherwise;
  }
}

}  // namespace rsw

#endif
