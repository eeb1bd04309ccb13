// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/rights.h"

#include <grp.h>

#include <cerrno>
#include <charconv>
#include <vector>

#include "ipd/process/log.h"

namespace ipd::control {
namespace {

constexpr uint32_t root = 0;

std::optional<uint32_t> gid_of(const std::string &name) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error == std::errc{} && end == name.data() + name.size()) return number;
  std::vector<char> room(4096);
  group entry{};
  group *found = nullptr;
  while (getgrnam_r(name.c_str(), &entry, room.data(), room.size(), &found) == ERANGE && room.size() < (1U << 24)) {
    room.resize(room.size() * 2);
  }
  if (found == nullptr) return std::nullopt;
  return found->gr_gid;
}

}  // namespace

Rights::Group Rights::find(const std::string &name) {
  if (name.empty()) return {};
  Group group{.named = true, .gid = gid_of(name)};
  if (!group.gid) log_line(LOG_ERR, "there is no group \"%s\": nobody has a right by it", name.c_str());
  return group;
}

void Rights::configure(const std::string &read_group, const std::string &configure_group) {
  read_ = find(read_group);
  configure_ = find(configure_group);
}

bool Rights::has(const Request &request, const Group &group) const {
  return group.gid && in_group_(request, *group.gid);
}

bool Rights::allows(const Request &request, Right right) const {
  if (request.sender.uid == root || request.sender.uid == own_uid_) return true;
  if (has(request, configure_)) return true;
  return right == Right::read && (!read_.named || has(request, read_));
}

}  // namespace ipd::control
