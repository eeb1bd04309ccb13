// SPDX-License-Identifier: Apache-2.0
// Packets that go into this system's kernel as if they had come in by an interface.
#ifndef IPD_KERNEL_TUN_INPUT_H
#define IPD_KERNEL_TUN_INPUT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace ipd::kernel {

class KernelInput {
 public:
  virtual ~KernelInput() = default;

  // A whole IPv4 packet or a fragment. 0, or an error number; of one that could not be opened, why.
  virtual int input(std::span<const std::byte> packet) = 0;
};

// By a tun device "rswin0" (or a higher number) without addresses, which ends with the object or with its process.
// Threads: one.
class TunInput : public KernelInput {
 public:
  // Nothing is open yet.
  static std::unique_ptr<TunInput> make();

  // Makes the device. 0, or an error number: EPERM, EACCES: we lack the privilege; ENOENT: the kernel has no tun
  // devices; ENOTSUP: it would drop all that comes in by one, because net.ipv4.conf.all.rp_filter is on.
  virtual int open() = 0;
  virtual void close() = 0;
  // 0: it is not open.
  [[nodiscard]] virtual uint32_t ifindex() const = 0;
};

}  // namespace ipd::kernel

#endif
