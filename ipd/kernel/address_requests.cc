// SPDX-License-Identifier: Apache-2.0
// The kernel's addresses, changed on a socket that is not the mirror's, whose messages may be many.
#include "ipd/kernel/address_requests.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <array>

#include "ipd/kernel/netlink_requests.h"

namespace ipd::kernel {
namespace {

constexpr uint8_t shortest_without_broadcast = 31;

class RtnetlinkRequests final : public AddressRequests {
 public:
  int add(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override {
    return ask(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, ifindex, addr, mask_len);
  }
  int remove(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override {
    return ask(RTM_DELADDR, 0, ifindex, addr, mask_len);
  }

 private:
  int ask(uint16_t type, uint16_t flags, uint32_t ifindex, uint32_t addr, uint8_t mask_len);

  NetlinkRequests requests_;
};

int RtnetlinkRequests::ask(uint16_t type, uint16_t flags, uint32_t ifindex, uint32_t addr, uint8_t mask_len) {
  std::array<char, 256> room{};
  nlmsghdr *message = mnl_nlmsg_put_header(room.data());
  message->nlmsg_type = type;
  message->nlmsg_flags = flags;
  auto *fixed = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ifaddrmsg)));
  fixed->ifa_family = AF_INET;
  fixed->ifa_prefixlen = mask_len;
  fixed->ifa_scope = RT_SCOPE_UNIVERSE;
  fixed->ifa_index = ifindex;
  mnl_attr_put_u32(message, IFA_LOCAL, htonl(addr));
  mnl_attr_put_u32(message, IFA_ADDRESS, htonl(addr));
  if (mask_len < shortest_without_broadcast) {
    mnl_attr_put_u32(message, IFA_BROADCAST, htonl(addr | (0xffffffffu >> mask_len)));
  }
  return requests_.ask(message, [](std::span<const std::byte>) {});
}

}  // namespace

std::unique_ptr<AddressRequests> AddressRequests::over_rtnetlink() {
  return std::make_unique<RtnetlinkRequests>();
}

}  // namespace ipd::kernel
