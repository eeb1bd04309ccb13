// SPDX-License-Identifier: Apache-2.0
// The system under a soak: what is always there, and what comes and goes; see soak_board.h.
#ifndef TESTS_SOAK_SOAK_KERNEL_H
#define TESTS_SOAK_SOAK_KERNEL_H

#include <array>
#include <cstdio>
#include <optional>
#include <random>
#include <string>

#include "soak_record.h"
#include "support/network_namespace.h"

namespace soak {

class Kernel {
 public:
  explicit Kernel(Record &record) : record_(record) {}
  ~Kernel();
  Kernel(const Kernel &) = delete;
  Kernel &operator=(const Kernel &) = delete;
  // In this process's namespace. What went wrong, empty when nothing did.
  std::string begin();
  // A few changes.
  void change(std::mt19937 &random);
  // Takes away everything that comes and goes, and waits until that is done.
  std::string settle();

 private:
  void flip_address(uint32_t index);
  void flip_link(uint32_t number, std::mt19937 &random);
  void change_route(std::mt19937 &random);
  void tell_ip(const std::string &words);
  std::string wait_for_ip();

  Record &record_;
  std::optional<test_support::AddressChanger> changer_;
  int right_ = 0;
  std::array<bool, SOAK_FLIPPING_COUNT> address_{};
  std::array<bool, SOAK_TRANSIENT_COUNT> link_{};
  FILE *ip_ = nullptr;  // one ip(8) that reads commands
};

}  // namespace soak

#endif
