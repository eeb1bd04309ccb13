// SPDX-License-Identifier: Apache-2.0
// Which contexts there are, and which of them each interface is in.
#ifndef IPD_STATE_CONTEXTS_H
#define IPD_STATE_CONTEXTS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ipd/config.h"
#include "ipd/kernel/picture.h"
#include "ipd/publish/publisher.h"

namespace ipd {

// Ids of contexts that the configuration gives none: 2 and up, the same for the same name as long as the file lives, so
// that an id means the same context after a restart.
class ContextIds {
 public:
  explicit ContextIds(std::string file) : file_(std::move(file)) {}  // empty: kept in memory only
  // Reads what an earlier ipd allotted; a missing or damaged file is an empty one.
  void load();
  // The name's id; a new one is the lowest that neither another name nor `reserved` has.
  uint32_t allot(const std::string &name, const std::set<uint32_t> &reserved);
  // Writes the file if something was allotted since. False: *reason.
  bool save(std::string *reason);

 private:
  std::string file_;
  std::map<std::string, uint32_t> ids_;
  bool changed_ = false;
};

struct ContextPlan {
  std::map<uint32_t, ContextState> contexts;  // by id
  std::map<std::string, uint32_t> ids;        // by name
  std::map<uint32_t, uint32_t> of_vrf;        // VRF device's ifindex -> context id
  std::vector<std::string> remarks;           // what the operator should know
};

// `vrfs`: the links of kind "vrf" by ifindex.
[[nodiscard]] ContextPlan plan_contexts(const Configuration &configuration,
                                        const std::map<uint32_t, kernel::LinkMessage> &vrfs, ContextIds &ids);

// Membership of a VRF first, then the first rule with a pattern that matches the name, then "default".
[[nodiscard]] uint32_t context_of(const kernel::LinkMessage &link, const ContextPlan &plan,
                                  const Configuration &configuration);

}  // namespace ipd

#endif
