// SPDX-License-Identifier: Apache-2.0
// Packets that the kernel received for this system, by IP protocol.
#ifndef IPD_KERNEL_RAW_RECEPTION_H
#define IPD_KERNEL_RAW_RECEPTION_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace ipd::kernel {

struct RawPacket {
  uint32_t ifindex = 0;              // that it came in by; 0: the kernel did not tell
  bool truncated = false;            // there was more of it
  std::span<const std::byte> bytes;  // its header first
};

// Threads: one.
class RawReception {
 public:
  // Nothing is received yet. Null: *error.
  static std::unique_ptr<RawReception> make(int *error);
  virtual ~RawReception() = default;

  // From now on copies of packets of this protocol wait here. 0, or an error number: EPERM: we lack the privilege.
  virtual int open(uint8_t protocol) = 0;
  // What waits is lost.
  virtual void close(uint8_t protocol) = 0;
  // Readable while anything waits.
  [[nodiscard]] virtual int descriptor() const = 0;
  // Takes at most so many, from each protocol in turn; how many there were. `arrived` may open and close.
  virtual size_t read(size_t most, const std::function<void(const RawPacket &)> &arrived) = 0;
  // Packets for which the kernel had no room here.
  [[nodiscard]] virtual uint64_t lost() const = 0;
};

}  // namespace ipd::kernel

#endif
