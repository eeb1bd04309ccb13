// SPDX-License-Identifier: Apache-2.0
// What the pool holds, for people. Nothing that stands in it is believed to be more than a number or a text.
#include <string.h>

#include <map>

#include "mbuf/attachment.h"
#include "mbuf/pool.h"

namespace rsw {
namespace {

using namespace pool;

std::string command_of(ProcessEntry &entry) {
  uint32_t words[4];
  for (size_t i = 0; i < 4; ++i) words[i] = word(entry.command[i]).load(std::memory_order_relaxed);
  char text[sizeof words];
  memcpy(text, words, sizeof words);
  std::string command(text, strnlen(text, sizeof text));
  for (char &character : command) {
    if (static_cast<unsigned char>(character) < ' ' || character == 0x7f) character = '?';
  }
  return command;
}

void add_buffers(PoolReport *report, std::map<int32_t, PoolOwner> *owners) {
  const uint32_t groups = groups_in_use();
  for (uint32_t number = first_group; number < groups; ++number) {
    Group &group = group_at(number);
    const uint32_t holder = word(group.holder).load(std::memory_order_relaxed);
    const uint32_t free = free_bits(group);
    if (holder != 0) (*owners)[process_of(holder)].cached += static_cast<uint32_t>(std::popcount(free));
    for (uint32_t used = ~free; used != 0; used &= used - 1) {
      struct mbuf &head = buffer_at(number, index_of(used))->head;
      ++(*owners)[word(head.owner).load(std::memory_order_relaxed)].in_use;
    }
  }
  report->high_water = (groups - first_group) * group_buffers;
}

}  // namespace

uint32_t damage_in_pool() {
  return is_attached() ? word(control().damaged).load(std::memory_order_relaxed) : 0;  // a count for people
}

bool report_pool(PoolReport *report, std::string *reason) {
  const std::shared_ptr<SegmentMap> map = map_pool(reason);
  if (map == nullptr) return false;
  *report = {};
  std::map<int32_t, PoolOwner> owners;
  for (uint32_t index = 0; index < process_limit; ++index) {
    ProcessEntry &entry = process_entry(index);
    // Acquire: partner of the release with which an entry is signed.
    const uint32_t pid = word(entry.pid).load(std::memory_order_acquire);
    if (pid != 0 && entry_is_alive(*map, index)) owners[static_cast<int32_t>(pid)].command = command_of(entry);
  }
  add_buffers(report, &owners);
  for (auto &[pid, owner] : owners) {
    owner.pid = pid;
    report->in_use += owner.in_use;
    report->cached += owner.cached;
    report->owners.push_back(owner);
  }
  report->total = buffer_limit;
  report->free = buffer_limit - report->in_use - report->cached;
  // Relaxed: counts for people.
  report->refused = word(control().refused).load(std::memory_order_relaxed);
  report->reclaimed = word(control().reclaimed).load(std::memory_order_relaxed);
  report->damaged = word(control().damaged).load(std::memory_order_relaxed);
  return true;
}

}  // namespace rsw
