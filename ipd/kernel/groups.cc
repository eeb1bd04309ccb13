// SPDX-License-Identifier: Apache-2.0
// Memberships from a dump and from events.
//
// The events that come while a dump runs are applied at once to what is shown, and once more, in their order, to what
// the dump brought. The dump may have seen a change or not: the last event about a group is right either way, because
// each later change would have had an event of its own.
#include "ipd/kernel/groups.h"

#include <algorithm>

namespace ipd::kernel {

void Groups::apply(Lists &lists, const GroupMessage &message) {
  List &list = lists[message.ifindex];
  const auto position = std::find(list.begin(), list.end(), message.group);
  if (message.left) {
    if (position != list.end()) list.erase(position);
    if (list.empty()) lists.erase(message.ifindex);
  } else if (position == list.end()) {
    list.insert(list.begin(), message.group);
  }
}

void Groups::event(const GroupMessage &message) {
  apply(current_, message);
  changes_.insert(message.ifindex);
  if (dumping_) events_.push_back(message);
}

void Groups::begin_dump() {
  fresh_.clear();
  events_.clear();
  dumping_ = true;
}

void Groups::dump_entry(const GroupMessage &message) {
  if (!dumping_) return;
  List &list = fresh_[message.ifindex];
  if (std::find(list.begin(), list.end(), message.group) == list.end()) list.push_back(message.group);
}

void Groups::end_dump() {
  if (!dumping_) return;
  dumping_ = false;
  for (const GroupMessage &message : events_) apply(fresh_, message);
  for (const auto &[ifindex, list] : current_) {
    if (!fresh_.contains(ifindex)) changes_.insert(ifindex);
  }
  for (const auto &[ifindex, list] : fresh_) {
    const auto known = current_.find(ifindex);
    if (known == current_.end() || known->second != list) changes_.insert(ifindex);
  }
  current_ = std::move(fresh_);
  fresh_.clear();
  events_.clear();
}

void Groups::forget(uint32_t ifindex) {
  if (current_.erase(ifindex) != 0) changes_.insert(ifindex);
}

const Groups::List &Groups::groups(uint32_t ifindex) const {
  static const List none;
  const auto known = current_.find(ifindex);
  return known == current_.end() ? none : known->second;
}

}  // namespace ipd::kernel
