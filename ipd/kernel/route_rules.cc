// SPDX-License-Identifier: Apache-2.0
// What the kernel does to IPv4 routes without telling.
//
// A route that is deleted by name has an event. These go silently, so the kernel's own rules are applied here as soon
// as the event that causes them comes, and everything is read again a little later to make sure:
//
//   a device goes down      its next hops are dead; a route with no other next hop is gone. Host-scope routes (the
//                           addresses themselves) stay. Nexthop objects through it are gone, but for blackholes.
//   a device goes away      the same, host-scope routes and blackhole objects too
//   a device loses carrier  nexthop objects through it are gone; routes stay and are only marked
//   a device comes up       its next hops in routes that survived live again. The kernel adds the connected routes
//                           itself, with events.
//   a device's last address goes    all routes through it are gone
//   an address goes         routes of the device's table that name it as their source are gone, unless the address is
//                           still local in that table
//   a nexthop object goes   its routes are gone; groups lose a member, and an empty group is gone too
//
// A route that drops has no device and never goes this way. Next hops of nexthop objects live and die with the object,
// not with the rules for devices.
//
// The kernel tells of a link or an address before it acts on it, so events about routes that it adds as a consequence
// come after the rule was applied. Routes that it made itself for an address are told one by one when the address goes;
// they are left to their events, since finding them here would mean walking a whole table for each address.
#include <linux/if.h>
#include <linux/rtnetlink.h>

#include <algorithm>

#include "ipd/kernel/route_picture.h"

namespace ipd::kernel {
namespace {

constexpr uint32_t main_routes = 254;

bool has_carrier(uint32_t flags) {
  return (flags & (IFF_RUNNING | IFF_LOWER_UP)) != 0;
}

}  // namespace

void RoutePicture::doom(uint32_t id) {
  unlist(id);
  infos_[id].doomed = doomed_ = true;
}

// `kernels_own`: also those that have events of their own.
void RoutePicture::doom_through(uint32_t ifindex, bool force, bool kernels_own) {
  std::vector<uint32_t> there;
  for (auto each = by_ifindex_.lower_bound({ifindex, 0}); each != by_ifindex_.end() && each->first == ifindex; ++each) {
    there.push_back(each->second);
  }
  for (uint32_t id : there) {
    Info &info = infos_[id];
    if (!force && info.info.scope == RT_SCOPE_HOST) continue;
    if (!kernels_own && info.info.protocol == RTPROT_KERNEL) continue;
    std::vector<bool> dead = info.dead;
    dead.resize(info.info.hops.size());
    for (size_t i = 0; i < dead.size(); ++i) dead[i] = dead[i] || info.info.hops[i].ifindex == ifindex;
    if (std::find(dead.begin(), dead.end(), false) == dead.end()) {
      doom(id);
    } else {
      set_dead(id, dead);
    }
  }
}

void RoutePicture::revive_through(uint32_t ifindex) {
  for (auto each = by_ifindex_.lower_bound({ifindex, 0}); each != by_ifindex_.end() && each->first == ifindex; ++each) {
    const Info &info = infos_[each->second];
    std::vector<bool> dead = info.dead;
    for (size_t i = 0; i < dead.size(); ++i) dead[i] = dead[i] && info.info.hops[i].ifindex != ifindex;
    set_dead(each->second, dead);
  }
}

void RoutePicture::link(const LinkMessage &message) {
  const auto known = devices_.links().find(message.ifindex);
  const bool there = known != devices_.links().end();
  const uint32_t before = there ? known->second.told.flags : 0;
  devices_.link(message);
  const uint32_t ifindex = message.ifindex;
  if (message.removed) {
    doom_through(ifindex, true, true);
    remove_objects_through(ifindex, true);
    doubt_ = true;
    return;
  }
  const bool up = (message.flags & IFF_UP) != 0;
  const bool was_up = (before & IFF_UP) != 0;
  if (there && was_up && !up) {
    doom_through(ifindex, false, true);
    remove_objects_through(ifindex, false);
    doubt_ = true;
  } else if (up && !was_up) {
    revive_through(ifindex);
    doubt_ |= there;
  } else if (there && up && has_carrier(before) != has_carrier(message.flags)) {
    if (!has_carrier(message.flags)) remove_objects_through(ifindex, false);
    doubt_ = true;
  }
}

void RoutePicture::address(const AddressMessage &message) {
  devices_.address(message);
  if (!message.removed) return;
  if (devices_.addresses(message.ifindex) == nullptr) {
    doom_through(message.ifindex, true, false);
    doubt_ |= doomed_;
  }
  remove_stray_sources(table_of_device(message.ifindex), message.local);
}

uint32_t RoutePicture::table_of_device(uint32_t ifindex) const {
  const auto link = devices_.links().find(ifindex);
  if (link == devices_.links().end()) return main_routes;
  if (link->second.told.vrf_table != 0) return link->second.told.vrf_table;
  const auto master = devices_.links().find(link->second.told.master);
  if (master == devices_.links().end() || master->second.told.vrf_table == 0) return main_routes;
  return master->second.told.vrf_table;
}

bool RoutePicture::is_local(uint32_t addr, uint32_t table) const {
  for (const auto &[ifindex, link] : devices_.links()) {
    const InterfaceAddresses *addresses = devices_.addresses(ifindex);
    if (addresses == nullptr || table_of_device(ifindex) != table) continue;
    const auto first = addresses->entries().lower_bound({.addr = addr, .mask_len = 0, .peer = 0, .prefix_len = 0});
    if (first != addresses->entries().end() && first->first.addr == addr) return true;
  }
  return false;
}

void RoutePicture::remove_stray_sources(uint32_t table, uint32_t pref_src) {
  bool any = false;
  for (auto each = by_source_.lower_bound({pref_src, 0}); each != by_source_.end() && each->first == pref_src; ++each) {
    any |= infos_[each->second].info.protocol != RTPROT_KERNEL;
  }
  const auto found = tables_.find(table);
  if (!any || found == tables_.end() || is_local(pref_src, table)) return;
  doubt_ = true;
  RouteTable &routes = found->second;
  for (auto entry = routes.begin(); entry != routes.end();) {
    const RouteInfo &info = infos_[entry->second.info].info;
    if (info.pref_src != pref_src || info.protocol == RTPROT_KERNEL) {
      ++entry;
      continue;
    }
    touch(table, entry->first);
    entry = erase(table, routes, entry);
  }
  if (routes.empty()) tables_.erase(found);
}

void RoutePicture::objects_users_dirty(uint32_t id) {
  const auto of_object = [this](uint32_t object) {
    for (auto each = by_object_.lower_bound({object, 0}); each != by_object_.end() && each->first == object; ++each) {
      make_dirty(each->second);
    }
  };
  of_object(id);
  for (const auto &[group, object] : objects_) {
    for (const NexthopMessage::Member &member : object.told.members) {
      if (member.id == id) of_object(group);
    }
  }
}

void RoutePicture::remove_object(uint32_t id) {
  std::vector<uint32_t> going{id};
  while (!going.empty()) {
    const uint32_t gone = going.back();
    going.pop_back();
    objects_users_dirty(gone);
    objects_.erase(gone);
    if (dumping_) touched_objects_.insert(gone);
    std::vector<uint32_t> users;
    for (auto each = by_object_.lower_bound({gone, 0}); each != by_object_.end() && each->first == gone; ++each) {
      users.push_back(each->second);
    }
    for (uint32_t user : users) doom(user);
    for (auto &[group, object] : objects_) {
      const bool lost =
          std::erase_if(object.told.members, [gone](const auto &member) { return member.id == gone; }) > 0;
      if (lost && dumping_) touched_objects_.insert(group);
      if (lost && object.told.members.empty()) going.push_back(group);
    }
  }
  doubt_ = true;
}

void RoutePicture::remove_objects_through(uint32_t ifindex, bool blackholes) {
  std::vector<uint32_t> gone;
  for (const auto &[id, object] : objects_) {
    const NexthopMessage &told = object.told;
    if (told.members.empty() && told.hop.ifindex == ifindex && (blackholes || !told.blackhole)) gone.push_back(id);
  }
  for (uint32_t id : gone) remove_object(id);
}

void RoutePicture::nexthop(const NexthopMessage &message) {
  if (message.removed) return remove_object(message.id);
  if (dumping_) touched_objects_.insert(message.id);
  objects_[message.id] = {.told = message, .seen = dump_};
  objects_users_dirty(message.id);
}

void RoutePicture::dump_nexthop(const NexthopMessage &message) {
  if (touched_objects_.contains(message.id)) return;
  const auto known = objects_.find(message.id);
  const bool same = known != objects_.end() && known->second.told.blackhole == message.blackhole &&
                    known->second.told.hop == message.hop && known->second.told.members == message.members;
  objects_[message.id] = {.told = message, .seen = dump_};
  if (!same) objects_users_dirty(message.id);
}

}  // namespace ipd::kernel
