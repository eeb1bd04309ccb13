// SPDX-License-Identifier: Apache-2.0
// The shared list of context records that hangs off the root, in ascending order of context id.
#ifndef IPD_PUBLISH_CONTEXT_LIST_H
#define IPD_PUBLISH_CONTEXT_LIST_H

#include <cstdint>
#include <map>
#include <vector>

#include "ipd/publish/records.h"

namespace ipd {

class ContextList {
 public:
  explicit ContextList(ip_root *root) : root_(root) {}

  // Take-over: what the previous writer left in the list stays there, at its address, as far as the list is sound; what
  // follows the first record that is not is cut off.
  void adopt(rsw::Arena &arena);

  // Null: no such context in the list.
  [[nodiscard]] ip_api_context_type *find(uint32_t id) const;
  [[nodiscard]] std::vector<uint32_t> ids() const;

  // One store each. insert: the record is complete but for `next`; replace and remove: the old record is the caller's
  // to retire afterwards.
  void insert(ip_api_context_type *record);
  void replace(ip_api_context_type *record);
  void remove(uint32_t id);

 private:
  using Records = std::map<uint32_t, ip_api_context_type *>;
  ip_shm_ptr<ip_api_context_type> &word_before(Records::iterator position);
  static ip_api_context_type *record_behind(const Records &records, Records::iterator position);

  ip_root *root_;
  Records records_;
};

}  // namespace ipd

#endif
