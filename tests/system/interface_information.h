// SPDX-License-Identifier: Apache-2.0
// What a client learns of interfaces from ipd's messages.
#ifndef TESTS_SYSTEM_INTERFACE_INFORMATION_H
#define TESTS_SYSTEM_INTERFACE_INFORMATION_H

#include <cstdint>
#include <map>
#include <string>

#include "ip_msg.h"

namespace test_support {

// One queue and what comes on it. This process must be attached.
class InterfaceInformation {
 public:
  InterfaceInformation();
  ~InterfaceInformation();
  InterfaceInformation(const InterfaceInformation &) = delete;
  InterfaceInformation &operator=(const InterfaceInformation &) = delete;

  // One of IP_DOWNLOAD_...; true: sent.
  bool ask(uint32_t mode, uint32_t cookie = 0);
  // Takes in what has come.
  void read();
  void close_queue();

  [[nodiscard]] bool full_set_is_there() const { return full_sets_ > 0; }
  [[nodiscard]] uint32_t full_sets() const { return full_sets_; }
  [[nodiscard]] uint32_t messages() const { return messages_; }
  [[nodiscard]] uint32_t removals() const { return removals_; }
  [[nodiscard]] uint32_t removals_of_unknown() const { return removals_of_unknown_; }
  [[nodiscard]] const std::map<uint32_t, ip_if_info_msg_entry> &interfaces() const { return interfaces_; }
  // Null: none of this name.
  [[nodiscard]] const ip_if_info_msg_entry *find(const std::string &name) const;
  // As kernels_picture() prints it, with an interface's first address alone.
  [[nodiscard]] std::string picture() const;
  [[nodiscard]] uint32_t queue() const { return queue_; }
  [[nodiscard]] uint32_t sap() const { return sap_; }

 private:
  static void take(ip_if_info_msg *record);

  uint32_t queue_ = ~uint32_t{0};
  uint32_t sap_ = 0;
  uint32_t full_sets_ = 0;
  uint32_t messages_ = 0;
  uint32_t removals_ = 0;
  uint32_t removals_of_unknown_ = 0;
  std::map<uint32_t, ip_if_info_msg_entry> interfaces_;  // by iod
};

// A picture without an interface's addresses but the first.
std::string first_addresses_of(const std::string &picture);

}  // namespace test_support

#endif
