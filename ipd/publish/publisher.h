// SPDX-License-Identifier: Apache-2.0
// From ipd's picture of the system to the shared segments: contexts, interfaces, addresses, local-address trees, groups
// and counters.
//
// The caller says what is, in any order that keeps "an address needs its interface, an interface its context"; the
// publisher writes only what changed, each record by one store, and commit() makes readers aware. No netlink, no
// configuration in here: the simulated source and the kernel mirror use it alike.
#ifndef IPD_PUBLISH_PUBLISHER_H
#define IPD_PUBLISH_PUBLISHER_H

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace rsw {
class Epochs;
}

namespace ipd {

struct ContextState {
  uint32_t id;       // never 0; 1 is "default"
  std::string name;  // at most 35 characters
  uint32_t table_id;
  uint32_t router_id;  // configured; 0: the highest loopback address, else the highest address
};

struct InterfaceState {
  uint32_t ifindex;
  std::string name;
  bool up, admin_up, loopback, multicast, forwarding, directed_broadcast;
  uint32_t mtu;
  uint32_t context_id;
  bool operator==(const InterfaceState &) const = default;
};

struct AddressState {
  uint32_t addr;  // host order
  uint8_t mask_len;
  bool secondary;  // the kernel's flag: a later address of a subnet that the interface already has
  uint8_t scope;   // the kernel's: 0 global, 253 link, 254 host
  bool operator==(const AddressState &) const = default;
};

struct VipState {  // a virtual address that the configuration gives to an interface
  uint32_t ifindex;
  uint32_t addr;
  bool operator==(const VipState &) const = default;
};

struct GroupState {  // a multicast group that is joined on an interface
  uint32_t group;    // host order
  uint32_t data;     // handed on with the group
  bool operator==(const GroupState &) const = default;
};

// The multicast counters of an interface, in the order of the arguments of ip_get_mcast_pkt_stats_orig and
// ip_get_mcast_byte_stats_orig.
struct MulticastCounters {
  std::array<uint32_t, 5> packets;
  std::array<uint64_t, 2> bytes;
  bool operator==(const MulticastCounters &) const = default;
};

struct PublisherUse {  // for --simulate's report and ipsh show memory
  uint32_t contexts, interfaces, addresses;
  uint64_t segment_bytes;
};

class Publisher {
 public:
  // Takes the segments over when a previous ipd left them: context records keep their addresses, interfaces their iods.
  // `quarantine`: how long a record rests before it is used again.
  static std::unique_ptr<Publisher> open(std::string *reason,
                                         std::chrono::milliseconds quarantine = std::chrono::milliseconds(1000));
  // With the process's one Epochs, which other writers of the process use too; it outlives the publisher.
  static std::unique_ptr<Publisher> open(rsw::Epochs &epochs, std::string *reason,
                                         std::chrono::milliseconds quarantine = std::chrono::milliseconds(1000));
  virtual ~Publisher() = default;

  // All setters. Results: true: done, also when there was nothing to change or nothing to remove. False: refused,
  // nothing has changed, last_error() says why: a bad argument, an interface or context that is not known, or no room
  // in the segment (then the same call may succeed later). Once the first commit was made, a change is visible to
  // readers when its setter returns; before that, none is. Threads: one, the owner's. Blocks: no.
  virtual bool set_context(const ContextState &context) = 0;
  virtual bool remove_context(uint32_t id) = 0;                     // refused while interfaces are in it
  virtual bool set_interface(const InterfaceState &interface) = 0;  // moves between contexts with its addresses
  virtual bool remove_interface(uint32_t ifindex) = 0;              // with all that it has: addresses, groups, counters
  virtual bool set_address(uint32_t ifindex, const AddressState &address) = 0;
  virtual bool remove_address(uint32_t ifindex, uint32_t addr, uint8_t mask_len) = 0;
  virtual bool set_vip(const VipState &vip) = 0;
  virtual bool remove_vip(const VipState &vip) = 0;
  // The interface borrows the address of `source_ifindex`, named `source_name`; source_ifindex 0 ends it.
  virtual bool set_unnumbered(uint32_t ifindex, uint32_t source_ifindex, const std::string &source_name) = 0;
  // These groups, in this order, are all that are joined on the interface. A reader walks the old list or the new one.
  virtual bool set_groups(uint32_t ifindex, const std::vector<GroupState> &groups) = 0;
  // Counters change in place and wake no reader that waits for news. An interface has a statistics block from the first
  // call on.
  virtual bool set_multicast_counters(uint32_t ifindex, const MulticastCounters &counters) = 0;
  virtual bool set_pim_asserts(uint32_t ifindex, uint32_t count) = 0;
  // How equal-cost paths share the load, on the whole box. `value` is in host order here.
  virtual bool set_load_share(uint8_t mode, uint32_t value) = 0;

  // The first commit gives the segments their names and, after a take-over, lets go of what the previous ipd left: call
  // it when the picture is whole. Each commit recomputes the router ids that its changes touched.
  virtual bool commit() = 0;
  // Reclaims; at least once a second and after each commit.
  virtual void tick(std::chrono::steady_clock::time_point now) = 0;

  [[nodiscard]] virtual uint32_t iod(uint32_t ifindex) const = 0;  // 0: unknown
  // What is published, by this publisher or, after a take-over and until it was set again, by the previous one:
  // counters whose past nobody else knows go on from there. 0 and nothing: unknown interface, or none published.
  [[nodiscard]] virtual uint32_t pim_asserts(uint32_t ifindex) const = 0;
  [[nodiscard]] virtual std::optional<MulticastCounters> multicast_counters(uint32_t ifindex) const = 0;
  [[nodiscard]] virtual const std::string &last_error() const = 0;
  [[nodiscard]] virtual PublisherUse use() const = 0;
};

}  // namespace ipd

#endif
