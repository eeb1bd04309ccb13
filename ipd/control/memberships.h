// SPDX-License-Identifier: Apache-2.0
// Multicast groups and channels that processes join on interfaces, and all of multicast on an interface.
#ifndef IPD_CONTROL_MEMBERSHIPS_H
#define IPD_CONTROL_MEMBERSHIPS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ipd/control/box.h"
#include "ipd/control/handler.h"
#include "ipd/kernel/membership_sockets.h"

namespace ipd::control {

class Memberships final : public Handler {
 public:
  static constexpr size_t most_per_process = 16384;
  static constexpr size_t most = 65536;  // of all processes together
  static constexpr auto retry_period = std::chrono::seconds(1);

  Memberships(const Box &box, kernel::MembershipSockets &sockets) : box_(box), sockets_(sockets) {}

  Refusal handle(const Request &request) override;
  void process_gone(int32_t pid) override;
  void add_holdings(int32_t pid, Holdings &held) const override;
  void interfaces_changed(const std::set<uint32_t> &ifindexes) override;
  void tick(Clock::time_point now) override;

  // How many memberships the process has.
  [[nodiscard]] size_t held_by(int32_t pid) const;
  // Whether the process has joined the group, from any source or from this one, or every group. `iod` 0: on whichever
  // interface.
  [[nodiscard]] bool wants(int32_t pid, uint32_t iod, uint32_t group, uint32_t source) const;
  // The interfaces on which some process has joined the group, from any source or from this one; ascending. Who takes
  // every group has not asked for this one.
  [[nodiscard]] std::vector<uint32_t> interfaces_with(uint32_t group, uint32_t source) const;

 private:
  using Subject = std::pair<uint32_t, uint32_t>;  // group, source; 0, 0: every group
  struct Membership {
    std::set<int32_t> pids;  // never empty
    bool joined = false;     // in the kernel
  };
  using Members = std::map<Subject, Membership>;
  struct Interface {
    std::string name;
    uint32_t iod = 0;      // of an absent one: what it had
    uint32_t ifindex = 0;  // of an absent one: 0
    bool has_ipv4 = true;
    Members members;
  };

  static bool wants(const Interface &interface, int32_t pid, uint32_t group, uint32_t source);
  Refusal join(int32_t pid, uint32_t iod, const Subject &subject);
  Refusal leave(int32_t pid, uint32_t iod, const Subject &subject);
  int join_in_kernel(const Interface &interface, Members::value_type &member);
  int release(Interface &interface, Members::iterator member, int32_t pid);
  void release_all(Interface &interface, int32_t pid);
  void drop_if_empty(uint32_t iod);
  void look_at(uint32_t iod);
  void forget(Interface &interface);
  void come_back(const InterfaceFacts &facts);
  void take_over(Interface &from, Interface &to);
  bool join_missing(Interface &interface);
  void count_down(int32_t pid);
  void say(const char *what, const Interface &interface, const Subject &subject, int error);

  const Box &box_;
  kernel::MembershipSockets &sockets_;
  std::map<uint32_t, Interface> interfaces_;  // by iod
  std::map<uint32_t, uint32_t> iods_;         // of interfaces_, by ifindex
  std::map<std::string, Interface> absent_;   // by name
  std::map<int32_t, size_t> held_;            // memberships of each process; never 0
  size_t all_held_ = 0;
  bool missing_ = false;  // the kernel refused something that is still wanted
  Clock::time_point next_retry_{};
  uint64_t failures_ = 0;
};

}  // namespace ipd::control

#endif
