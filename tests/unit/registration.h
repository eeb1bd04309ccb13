// SPDX-License-Identifier: Apache-2.0
// The fixture of registration: a client with two queues on fixed SAPs, on the active supervisor.
#ifndef TESTS_UNIT_REGISTRATION_H
#define TESTS_UNIT_REGISTRATION_H

#include "unit/messages.h"

namespace unit {

class RegistrationTest : public MessagingTest {
 protected:
  static constexpr uint32_t control_q = 30;
  static constexpr uint32_t data_q = 31;
  static constexpr uint32_t data_sap = 501;

  RegistrationTest() {
    platform().queues[control_q] = 500;
    platform().queues[data_q] = data_sap;
  }

  static uint32_t register_client(const char *name) {
    return ip_register(name, data_q, control_q, 0x59, 0x01020304, &ip_client, 5, 6);
  }

  // The message of register_client: what does not depend on the data queue or on the client's flags.
  static Image registration(const std::string &name) {
    Image image = message(1);
    image.byte(24, 0x59).word(28, 0x01020304).text(32, name).word(104, 0xffffffff).word(108, own_pid());
    image.word(112, 1000).word(116, 6).word(120, 5);
    return image;
  }

  static Bytes reply(uint32_t result, uint16_t major = 5, uint16_t minor = 17) {
    return Image(24).half(0, major).half(2, minor).word(20, result).bytes();
  }
};

}  // namespace unit

#endif
