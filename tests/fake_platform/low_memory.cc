// SPDX-License-Identifier: Apache-2.0
#include "fake_platform/low_memory.h"

#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>

namespace fake_platform {
namespace {

// The same range that real segments use: it is free under the address and the thread sanitizer and in 32-bit programs.
constexpr uint32_t lowest = 0x60000000u;
constexpr uint32_t highest = 0x7f000000u;

}  // namespace

LowMemory::LowMemory() {
  for (uint32_t at = lowest; at + region_bytes <= highest; at += region_bytes) {
    void *wanted = reinterpret_cast<void *>(static_cast<uintptr_t>(at));
    void *got = mmap(wanted, region_bytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (got == wanted) {
      base_ = at;
      return;
    }
    if (got != MAP_FAILED) munmap(got, region_bytes);  // a kernel without MAP_FIXED_NOREPLACE took it for a hint
  }
  std::fprintf(stderr, "no free range of %u bytes between 0x%x and 0x%x\n", region_bytes, lowest, highest);
  std::abort();
}

LowMemory::~LowMemory() {
  munmap(reinterpret_cast<void *>(static_cast<uintptr_t>(base_)), region_bytes);
}

void *LowMemory::allocate(size_t bytes) {
  const size_t rounded = (bytes + 15) & ~size_t{15};
  if (rounded > region_bytes - page - used_) {
    std::fprintf(stderr, "the %u bytes of low memory of this test are used up\n", region_bytes);
    std::abort();
  }
  void *block = reinterpret_cast<void *>(static_cast<uintptr_t>(base_ + used_));
  used_ += static_cast<uint32_t>(rounded);
  return block;
}

void LowMemory::reset() {
  // Dropped anonymous pages come back as zeros.
  if (madvise(reinterpret_cast<void *>(static_cast<uintptr_t>(base_)), region_bytes, MADV_DONTNEED) != 0) {
    std::perror("madvise");
    std::abort();
  }
  used_ = page;
}

}  // namespace fake_platform
