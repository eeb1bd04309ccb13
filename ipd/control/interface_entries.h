// SPDX-License-Identifier: Apache-2.0
// The interfaces in the form in which clients are told of them, and which of them are news.
#ifndef IPD_CONTROL_INTERFACE_ENTRIES_H
#define IPD_CONTROL_INTERFACE_ENTRIES_H

#include <cstdint>
#include <map>
#include <set>

#include "ip_msg.h"
#include "ipd/control/box.h"

namespace ipd::control {

[[nodiscard]] ip_if_info_msg_entry entry_of(const InterfaceFacts &facts);

class InterfaceEntries {
 public:
  explicit InterfaceEntries(const Box &box) : box_(box) {}

  // Takes in everything; nothing is gone then.
  void read();
  void clear();
  // Looks at these again. The iods whose entry is another one now, came, or is gone.
  std::set<uint32_t> compare(const std::set<uint32_t> &ifindexes);

  // By iod.
  [[nodiscard]] const std::map<uint32_t, ip_if_info_msg_entry> &present() const { return present_; }
  // How to tell of those that are gone since read() or forget_gone(), by iod. An iod that was given again is not gone.
  [[nodiscard]] const std::map<uint32_t, ip_if_info_msg_entry> &gone() const { return gone_; }
  void forget_gone() { gone_.clear(); }

 private:
  void remove(uint32_t ifindex, std::set<uint32_t> &news);

  const Box &box_;
  std::map<uint32_t, ip_if_info_msg_entry> present_;
  std::map<uint32_t, ip_if_info_msg_entry> gone_;
  std::map<uint32_t, uint32_t> by_ifindex_;  // iods of present_
};

}  // namespace ipd::control

#endif
