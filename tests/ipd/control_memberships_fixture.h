// SPDX-License-Identifier: Apache-2.0
// Memberships over a box and a kernel made by hand.
#ifndef TESTS_IPD_CONTROL_MEMBERSHIPS_FIXTURE_H
#define TESTS_IPD_CONTROL_MEMBERSHIPS_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ip_msg.h"
#include "ipd/control/memberships.h"
#include "ipd/control_fakes.h"

namespace memberships_test {

using ipd::control::Memberships;
using ipd::control::Refusal;
using ipd::kernel::Membership;

inline constexpr uint32_t group = 0xef010203, other_group = 0xe0000005;
inline constexpr uint32_t source = 0x0a000001, other_source = 0x0a000002;
inline constexpr uint32_t iod = 5, ifindex = 50;
inline constexpr int32_t ospf = 1001, pim = 1002;

// Refuses what its interface forbids, and what a test wants it to refuse.
class HandMadeKernel final : public ipd::kernel::MembershipSockets {
 public:
  int join(const Membership &membership) override {
    ++calls;
    if (joined.contains(membership)) ADD_FAILURE() << "joined twice";
    if (join_error != 0 && room == 0) return join_error;
    if (join_error != 0) --room;
    joined.insert(membership);
    return 0;
  }
  int leave(const Membership &membership) override {
    ++calls;
    if (joined.erase(membership) == 0) ADD_FAILURE() << "left without a join";
    return leave_error;
  }
  void forget(uint32_t which) override {
    ++calls;
    forgotten.push_back(which);
    std::erase_if(joined, [which](const Membership &each) { return each.ifindex == which; });
  }

  std::set<Membership> joined;
  std::vector<uint32_t> forgotten;
  int join_error = 0;
  size_t room = 0;  // joins that succeed although there is a join_error
  int leave_error = 0;
  size_t calls = 0;
};

class MembershipsTest : public ::testing::Test {
 protected:
  MembershipsTest() { set(iod, ifindex, "eth0"); }

  Refusal send(int32_t pid, uint16_t minor, ip_msg_group message) {
    message.header.minor_type = minor;
    return memberships_.handle(test_support::request_of(message, {.pid = pid}, IP_OPCODE_CLIENT));
  }
  // Bytes that a message does not define are whatever they are.
  static ip_msg_group message(uint32_t its_group, uint32_t its_source, uint32_t its_iod) {
    ip_msg_group message;
    std::memset(&message, 0xa5, sizeof message);
    message.group = its_group;
    message.source = its_source;
    message.iod = its_iod;
    return message;
  }
  Refusal join(int32_t pid, uint32_t its_group, uint32_t its_source = 0, uint32_t its_iod = iod) {
    return send(pid, IP_MSG_JOIN_GROUP, message(its_group, its_source, its_iod));
  }
  Refusal leave(int32_t pid, uint32_t its_group, uint32_t its_source = 0, uint32_t its_iod = iod) {
    return send(pid, IP_MSG_LEAVE_GROUP, message(its_group, its_source, its_iod));
  }
  void set(uint32_t its_iod, uint32_t its_ifindex, const std::string &name, uint32_t mtu = 1500) {
    box_.add(its_iod, its_ifindex, name).state.mtu = mtu;
  }
  void tick() { memberships_.tick(now_ += Memberships::retry_period); }
  void remove(uint32_t its_iod) {
    const uint32_t its_ifindex = box_.interfaces.at(its_iod).state.ifindex;
    box_.interfaces.erase(its_iod);
    memberships_.interfaces_changed({its_ifindex});
  }
  void change(uint32_t its_iod, uint32_t its_ifindex, const std::string &name, uint32_t mtu = 1500) {
    set(its_iod, its_ifindex, name, mtu);
    memberships_.interfaces_changed({its_ifindex});
  }

  using Joined = std::set<Membership>;
  test_support::FakeBox box_;
  HandMadeKernel kernel_;
  Memberships memberships_{box_, kernel_};
  Memberships::Clock::time_point now_{};
};

}  // namespace memberships_test

#endif
