// SPDX-License-Identifier: Apache-2.0
#include "pool_rig.h"

#include <sys/mman.h>

namespace pool_rig {

SharedWords::SharedWords() {
  void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  EXPECT_NE(memory, MAP_FAILED);
  words_ = static_cast<std::atomic<uint32_t> *>(memory);
}

SharedWords::~SharedWords() {
  munmap(words_, bytes);
}

}  // namespace pool_rig
