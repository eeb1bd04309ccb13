// SPDX-License-Identifier: Apache-2.0
// The bytes that a fuzzer is given, taken piece by piece; zeros when there are no more.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace fuzz {

class Input {
 public:
  Input(const uint8_t *data, size_t size) : rest_(data, size) {}
  [[nodiscard]] bool empty() const { return rest_.empty(); }
  uint8_t byte() {
    if (rest_.empty()) return 0;
    const uint8_t value = rest_[0];
    rest_ = rest_.subspan(1);
    return value;
  }
  uint32_t word() { return byte() | (uint32_t{byte()} << 8) | (uint32_t{byte()} << 16) | (uint32_t{byte()} << 24); }
  // Zeros where the input has no more.
  std::vector<std::byte> bytes(size_t count) {
    std::vector<std::byte> taken(count);
    const size_t there = count < rest_.size() ? count : rest_.size();
    if (there != 0) std::memcpy(taken.data(), rest_.data(), there);
    rest_ = rest_.subspan(there);
    return taken;
  }

 private:
  std::span<const uint8_t> rest_;
};

}  // namespace fuzz

#endif
