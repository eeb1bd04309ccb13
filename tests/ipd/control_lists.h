// SPDX-License-Identifier: Apache-2.0
// A message that lists interfaces.
#ifndef TESTS_IPD_CONTROL_LISTS_H
#define TESTS_IPD_CONTROL_LISTS_H

#include <cstring>
#include <vector>

#include "ip_msg.h"
#include "ipd/control/request.h"

namespace test_support {

class InterfaceList {
 public:
  InterfaceList(uint16_t minor, const std::vector<uint32_t> &iods)
      : minor_(minor), bytes_(IP_MSG_SIZE + 4 * iods.size()) {
    ip_msg_header header{};
    header.major_type = IP_MAJOR_CLIENT;
    header.minor_type = minor;
    std::memcpy(bytes_.data(), &header, sizeof header);
    claim(static_cast<uint32_t>(iods.size()));
    if (!iods.empty()) {
      std::memcpy(bytes_.data() + offsetof(ip_msg_interface_list, iods), iods.data(), 4 * iods.size());
    }
  }
  // Says that it lists so many.
  void claim(uint32_t count) {
    std::memcpy(bytes_.data() + offsetof(ip_msg_interface_list, count), &count, sizeof count);
  }
  void cut(size_t size) { bytes_.resize(size); }

  // It looks at the list, which has to live as long.
  [[nodiscard]] ipd::control::Request request() const {
    ipd::control::Request request;
    request.sender = {.pid = 100, .uid = 0, .sap = 2048};
    request.opcode = IP_OPCODE_CLIENT;
    request.minor = minor_;
    request.bytes = bytes_;
    return request;
  }

 private:
  uint16_t minor_;
  std::vector<std::byte> bytes_;
};

}  // namespace test_support

#endif
