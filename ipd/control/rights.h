// SPDX-License-Identifier: Apache-2.0
// Who may send what: by the user and the groups that the kernel names, never by what a message says.
#ifndef IPD_CONTROL_RIGHTS_H
#define IPD_CONTROL_RIGHTS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "ipd/control/messages.h"
#include "ipd/control/request.h"

namespace ipd::control {

class Rights {
 public:
  // Whether the sender of a message is in a group.
  using InGroup = std::function<bool(const Request &request, uint32_t gid)>;

  Rights(uint32_t own_uid, InGroup in_group) : own_uid_(own_uid), in_group_(std::move(in_group)) {}

  // Groups by name or number; empty: none is named. Without a group, everybody may read and nobody else may configure.
  // A group that the system does not have gives nobody a right.
  void configure(const std::string &read_group, const std::string &configure_group);
  // The group that may configure; none: there is no such group.
  [[nodiscard]] std::optional<uint32_t> configure_gid() const { return configure_.gid; }
  [[nodiscard]] bool allows(const Request &request, Right right) const;

 private:
  struct Group {
    bool named = false;
    std::optional<uint32_t> gid;
  };
  static Group find(const std::string &name);
  [[nodiscard]] bool has(const Request &request, const Group &group) const;

  uint32_t own_uid_;
  InGroup in_group_;
  Group read_;
  Group configure_;
};

}  // namespace ipd::control

#endif
