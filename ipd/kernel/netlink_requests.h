// SPDX-License-Identifier: Apache-2.0
// One request to rtnetlink, and its answer.
#ifndef IPD_KERNEL_NETLINK_REQUESTS_H
#define IPD_KERNEL_NETLINK_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

struct mnl_socket;
struct nlmsghdr;

namespace ipd::kernel {

// Threads: one.
class NetlinkRequests {
 public:
  NetlinkRequests() = default;
  ~NetlinkRequests() { close(); }
  NetlinkRequests(const NetlinkRequests &) = delete;
  NetlinkRequests &operator=(const NetlinkRequests &) = delete;

  // Sends the request, whose sequence number and NLM_F_ACK are set here, and gives each message of the answer to
  // `answered`. The socket is opened with the first request. Results: 0, or the error number of the kernel or the
  // socket. ETIMEDOUT: no answer.
  int ask(nlmsghdr *request, const std::function<void(std::span<const std::byte>)> &answered);

 private:
  int open();
  void close();
  int receive(const std::function<void(std::span<const std::byte>)> &answered);

  mnl_socket *socket_ = nullptr;
  uint32_t sequence_ = 0;
};

}  // namespace ipd::kernel

#endif
