// SPDX-License-Identifier: Apache-2.0
// Tells the publisher the groups and the multicast counters of the interfaces that it has.
#ifndef IPD_STATE_MULTICAST_H
#define IPD_STATE_MULTICAST_H

#include <cstdint>
#include <map>
#include <set>

#include "ipd/kernel/groups.h"
#include "ipd/kernel/multicast.h"
#include "ipd/publish/publisher.h"
#include "ipd/state/counters.h"

namespace ipd {

class MulticastState {
 public:
  MulticastState(Publisher &publisher, kernel::Groups &groups) : publisher_(publisher), groups_(groups) {}

  // These interfaces came, changed or went in the publisher. True: one of them is another interface than before under
  // the same ifindex, and the groups have to be read again.
  bool interfaces_changed(const std::set<uint32_t> &ifindexes);
  // Tells what changed in the groups. True: something was told, and a commit is due.
  bool tell_groups();
  void tell_counters(const std::map<uint32_t, kernel::KernelCounts> &counts);
  // The publisher had no room for something: it is told again with the next counters.
  [[nodiscard]] bool retry_due() const { return !refused_.empty(); }

 private:
  struct Told {
    uint32_t iod = 0;
    InterfaceCounters counters;
    bool skip_one;  // the next counts may have been read before this interface came
  };
  bool tell(uint32_t ifindex);

  Publisher &publisher_;
  kernel::Groups &groups_;
  std::map<uint32_t, Told> interfaces_;  // by ifindex
  bool counted_ = false;                 // counters were told at least once
  std::set<uint32_t> refused_;           // ifindexes whose groups were refused
  uint64_t refusals_ = 0;
};

}  // namespace ipd

#endif
