// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/icmp_limits.h"

#include <algorithm>

namespace ipd::packet {
namespace {

using Moment = IcmpLimits::Moment;

constexpr std::chrono::nanoseconds time_for_one(uint32_t rate) {
  return std::chrono::nanoseconds(std::chrono::seconds(1)) / rate;
}

// A rate of 0 is no limit.
bool has_one(Moment full_at, Moment now, uint32_t rate, uint32_t burst) {
  return rate == 0 || full_at - now <= time_for_one(rate) * (burst - 1);
}

void spend_one(Moment *full_at, Moment now, uint32_t rate) {
  if (rate != 0) *full_at = std::max(*full_at, now) + time_for_one(rate);
}

}  // namespace

void IcmpLimits::configure(const IcmpErrorRule &rule) {
  if (rule == rule_) return;
  rule_ = rule;
  all_full_at_ = {};
  by_destination_.clear();
  buckets_.clear();
}

bool IcmpLimits::take(Moment now, uint32_t context_id, uint32_t destination) {
  if (!has_one(all_full_at_, now, rule_.rate, rule_.burst)) return false;
  if (rule_.destination_rate != 0) {
    const Destination key{context_id, destination};
    const auto found = by_destination_.find(key);
    if (found == by_destination_.end()) {
      if (buckets_.size() >= most_destinations) {
        by_destination_.erase(buckets_.back().destination);
        buckets_.pop_back();
      }
      buckets_.push_front({.destination = key, .full_at = now});
      by_destination_[key] = buckets_.begin();
    } else if (has_one(found->second->full_at, now, rule_.destination_rate, rule_.destination_burst)) {
      buckets_.splice(buckets_.begin(), buckets_, found->second);
    } else {
      return false;
    }
    spend_one(&buckets_.front().full_at, now, rule_.destination_rate);
  }
  spend_one(&all_full_at_, now, rule_.rate);
  return true;
}

}  // namespace ipd::packet
