// SPDX-License-Identifier: Apache-2.0
// Messages as bytes: what the library sent beside an image that is written offset by offset, without its records.
#ifndef TESTS_UNIT_MESSAGES_H
#define TESTS_UNIT_MESSAGES_H

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t no_queue = 0xffffffff;
inline constexpr uint32_t control_opcode = 0x14c01;
inline constexpr uint32_t configure_opcode = 0x14c03;

// Zeros, and what is written into them.
class Image {
 public:
  explicit Image(size_t size) : bytes_(size) {}

  Image &byte(size_t offset, uint8_t value) { return copy(offset, &value, sizeof value); }
  Image &half(size_t offset, uint16_t value) { return copy(offset, &value, sizeof value); }
  Image &word(size_t offset, uint32_t value) { return copy(offset, &value, sizeof value); }
  Image &text(size_t offset, const std::string &value) { return copy(offset, value.data(), value.size()); }

  [[nodiscard]] const Bytes &bytes() const { return bytes_; }

 private:
  Image &copy(size_t offset, const void *from, size_t size) {
    EXPECT_LE(offset + size, bytes_.size());
    if (offset + size <= bytes_.size()) std::memcpy(bytes_.data() + offset, from, size);
    return *this;
  }
  Bytes bytes_;
};

inline uint32_t own_pid() {
  return static_cast<uint32_t>(getpid());
}

// What the fake platform makes of a process id and of its clock, in the header of a message that was sent.
inline Image message(uint16_t minor_type, size_t size = 232) {
  Image image(size);
  image.half(0, 5).half(2, minor_type).word(4, own_pid()).word(8, own_pid() + 1000);
  image.word(12, 0x01020304).word(16, 0x05060708).word(20, platform().uuid);
  return image;
}

// How the calls of every message begin and end.
inline std::string epid_call(uint32_t pid = own_pid()) {
  return "ksink_get_epid(" + std::to_string(pid) + ")";
}
inline std::string send_call(uint32_t queue, size_t size = 232, uint32_t opcode = control_opcode) {
  return "mts_send(" + std::to_string(queue) + ", 4261412864, 263, " + std::to_string(opcode) + ", " +
         std::to_string(size) + ", 0)";
}

class MessagingTest : public LibraryTest {
 protected:
  MessagingTest() {
    platform().supervisor_state = 1;
    ip_client.ctrl_q = ip_client.data_q = no_queue;
  }

  // Debug lines reach the platform from here on.
  static void show_debug_lines() { platform().scripts.answer("sdwrap_chk_int", 1); }
  static const Calls &debug_lines() { return platform().debug_lines; }

  static size_t sent_count() { return platform().sent.size(); }
  // The only message that was sent.
  static const fake_platform::SentMessage &sent() {
    static const fake_platform::SentMessage none{};
    EXPECT_EQ(platform().sent.size(), 1u);
    return platform().sent.empty() ? none : platform().sent.back();
  }
  static const Bytes &sent_bytes() { return sent().payload; }

  // A message that the next receive hands out.
  static void arrive(uint32_t opcode, Bytes payload) {
    platform().replies.push_back({.opcode = opcode, .payload = std::move(payload), .reject = false, .token = 0});
  }
  static bool everything_is_dropped() { return platform().received.empty(); }
};

}  // namespace unit

#endif
