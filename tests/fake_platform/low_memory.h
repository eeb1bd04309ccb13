// SPDX-License-Identifier: Apache-2.0
// Memory whose addresses fit 32 bits, in every width: what shared records and packet buffers of a test are made of,
// because their pointers are 32-bit words.
#ifndef TESTS_FAKE_PLATFORM_LOW_MEMORY_H
#define TESTS_FAKE_PLATFORM_LOW_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace fake_platform {

class LowMemory {
 public:
  LowMemory();  // maps the region; aborts with a message when the address range is taken
  ~LowMemory();
  LowMemory(const LowMemory &) = delete;
  LowMemory &operator=(const LowMemory &) = delete;

  // Zeroed, aligned to 16 bytes; aborts when the region is full. Lives until reset().
  void *allocate(size_t bytes);

  template <class T, class... Args>
  T *make(Args &&...args) {
    return new (allocate(sizeof(T))) T{std::forward<Args>(args)...};
  }

  // Everything handed out reads zero again and may be handed out anew.
  void reset();

  // The page that leads the region and the one that ends it are never handed out.
  [[nodiscard]] uint32_t bottom() const { return base_; }
  [[nodiscard]] uint32_t top() const { return base_ + region_bytes; }

  static constexpr uint32_t region_bytes = 64u << 20;
  static constexpr uint32_t page = 4096;

 private:
  uint32_t base_ = 0;
  uint32_t used_ = page;
};

}  // namespace fake_platform

#endif
