// SPDX-License-Identifier: Apache-2.0
// A connection to a queue by hand, which says anything.
#ifndef TESTS_PLATFORM_MTS_RAW_SENDER_H
#define TESTS_PLATFORM_MTS_RAW_SENDER_H

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "mts/wire.h"

namespace mts_rig {

class RawSender {
 public:
  explicit RawSender(const std::string &path) : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) throw std::runtime_error("connect");
  }
  ~RawSender() { close(fd_); }
  RawSender(const RawSender &) = delete;
  RawSender &operator=(const RawSender &) = delete;
  void write(const rsw::mts::WireHeader &header, size_t extra) const {
    std::string bytes(sizeof header + extra, 'r');
    memcpy(bytes.data(), &header, sizeof header);
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  void write(const std::string &bytes) const {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  [[nodiscard]] bool was_closed() const {
    char byte = 0;
    const ssize_t got = recv(fd_, &byte, 1, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno != EAGAIN);
  }

 private:
  int fd_;
};

inline rsw::mts::WireHeader good_header() {
  rsw::mts::WireHeader header{};
  header.magic = rsw::mts::wire_magic;
  header.kind = 1;
  header.opcode = 5;
  header.sap = 3000;
  header.size = 8;
  return header;
}

}  // namespace mts_rig

#endif
