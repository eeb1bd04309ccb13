// SPDX-License-Identifier: Apache-2.0
// Which multicast groups are joined on which interface, as the kernel has told.
#ifndef IPD_KERNEL_GROUPS_H
#define IPD_KERNEL_GROUPS_H

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "ipd/kernel/multicast_parse.h"

namespace ipd::kernel {

class Groups {
 public:
  using List = std::vector<uint32_t>;  // host order; the kernel's order: the last that was joined comes first

  void event(const GroupMessage &message);

  // A dump: its entries go to dump_entry(), events that come meanwhile to event(). At its end what neither told of is
  // gone.
  void begin_dump();
  void dump_entry(const GroupMessage &message);
  void end_dump();
  void give_up_dump() { dumping_ = false; }

  // The interface is another one: what is known of its groups was the old one's. A dump has to follow.
  void forget(uint32_t ifindex);

  [[nodiscard]] const List &groups(uint32_t ifindex) const;  // an empty one for an unknown interface
  // ifindexes whose list changed since the last call.
  std::set<uint32_t> take_changes() { return std::exchange(changes_, {}); }

 private:
  using Lists = std::map<uint32_t, List>;
  static void apply(Lists &lists, const GroupMessage &message);

  Lists current_;
  Lists fresh_;                       // what the running dump says
  std::vector<GroupMessage> events_;  // since the dump began
  bool dumping_ = false;
  std::set<uint32_t> changes_;
};

}  // namespace ipd::kernel

#endif
