// SPDX-License-Identifier: Apache-2.0
// An interface's groups as readers walk them: from ip_iftype.group_list along `next`.
//
// A record never changes once it is in the list. The new list shares with the old one the longest end that both have;
// what stands in front of it is built anew, and the list's head is swung to it. So each walk sees one whole list, the
// old or the new. The kernel puts a group that is joined in front of the others, hence a join is one new record, and a
// group that is left costs as many as were joined after it.
#include "ipd/publish/group_list.h"

namespace ipd {
namespace {

// Groups at the end of both lists.
size_t common_end(const std::vector<Group> &old, const std::vector<GroupState> &fresh) {
  size_t count = 0;
  while (count < old.size() && count < fresh.size() &&
         old[old.size() - 1 - count].state == fresh[fresh.size() - 1 - count]) {
    ++count;
  }
  return count;
}

}  // namespace

bool replace_groups(rsw::Arena &arena, Interface &interface, const std::vector<GroupState> &groups) {
  std::vector<Group> &old = interface.groups;
  const size_t kept = common_end(old, groups);
  std::vector<Group> fresh;
  fresh.reserve(groups.size());
  for (size_t i = 0; i + kept < groups.size(); ++i) {
    auto *record = static_cast<ip_maddrtype *>(arena.allocate(group_record));
    if (record == nullptr) {
      for (const Group &unused : fresh) arena.give_back(group_record, unused.record);
      return false;
    }
    // Relaxed: who gets here by the list is served by the store of the head.
    __atomic_store_n(&record->group, groups[i].group, __ATOMIC_RELAXED);
    __atomic_store_n(&record->group_data, groups[i].data, __ATOMIC_RELAXED);
    if (i > 0) fresh.back().record->next = record;
    fresh.push_back({.state = groups[i], .record = record});
  }
  const size_t replaced = old.size() - kept;
  if (!fresh.empty() && kept > 0) fresh.back().record->next = old[replaced].record;
  fresh.insert(fresh.end(), old.begin() + static_cast<std::ptrdiff_t>(replaced), old.end());
  // Release (in the assignment): publishes the new records; partner: the walk's load of this word.
  interface.record->group_list = fresh.empty() ? nullptr : fresh.front().record;

  for (size_t i = 0; i < replaced; ++i) arena.retire(group_record, old[i].record);
  old = std::move(fresh);
  return true;
}

}  // namespace ipd
