// SPDX-License-Identifier: Apache-2.0
// What protocols count and read beside addresses: the groups and the counters of an interface, and how equal-cost paths
// share the load.
//
// Counters are stored in place, each by one store: a reader may find one of them as it is now and the next one as it
// was, but each was true. They do not count as news: nobody is woken for them.
//
// A new ipd goes on counting where the previous one stopped. The statistics block of an interface that is still there
// is adopted where it lies; the count of PIM asserts stands in the interface's record and is carried over into the new
// one. Both belong to the ifindex: an interface that is removed and made again begins at zero.
#include <algorithm>
#include <bit>
#include <utility>

#include <endian.h>
#include "ipd/publish/group_list.h"
#include "ipd/publish/segment_publisher.h"

namespace ipd {
namespace {

void store_counter(ip_counter64 &counter, uint64_t value) {
  store_shared_pair(counter.words, value);
}

uint64_t inherited_counter(const ip_counter64 &counter) {
  return std::bit_cast<uint64_t>(counter);
}

void store_counters(ip_if_stats &statistics, const MulticastCounters &counters) {
  store_shared(statistics.mcast_packets1, counters.packets[0]);
  store_shared(statistics.mcast_packets2, counters.packets[1]);
  store_shared(statistics.mcast_packets3, counters.packets[2]);
  store_shared(statistics.mcast_packets4, counters.packets[3]);
  store_shared(statistics.mcast_packets5, counters.packets[4]);
  store_counter(statistics.mcast_bytes1, counters.bytes[0]);
  store_counter(statistics.mcast_bytes2, counters.bytes[1]);
}

// The writer of the block is dead: nobody changes it.
MulticastCounters inherited_counters(const ip_if_stats &statistics) {
  return {.packets = {statistics.mcast_packets1, statistics.mcast_packets2, statistics.mcast_packets3,
                      statistics.mcast_packets4, statistics.mcast_packets5},
          .bytes = {inherited_counter(statistics.mcast_bytes1), inherited_counter(statistics.mcast_bytes2)}};
}

// The two words of the root from the load-share mode on, as they lie in memory.
struct LoadShareWords {
  uint8_t mode;
  uint8_t reserved[3];
  uint32_t value_net;
};
static_assert(sizeof(LoadShareWords) == 8);
static_assert(offsetof(LoadShareWords, value_net) ==
              offsetof(ip_root, ecmp_loadshare_value) - offsetof(ip_root, ecmp_loadshare_mode));
static_assert((root_offset + offsetof(ip_root, ecmp_loadshare_mode)) % 8 == 0);

}  // namespace

bool SegmentPublisher::set_groups(uint32_t ifindex, const std::vector<GroupState> &groups) {
  Interface *interface = find_interface(ifindex);
  if (interface == nullptr) return refuse("no interface has the index ", std::to_string(ifindex));
  for (const GroupState &group : groups) {
    if (group.group >> 28 != 0xe)
      return refuse("a group of interface ", interface->state.name, " is not in 224.0.0.0/4");
  }
  const bool same = std::equal(groups.begin(), groups.end(), interface->groups.begin(), interface->groups.end(),
                               [](const GroupState &state, const Group &group) { return state == group.state; });
  if (same) return true;
  if (!replace_groups(*arena_, *interface, groups)) {
    return refuse_for_storage("the groups of interface " + interface->state.name);
  }
  changed_ = true;
  return true;
}

bool SegmentPublisher::set_multicast_counters(uint32_t ifindex, const MulticastCounters &counters) {
  Interface *interface = find_interface(ifindex);
  if (interface == nullptr) return refuse("no interface has the index ", std::to_string(ifindex));
  if (interface->statistics != nullptr) {
    if (interface->counters != counters) store_counters(interface->statistics->counters, counters);
    interface->counters = counters;
    return true;
  }
  auto *block = static_cast<StatisticsBlock *>(arena_->allocate(statistics_record));
  if (block == nullptr) return refuse_for_storage("the counters of interface " + interface->state.name);
  store_counters(block->counters, counters);
  interface->statistics = block;
  interface->counters = counters;
  // Release (in the assignment): publishes the block; partner: a question's load of this word.
  interface->record->stats = reinterpret_cast<uint8_t *>(block);
  changed_ = true;
  return true;
}

bool SegmentPublisher::set_pim_asserts(uint32_t ifindex, uint32_t count) {
  Interface *interface = find_interface(ifindex);
  if (interface == nullptr) return refuse("no interface has the index ", std::to_string(ifindex));
  interface->pim_asserts = count;
  store_shared(interface->record->pim_assert_sent, count);
  return true;
}

bool SegmentPublisher::set_load_share(uint8_t mode, uint32_t value) {
  if (load_share_mode_ == mode && load_share_value_ == value) return true;
  load_share_mode_ = mode;
  load_share_value_ = value;
  if (live_) publish_load_share();
  changed_ = true;
  return true;
}

void SegmentPublisher::publish_load_share() {
  const LoadShareWords words{.mode = load_share_mode_, .reserved = {}, .value_net = htobe32(load_share_value_)};
  store_shared_pair(&root_->ecmp_loadshare_mode, std::bit_cast<uint64_t>(words));
}

uint32_t SegmentPublisher::pim_asserts(uint32_t ifindex) const {
  const auto position = interfaces_.find(ifindex);
  return position == interfaces_.end() ? 0 : position->second.pim_asserts;
}

std::optional<MulticastCounters> SegmentPublisher::multicast_counters(uint32_t ifindex) const {
  const auto position = interfaces_.find(ifindex);
  if (position == interfaces_.end() || position->second.statistics == nullptr) return std::nullopt;
  return position->second.counters;
}

// Take-over: each record and each block is one of ours only if adopt() says so. The records are kept for their readers
// until the first commit and not a word of them is trusted but the two that are read here.
void SegmentPublisher::inherit_counters() {
  for (const uint32_t previous_iod : interface_table_->iods()) {
    auto *record = static_cast<ip_iftype *>(interface_table_->extension(previous_iod, IP_COMPONENT));
    if (record == nullptr || !arena_->adopt(interface_record, record)) continue;
    auto *block = reinterpret_cast<StatisticsBlock *>(record->stats.get());
    if (block != nullptr && !arena_->adopt(statistics_record, block)) block = nullptr;
    inherited_.emplace(interface_table_->get(previous_iod)->ifindex,
                       Inherited{.record = record, .statistics = block, .pim_asserts = record->pim_assert_sent});
  }
}

void SegmentPublisher::take_inherited(Interface &interface) {
  const auto position = inherited_.find(interface.state.ifindex);
  if (position == inherited_.end()) return;
  Inherited &inherited = position->second;
  interface.pim_asserts = std::exchange(inherited.pim_asserts, 0);
  interface.statistics = std::exchange(inherited.statistics, nullptr);
  if (interface.statistics != nullptr) interface.counters = inherited_counters(interface.statistics->counters);
}

// The first commit has led all readers away from them.
void SegmentPublisher::forget_inherited() {
  for (const auto &[ifindex, inherited] : inherited_) {
    arena_->retire(interface_record, inherited.record);
    if (inherited.statistics != nullptr) arena_->retire(statistics_record, inherited.statistics);
  }
  inherited_.clear();
}

}  // namespace ipd
