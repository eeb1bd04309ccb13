// SPDX-License-Identifier: Apache-2.0
#include "asked_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "ip_api.h"

namespace test_support {
namespace {

using Question = std::array<uint32_t, 4>;

constexpr uint8_t key = 103;

enum What : uint32_t {
  enable,
  disable,
  join,
  leave,
  join_if,
  leave_if,
  join_channel,
  leave_channel,
  enter,
  withdraw,
};

uint32_t enter_with_a_queue(const std::string &name) {
  static uint32_t control = ~0u;
  if (control == ~0u && ip_init_mts(&control, -1) == 0) return 0;
  return ip_register(name.c_str(), ~0u, control, key, 0, ip_api_init(), 0, 0);
}

uint32_t answer(const std::string &name, const Question &question) {
  const auto [what, a, b, c] = question;
  switch (what) {
    case enable:
      return ip_enable_multicast(a);
    case disable:
      return ip_disable_multicast(a);
    case join:
      return ip_join_group(a, b);
    case leave:
      return ip_leave_group(a, b);
    case join_if:
      return ip_join_group_if(a, b);
    case leave_if:
      return ip_leave_group_if(a, b);
    case join_channel:
      return ip_join_channel(a, b, c);
    case leave_channel:
      return ip_leave_channel(a, b, c);
    case enter:
      return enter_with_a_queue(name);
    case withdraw:
      return static_cast<uint32_t>(ip_deregister(name.c_str(), key, &ip_client));
    default:
      return ~0u;
  }
}

int serve(int socket, const std::string &name) {
  if (ip_api_init() == nullptr) return 1;
  Question question{};
  while (recv(socket, question.data(), sizeof question, 0) == sizeof question) {
    const uint32_t result = answer(name, question);
    if (send(socket, &result, sizeof result, MSG_NOSIGNAL) != sizeof result) return 1;
  }
  return 0;
}

}  // namespace

AskedClient::AskedClient(const std::string &name, Registered registered) {
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
  socket_ = ends[0];
  process_ = Process([ends, &name] {
    close(ends[0]);
    return serve(ends[1], name);
  });
  close(ends[1]);
  if (registered == Registered::yes && ip_register() != 1) kill();
}

AskedClient::~AskedClient() {
  if (socket_ >= 0) close(socket_);
}

uint32_t AskedClient::ask(uint32_t what, uint32_t a, uint32_t b, uint32_t c) {
  const Question question{what, a, b, c};
  uint32_t result = ~0u;
  if (send(socket_, question.data(), sizeof question, MSG_NOSIGNAL) != sizeof question ||
      recv(socket_, &result, sizeof result, 0) != sizeof result) {
    return ~0u;
  }
  return result;
}

uint32_t AskedClient::ip_enable_multicast(uint32_t iod) {
  return ask(enable, iod);
}

uint32_t AskedClient::ip_disable_multicast(uint32_t iod) {
  return ask(disable, iod);
}

uint32_t AskedClient::ip_join_group(uint32_t group, uint32_t iod) {
  return ask(join, group, iod);
}

uint32_t AskedClient::ip_leave_group(uint32_t group, uint32_t iod) {
  return ask(leave, group, iod);
}

uint32_t AskedClient::ip_join_group_if(uint32_t group, uint32_t ifindex) {
  return ask(join_if, group, ifindex);
}

uint32_t AskedClient::ip_leave_group_if(uint32_t group, uint32_t ifindex) {
  return ask(leave_if, group, ifindex);
}

uint32_t AskedClient::ip_join_channel(uint32_t group, uint32_t source, uint32_t iod) {
  return ask(join_channel, group, source, iod);
}

uint32_t AskedClient::ip_leave_channel(uint32_t group, uint32_t source, uint32_t iod) {
  return ask(leave_channel, group, source, iod);
}

uint32_t AskedClient::ip_register() {
  return ask(enter);
}

uint32_t AskedClient::ip_deregister() {
  return ask(withdraw);
}

}  // namespace test_support
