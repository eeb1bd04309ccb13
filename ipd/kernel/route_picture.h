// SPDX-License-Identifier: Apache-2.0
// The kernel's IPv4 routes of all tables, with the nexthop objects and the devices that they stand on, and what changed
// since somebody last asked.
#ifndef IPD_KERNEL_ROUTE_PICTURE_H
#define IPD_KERNEL_ROUTE_PICTURE_H

#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ipd/kernel/parse.h"
#include "ipd/kernel/picture.h"

namespace ipd::kernel {

// Routes with the same key stand in the kernel's order: the first one counts.
struct RouteKey {
  uint32_t addr = 0;
  uint8_t len = 0;
  uint8_t tos = 0;
  uint32_t metric = 0;
  auto operator<=>(const RouteKey &) const = default;
};

// What many routes have in common, kept once.
struct RouteInfo {
  uint8_t type = 0;
  uint8_t scope = 0;
  uint8_t protocol = 0;
  uint32_t pref_src = 0;
  uint32_t nexthop_id = 0;
  std::vector<RouteHop> hops;
  bool operator==(const RouteInfo &) const = default;
};

struct RouteEntry {
  uint32_t info = 0;
  uint32_t seen = 0;  // the last dump, or the dump before the event, that told of it
};
using RouteTable = std::multimap<RouteKey, RouteEntry>;

struct RouteChange {
  uint32_t table = 0;
  uint32_t addr = 0;
  uint32_t ifindex = 0;  // of the first next hop; 0: there is none that the route names itself
  uint8_t len = 0;
  auto operator<=>(const RouteChange &) const = default;
};

struct RouteChanges {
  bool everything = false;
  std::vector<RouteChange> routes;  // ascending, no two the same
  [[nodiscard]] bool empty() const { return !everything && routes.empty(); }
};

// Where a route leads now.
struct ResolvedRoute {
  bool usable = false;     // false: the kernel passes it over, or its nexthop object is not known
  bool blackhole = false;  // by its nexthop object
  std::vector<RouteHop> hops;
};

class RoutePicture {
 public:
  // Events, in the order they came.
  void route(const RouteMessage &message);
  void nexthop(const NexthopMessage &message);
  void link(const LinkMessage &message);
  void address(const AddressMessage &message);

  // A dump, as in Picture. Its links and addresses go to devices().
  void begin_dump();
  void dump_route(const RouteMessage &message);
  void dump_nexthop(const NexthopMessage &message);
  void end_dump(bool whole);
  [[nodiscard]] bool dumping() const { return dumping_; }

  // True once after something made it worth reading everything again.
  bool take_doubt() { return std::exchange(doubt_, false); }

  // Compares these interfaces' routes again, because something else about the interfaces changed.
  void look_again(uint32_t ifindex);

  [[nodiscard]] Picture &devices() { return devices_; }
  // Complete and consistent after take_changes() and until the next event.
  [[nodiscard]] const std::map<uint32_t, RouteTable> &tables() const { return tables_; }
  [[nodiscard]] const RouteTable *table(uint32_t id) const;  // null: no routes
  [[nodiscard]] const RouteInfo &info(uint32_t id) const { return infos_[id].info; }
  [[nodiscard]] ResolvedRoute resolve(uint32_t info) const;
  [[nodiscard]] size_t route_count() const { return route_count_; }
  [[nodiscard]] size_t info_count() const { return infos_.size() - free_.size(); }

  [[nodiscard]] bool changed() const { return doomed_ || dirty_ || !changes_.empty(); }
  RouteChanges take_changes();

 private:
  struct Info {
    RouteInfo info;
    std::vector<bool> dead;  // as info.hops
    uint32_t references = 0;
    bool doomed = false;  // its routes are gone, without an event
    bool dirty = false;   // its routes lead elsewhere than before
  };
  struct Object {
    NexthopMessage told;
    uint32_t seen = 0;
  };
  using Link = std::pair<uint32_t, uint32_t>;  // what an info stands on, info
  using Place = std::pair<uint32_t, RouteKey>;
  struct PlaceHash {
    size_t operator()(const Place &place) const;
  };

  uint32_t intern(const RouteMessage &message);
  void release(uint32_t id);
  void unlist(uint32_t id);
  void set_dead(uint32_t id, const std::vector<bool> &dead);
  void doom(uint32_t id);
  void make_dirty(uint32_t id);
  RouteTable::iterator insert(uint32_t table, RouteTable &routes, RouteTable::iterator before, const RouteKey &key,
                              uint32_t info);
  RouteTable::iterator erase(uint32_t table, RouteTable &routes, RouteTable::iterator entry);
  void put_in_place(uint32_t table, RouteTable::iterator entry, uint32_t info);
  void remove(RouteTable &routes, const RouteMessage &message, const RouteKey &key);
  void erase_doomed(uint32_t table, RouteTable &routes, const RouteKey &key);
  void note(uint32_t table, const RouteKey &key, uint32_t info);
  void touch(uint32_t table, const RouteKey &key);
  void sweep();
  void settle();

  void doom_through(uint32_t ifindex, bool force, bool kernels_own);
  void revive_through(uint32_t ifindex);
  void remove_objects_through(uint32_t ifindex, bool blackholes);
  void remove_object(uint32_t id);
  void objects_users_dirty(uint32_t id);
  void remove_stray_sources(uint32_t table, uint32_t pref_src);
  [[nodiscard]] uint32_t table_of_device(uint32_t ifindex) const;
  [[nodiscard]] bool is_local(uint32_t addr, uint32_t table) const;

  Picture devices_;
  std::map<uint32_t, RouteTable> tables_;
  std::vector<Info> infos_;
  std::vector<uint32_t> free_;
  std::unordered_multimap<size_t, uint32_t> by_content_;
  std::set<Link> by_ifindex_, by_object_, by_source_;
  std::map<uint32_t, Object> objects_;
  size_t route_count_ = 0;

  bool dumping_ = false;
  uint32_t dump_ = 0;
  std::unordered_set<Place, PlaceHash> touched_;
  std::unordered_set<uint64_t> touched_heads_;  // table and address of touched_
  std::set<uint32_t> touched_objects_;
  std::set<uint32_t> told_tables_;  // tables that the running dump told of
  bool complete_ = false;
  bool doubt_ = false;
  bool doomed_ = false, dirty_ = false;
  RouteChanges changes_;
};

}  // namespace ipd::kernel

#endif
