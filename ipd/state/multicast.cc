// SPDX-License-Identifier: Apache-2.0
// Groups and counters come from a socket of their own, so they may be there before their interface or after it is gone.
// They are told for interfaces that the publisher has; when it gets a new one, what is known of it is told then.
//
// An interface is known by its iod. Another iod under the same ifindex is another interface: what was known of the
// ifindex was the old one's, and is asked of the kernel again.
#include "ipd/state/multicast.h"

#include <syslog.h>

#include <utility>
#include <vector>

#include "ipd/process/log.h"

namespace ipd {

bool MulticastState::interfaces_changed(const std::set<uint32_t> &ifindexes) {
  bool replaced = false;
  for (const uint32_t ifindex : ifindexes) {
    const uint32_t iod = publisher_.iod(ifindex);
    const auto known = interfaces_.find(ifindex);
    if (known != interfaces_.end() && known->second.iod == iod) continue;
    if (known != interfaces_.end()) {
      interfaces_.erase(known);
      groups_.forget(ifindex);
      replaced = true;
    }
    if (iod == 0) continue;
    interfaces_.emplace(
        ifindex,
        Told{.iod = iod, .counters = InterfaceCounters(publisher_.multicast_counters(ifindex)), .skip_one = counted_});
    tell(ifindex);
  }
  return replaced;
}

bool MulticastState::tell(uint32_t ifindex) {
  if (!interfaces_.contains(ifindex)) return false;
  std::vector<GroupState> groups;
  // The kernel says nothing with a group: its data is 0.
  for (const uint32_t group : groups_.groups(ifindex)) groups.push_back({.group = group, .data = 0});
  if (publisher_.set_groups(ifindex, groups)) {
    refused_.erase(ifindex);
    return true;
  }
  refused_.insert(ifindex);
  if (++refusals_ <= 10 || refusals_ % 1000 == 0) {
    log_line(LOG_ERR, "cannot publish groups: %s", publisher_.last_error().c_str());
  }
  return false;
}

bool MulticastState::tell_groups() {
  bool told = false;
  for (const uint32_t ifindex : groups_.take_changes()) told |= tell(ifindex);
  return told;
}

void MulticastState::tell_counters(const std::map<uint32_t, kernel::KernelCounts> &counts) {
  counted_ = true;
  for (auto &[ifindex, told] : interfaces_) {
    if (std::exchange(told.skip_one, false)) continue;
    const auto found = counts.find(ifindex);
    if (found != counts.end()) publisher_.set_multicast_counters(ifindex, told.counters.read(found->second));
  }
  for (const uint32_t ifindex : std::set<uint32_t>(refused_)) tell(ifindex);
}

}  // namespace ipd
