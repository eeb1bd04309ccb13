// SPDX-License-Identifier: Apache-2.0
// The publisher's twin: the same setters over plain vectors that are searched from end to end, and the answers that
// readers have to get. No tree, no order keys, no claims that are kept up: everything is worked out when it is asked.
#ifndef TESTS_IPD_PUBLISH_TWIN_H
#define TESTS_IPD_PUBLISH_TWIN_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ipd/publish_system.h"

namespace publish_test {

class Twin {
 public:
  bool set_context(const ipd::ContextState &state);
  bool remove_context(uint32_t id);
  bool set_interface(const ipd::InterfaceState &state);
  bool remove_interface(uint32_t ifindex);
  bool set_address(uint32_t ifindex, const ipd::AddressState &state);
  bool remove_address(uint32_t ifindex, uint32_t addr, uint8_t mask_len);
  bool set_vip(const ipd::VipState &vip);
  bool remove_vip(const ipd::VipState &vip);
  bool set_unnumbered(uint32_t ifindex, uint32_t source_ifindex, const std::string &source_name);
  bool set_groups(uint32_t ifindex, const std::vector<ipd::GroupState> &groups);
  bool set_multicast_counters(uint32_t ifindex, const ipd::MulticastCounters &counters);
  bool set_pim_asserts(uint32_t ifindex, uint32_t count);
  bool set_load_share(uint8_t mode, uint32_t value);

  // What a new ipd makes of the same picture: context by context, interface by interface. It does not know the
  // counters: they are what the previous one left.
  void replay(ipd::Publisher &publisher) const;
  // The twin of that: arrivals count anew.
  [[nodiscard]] Twin replayed() const;

  // Asks libip, the interface table and the shared records about everything in sight.
  void expect_published(const ipd::Publisher &publisher) const;

  [[nodiscard]] const std::map<uint32_t, ipd::ContextState> &contexts() const { return contexts_; }

 private:
  struct Port {
    ipd::InterfaceState state;
    std::vector<ipd::AddressState> addresses;  // in the order of the list
    std::set<uint32_t> vips;
    uint32_t lender = 0;
    std::string lender_name;
    std::vector<ipd::GroupState> groups;
    std::optional<ipd::MulticastCounters> counters;
    uint32_t pim_asserts = 0;
  };
  struct Claim {  // in order of arrival
    uint32_t context_id, network;
    uint8_t len;
    uint32_t ifindex;
    uint32_t addresses, vips;
  };

  static void enter(std::vector<ipd::AddressState> &list, const ipd::AddressState &state);
  void claim(const Port &port, uint32_t network, uint8_t len, bool vip, bool add);
  void claim_address(const Port &port, const ipd::AddressState &address, bool add);
  void claim_all(const Port &port, bool add);
  [[nodiscard]] std::vector<Holding> holdings(const ipd::Publisher &publisher, uint32_t context_id) const;
  void expect_contexts(const ipd::Publisher &publisher) const;
  void expect_interface(const ipd::Publisher &publisher, const Port &port) const;
  static void expect_multicast(uint32_t iod, const Port &port);
  void expect_router_id(const ipd::Publisher &publisher, const ipd::ContextState &context) const;

  std::map<uint32_t, ipd::ContextState> contexts_;
  std::map<uint32_t, Port> ports_;
  std::vector<Claim> claims_;
  ip_ecmp_loadshare_status load_share_{};
};

}  // namespace publish_test

#endif
