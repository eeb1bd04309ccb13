// SPDX-License-Identifier: Apache-2.0
// Asking the kernel for an address on an interface, and for its end.
#ifndef IPD_KERNEL_ADDRESS_REQUESTS_H
#define IPD_KERNEL_ADDRESS_REQUESTS_H

#include <cstdint>
#include <memory>

namespace ipd::kernel {

class AddressRequests {
 public:
  // Over rtnetlink, in this process's network namespace. The socket is opened with the first request.
  static std::unique_ptr<AddressRequests> over_rtnetlink();
  virtual ~AddressRequests() = default;

  // Adds the address. Results: 0: done; the event that tells of it is on its way. EEXIST: it was there. ENODEV: there
  // is no such interface. EPERM, EACCES: this process may not. ETIMEDOUT: no answer. Else the error number of the
  // kernel or the socket.
  virtual int add(uint32_t ifindex, uint32_t addr, uint8_t mask_len) = 0;
  // Removes it. Results: as add's, but EADDRNOTAVAIL: it was not there.
  virtual int remove(uint32_t ifindex, uint32_t addr, uint8_t mask_len) = 0;
};

}  // namespace ipd::kernel

#endif
