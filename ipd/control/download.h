// SPDX-License-Identifier: Apache-2.0
// What one receiver of interface information still has to be told.
//
//   the full set: by iod, each as it is when it is sent; the last of them marked
//   then the changes: what is gone first, then what came or changed, each interface once however often it changed
//
// An interface that changes while the full set is under way counts as a change if the receiver was told of it, and is
// told as it is if its turn is yet to come. What goes before it was ever told of is never told of.
//
// So a receiver that makes no room costs one number per interface at most, and no message.
#ifndef IPD_CONTROL_DOWNLOAD_H
#define IPD_CONTROL_DOWNLOAD_H

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "ip_msg.h"
#include "ipd/control/interface_entries.h"

namespace ipd::control {

// Entries of one notification. In TLV form one takes at most 184 bytes, so that all of them fit.
inline constexpr size_t most_entries = 512;

class Download {
 public:
  // follow: the changes, too.
  explicit Download(bool follow) : follow_(follow) {}

  struct Batch {
    std::vector<ip_if_info_msg_entry> entries;  // none: there is no interface, and that is the full set
    bool ends_full_set = false;
  };
  // What to send next. Nothing: all is told.
  [[nodiscard]] std::optional<Batch> next(const InterfaceEntries &interfaces) const;
  // It was sent; the entries have not changed meanwhile.
  void sent(const Batch &batch);
  // These came, changed or went.
  void changed(const std::set<uint32_t> &iods, const InterfaceEntries &interfaces);

  // Everything was sent that was asked for.
  [[nodiscard]] bool over() const { return !follow_ && !full_; }
  [[nodiscard]] bool owes_changes() const { return !pending_.empty(); }

 private:
  [[nodiscard]] Batch next_of_full_set(const InterfaceEntries &interfaces) const;
  [[nodiscard]] Batch next_changes(const InterfaceEntries &interfaces) const;
  [[nodiscard]] bool is_told(uint32_t iod) const { return iod < told_.size() && told_[iod]; }
  void set_told(uint32_t iod, bool told);

  bool follow_;
  bool full_ = true;            // the full set is under way
  uint32_t at_ = 0;             // the iod that was sent last; changes go round from there
  std::set<uint32_t> pending_;  // iods of changes; one that is gone was told of
  std::vector<bool> told_;      // by iod: the receiver has heard of it, and not that it is gone
};

}  // namespace ipd::control

#endif
