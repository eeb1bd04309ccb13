// SPDX-License-Identifier: Apache-2.0
// How the readers of rtnetlink messages take values out of bytes: nothing is used before it was compared with what is
// there, and everything is copied out, since a datagram has no alignment that C++ could rely on.
#ifndef IPD_KERNEL_ATTRIBUTES_H
#define IPD_KERNEL_ATTRIBUTES_H

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "ipd/kernel/parse.h"

namespace ipd::kernel {

using Bytes = std::span<const std::byte>;

constexpr size_t padded(size_t length) {
  return (length + 3) & ~size_t{3};
}

// The one place where bytes become a value.
template <class T>
T copy_out(Bytes bytes) {
  T value;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

// Reads attributes and remembers the first thing that was wrong with them.
class Attributes {
 public:
  explicit Attributes(Bytes bytes) : rest_(bytes) {}

  // The next attribute into type and payload. False at the end, or when the rest is malformed.
  bool next(uint16_t &type, Bytes &payload) {
    if (rest_.empty()) return false;
    if (rest_.size() < sizeof(rtattr)) return fail(Refusal::lying_attribute);
    const auto header = copy_out<rtattr>(rest_);
    if (header.rta_len < sizeof(rtattr) || header.rta_len > rest_.size()) return fail(Refusal::lying_attribute);
    type = header.rta_type & NLA_TYPE_MASK;
    payload = rest_.subspan(sizeof(rtattr), header.rta_len - sizeof(rtattr));
    rest_ = rest_.subspan(std::min(padded(header.rta_len), rest_.size()));
    return true;
  }

  uint32_t u32(Bytes payload) {
    if (payload.size() != sizeof(uint32_t)) {
      fail(Refusal::wrong_attribute_size);
      return 0;
    }
    return copy_out<uint32_t>(payload);
  }

  uint32_t address(Bytes payload) { return ntohl(u32(payload)); }

  bool fail(Refusal refusal) {
    if (!refusal_) refusal_ = refusal;
    rest_ = {};
    return false;
  }

  [[nodiscard]] std::optional<Refusal> refusal() const { return refusal_; }

 private:
  Bytes rest_;
  std::optional<Refusal> refusal_;
};

// The text of a NUL-terminated payload of at most `limit` characters; nothing when it is not that.
inline std::optional<std::string> text(Bytes payload, size_t limit) {
  const auto end = std::find(payload.begin(), payload.end(), std::byte{0});
  const auto length = static_cast<size_t>(end - payload.begin());
  if (end == payload.end() || length == 0 || length > limit) return std::nullopt;
  return std::string(reinterpret_cast<const char *>(payload.data()), length);
}

}  // namespace ipd::kernel

#endif
