// SPDX-License-Identifier: Apache-2.0
// A network namespace of the test process's own, and quick changes of addresses in it.
#ifndef TESTS_SUPPORT_NETWORK_NAMESPACE_H
#define TESTS_SUPPORT_NETWORK_NAMESPACE_H

#include <cstdint>
#include <string>

namespace test_support {

// Moves this process (single-threaded still) into a new network namespace, with a user namespace of its own when it is
// not root. False: the system does not let us.
bool enter_network_namespace(std::string *reason);

// Speaks rtnetlink to the kernel, without starting a program for each change.
class AddressChanger {
 public:
  AddressChanger();
  ~AddressChanger();
  AddressChanger(const AddressChanger &) = delete;
  AddressChanger &operator=(const AddressChanger &) = delete;
  // addr in host order. 0, or the errno that the kernel answered.
  int add(int ifindex, uint32_t addr, uint8_t mask_len) { return change(true, ifindex, addr, mask_len); }
  int remove(int ifindex, uint32_t addr, uint8_t mask_len) { return change(false, ifindex, addr, mask_len); }

 private:
  int change(bool add, int ifindex, uint32_t addr, uint8_t mask_len);
  int fd_;
  uint32_t sequence_ = 0;
};

}  // namespace test_support

#endif
