// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/download.h"

#include <algorithm>
#include <iterator>

namespace ipd::control {

std::optional<Download::Batch> Download::next(const InterfaceEntries &interfaces) const {
  if (full_) return next_of_full_set(interfaces);
  if (pending_.empty() || !follow_) return std::nullopt;
  return next_changes(interfaces);
}

Download::Batch Download::next_of_full_set(const InterfaceEntries &interfaces) const {
  Batch batch;
  const auto &present = interfaces.present();
  auto at = present.upper_bound(at_);
  // All that were left have gone, and the mark needs an entry: one is told again.
  if (at == present.end() && !present.empty()) at = std::prev(present.end());
  for (; at != present.end() && batch.entries.size() < most_entries; ++at) batch.entries.push_back(at->second);
  batch.ends_full_set = at == present.end();
  if (batch.ends_full_set && !batch.entries.empty()) batch.entries.back().f2 |= IP_IF_INFO_LAST;
  return batch;
}

// What is gone comes first: its name may be another one's already.
Download::Batch Download::next_changes(const InterfaceEntries &interfaces) const {
  Batch batch;
  for (const uint32_t iod : pending_) {
    if (batch.entries.size() == most_entries) return batch;
    if (const auto gone = interfaces.gone().find(iod); gone != interfaces.gone().end()) {
      batch.entries.push_back(gone->second);
    }
  }
  const auto take = [&](auto from, auto to) {
    for (; from != to && batch.entries.size() < most_entries; ++from) {
      const auto entry = interfaces.present().find(*from);
      if (entry != interfaces.present().end()) batch.entries.push_back(entry->second);
    }
  };
  // Round, so that an interface that changes all the time does not keep others from being told of.
  const auto from = pending_.upper_bound(at_);
  take(from, pending_.end());
  take(pending_.begin(), from);
  return batch;
}

void Download::set_told(uint32_t iod, bool told) {
  if (iod >= told_.size()) told_.resize(std::max<size_t>(iod + size_t{1}, 2 * told_.size()));
  told_[iod] = told;
}

void Download::sent(const Batch &batch) {
  for (const ip_if_info_msg_entry &entry : batch.entries) {
    set_told(entry.f0, (entry.f2 & IP_IF_INFO_REMOVED) == 0);
    pending_.erase(entry.f0);
    at_ = entry.f0;
  }
  if (batch.ends_full_set) {
    full_ = false;
    at_ = 0;
  }
}

void Download::changed(const std::set<uint32_t> &iods, const InterfaceEntries &interfaces) {
  if (!follow_) return;
  for (const uint32_t iod : iods) {
    if (full_ && iod > at_) continue;
    if (interfaces.present().contains(iod) || is_told(iod)) {
      pending_.insert(iod);
    } else {
      pending_.erase(iod);
    }
  }
}

}  // namespace ipd::control
