// SPDX-License-Identifier: Apache-2.0
// From the kernel's routes, the configuration and what is published of interfaces to the tables of the URIB.
#ifndef IPD_STATE_ROUTES_H
#define IPD_STATE_ROUTES_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ipd/config.h"
#include "ipd/kernel/route_picture.h"
#include "urib/urib_routes.h"

namespace rsw {
class UribWriter;
}

namespace ipd {

// What routes need to know of everything else that is published.
struct RouteInterface {
  uint32_t iod = 0;
  uint32_t table = 0;      // of its context
  uint32_t vrf_table = 0;  // of a VRF device; 0: it is none
  bool operator==(const RouteInterface &) const = default;
};
struct RouteSurroundings {
  std::unordered_map<uint32_t, RouteInterface> interfaces;  // by ifindex
  std::map<std::string, uint32_t> interface_names;          // ifindexes
  std::map<std::string, uint32_t> context_tables;           // by name of the context
  std::set<uint32_t> policy_tables;                         // of contexts that have no VRF device
  std::set<std::pair<uint32_t, uint32_t>> vips;             // ifindex, address
};

class Routes {
 public:
  explicit Routes(rsw::UribWriter &writer) : writer_(writer) {}

  // Both take effect at the next update().
  void configure(const Configuration &configuration);
  void surround(RouteSurroundings surroundings);

  // Writes what changed in the picture, the surroundings or the configuration, and commits once. False: the writer
  // refused something, now or earlier (logged); retry_due() asks for another try.
  bool update(kernel::RoutePicture &picture);
  [[nodiscard]] bool retry_due() const { return !refused_.empty() || uncommitted_; }
  bool retry(kernel::RoutePicture &picture);

 private:
  using Prefix = std::pair<uint32_t, uint8_t>;              // address, length
  using Place = std::pair<uint32_t, Prefix>;                // table, prefix
  using Targets = std::map<uint32_t, std::vector<Prefix>>;  // by table
  struct Hop {
    bool known = false;
    rsw::RouteNextHop hop;
  };

  void compare_surroundings(kernel::RoutePicture &picture, Targets &targets);
  void compare_configured(Targets &targets);
  void add_targets(const kernel::RouteChanges &changes, Targets &targets) const;
  void add_tables(uint32_t ifindex, std::set<uint32_t> &tables) const;
  [[nodiscard]] bool exists(const kernel::RoutePicture &picture, uint32_t table) const;
  [[nodiscard]] std::set<uint32_t> all_tables(const kernel::RoutePicture &picture) const;
  void write(const kernel::RoutePicture &picture, uint32_t table, std::vector<Prefix> &prefixes);
  void write_one(const kernel::RoutePicture &picture, uint32_t table, const Prefix &prefix);
  void load(const kernel::RoutePicture &picture, const std::set<uint32_t> &tables);
  bool accepted(bool done, uint32_t table);
  bool commit();

  [[nodiscard]] std::optional<rsw::Route> wanted(const kernel::RoutePicture &picture, uint32_t table,
                                                 const Prefix &prefix) const;
  [[nodiscard]] std::optional<rsw::Route> first_usable(const kernel::RoutePicture &picture, uint32_t kernel_table,
                                                       uint32_t table, const Prefix &prefix) const;
  [[nodiscard]] bool belongs(const kernel::RoutePicture &picture, uint32_t kernel_table, uint32_t table,
                             uint32_t info) const;
  [[nodiscard]] std::optional<rsw::Route> route_of(const kernel::RoutePicture &picture, uint32_t kernel_table,
                                                   uint32_t table, const kernel::RouteKey &key, uint32_t info) const;
  [[nodiscard]] Hop hop_of(const kernel::RouteHop &hop, uint32_t table) const;
  [[nodiscard]] std::optional<rsw::Route> inactive_vip(uint32_t table, const Prefix &prefix) const;
  [[nodiscard]] uint32_t table_of(uint32_t ifindex) const;
  [[nodiscard]] std::optional<rsw::Route> multicast_route(const MulticastRouteRule &rule) const;
  [[nodiscard]] std::optional<uint32_t> table_named(const TableName &name) const;

  rsw::UribWriter &writer_;
  std::vector<MulticastRouteRule> multicast_rules_;
  std::vector<LeakRule> leak_rules_;
  RouteSurroundings now_, before_;  // before_: of the last update
  bool surroundings_changed_ = false;
  bool begun_ = false;
  std::map<Place, rsw::Route> multicast_;  // wanted
  std::map<Place, rsw::Route> leaks_;      // wanted, where the kernel has no route of its own
  std::map<Place, uint32_t> vips_;         // ifindex that has it, by table and host prefix
  std::set<uint32_t> context_tables_;      // of now_
  std::set<uint32_t> written_;             // tables that may exist
  std::set<uint32_t> refused_;             // tables that are not as they should be
  bool uncommitted_ = false;
  uint64_t refusals_ = 0;
};

}  // namespace ipd

#endif
