// SPDX-License-Identifier: Apache-2.0
// What the kernel has told so far: links, IPv4 addresses and per-interface settings, whatever the order it came in, and
// what changed since somebody last asked.
#ifndef IPD_KERNEL_PICTURE_H
#define IPD_KERNEL_PICTURE_H

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ipd/kernel/parse.h"

namespace ipd::kernel {

struct Link {
  LinkMessage told;          // mtu always has a value
  uint64_t incarnation = 0;  // another number: another interface, although the ifindex is the same
};

// An address as readers know it, then what tells apart the kernel's addresses which look the same to readers. An
// address with a peer is published with a mask of 32 bits: its prefix is the peer's and says nothing about its own
// subnet.
struct AddressKey {
  uint32_t addr = 0;  // host order
  uint8_t mask_len = 0;
  uint32_t peer = 0;
  uint8_t prefix_len = 0;
  auto operator<=>(const AddressKey &) const = default;
};
[[nodiscard]] AddressKey address_key(const AddressMessage &message);

// Where an address stands in its interface's list: the kernel puts a new primary behind the last primary whose scope
// value is at least its own, and a secondary at the end.
struct AddressPlace {
  bool secondary = false;
  uint8_t rising = 0;    // 255 - scope of a primary, 0 of a secondary
  uint64_t arrival = 0;  // unique in its interface
  auto operator<=>(const AddressPlace &) const = default;
};

struct AddressEntry {
  uint8_t scope = 0;
  AddressPlace place;
};

// The addresses of one interface.
class InterfaceAddresses {
 public:
  // The place stays when neither scope nor the secondary flag changed.
  void set(const AddressMessage &message, uint64_t arrival);
  void remove(const AddressKey &key);
  [[nodiscard]] bool contains(const AddressKey &key) const { return entries_.contains(key); }
  // The first in the list among the kernel's addresses that readers see as this one; null: there is none.
  [[nodiscard]] const AddressEntry *find(uint32_t addr, uint8_t mask_len) const;
  [[nodiscard]] const std::map<AddressKey, AddressEntry> &entries() const { return entries_; }
  [[nodiscard]] const std::map<AddressPlace, AddressKey> &in_order() const { return order_; }

 private:
  std::map<AddressKey, AddressEntry> entries_;
  std::map<AddressPlace, AddressKey> order_;
};

struct Changes {
  bool everything = false;   // compare all there is
  std::set<uint32_t> links;  // ifindexes: the link or its settings changed, came or went
  std::set<std::pair<uint32_t, std::pair<uint32_t, uint8_t>>> addresses;  // ifindex, (addr, mask_len)
  [[nodiscard]] bool empty() const { return !everything && links.empty() && addresses.empty(); }
};

class Picture {
 public:
  // Events, in the order they came.
  void link(const LinkMessage &message);
  void address(const AddressMessage &message);
  void netconf(const NetconfMessage &message);

  // A dump: its messages go to the dump_ calls, events that come meanwhile to those above. At its end what neither the
  // dump nor an event told of is gone; with `whole` false (the dump may have missed something) it stays.
  void begin_dump();
  void dump_link(const LinkMessage &message);
  void dump_address(const AddressMessage &message);
  void dump_netconf(const NetconfMessage &message);
  void end_dump(bool whole);
  [[nodiscard]] bool dumping() const { return dumping_; }

  // Events were lost: until the end of the next dump a link that looks different is taken for another one.
  void doubt() { doubtful_ = true; }

  [[nodiscard]] const std::map<uint32_t, Link> &links() const { return current_.links; }
  [[nodiscard]] const InterfaceAddresses *addresses(uint32_t ifindex) const;  // null: none known
  [[nodiscard]] bool forwarding(uint32_t ifindex) const;
  [[nodiscard]] bool directed_broadcast(uint32_t ifindex) const;  // needs the system-wide switch too, as in the kernel
  [[nodiscard]] bool directed_broadcast_allowed() const;          // that switch

  [[nodiscard]] const Changes &changes() const { return changes_; }
  Changes take_changes() { return std::exchange(changes_, {}); }

 private:
  struct Settings {
    bool forwarding = false;
    bool directed_broadcast = false;
    bool operator==(const Settings &) const = default;
  };
  struct TouchedSettings {
    bool forwarding = false;
    bool directed_broadcast = false;
  };
  struct Contents {
    std::map<uint32_t, Link> links;
    std::unordered_map<uint32_t, InterfaceAddresses> addresses;
    std::unordered_map<int32_t, Settings> settings;
  };

  static void apply(Contents &contents, const NetconfMessage &message);
  static void forget_interface(Contents &contents, uint32_t ifindex);
  void apply(Contents &contents, const AddressMessage &message);
  void note_address(uint32_t ifindex, const AddressKey &key);
  void keep_what_was_missed();

  Contents current_;
  Contents fresh_;  // what the running dump and the events since its beginning say
  // What events told of since the dump began: newer than anything the dump can say, in either order.
  std::set<uint32_t> touched_links_;
  std::set<std::pair<uint32_t, AddressKey>> touched_addresses_;
  std::map<int32_t, TouchedSettings> touched_settings_;
  bool dumping_ = false;
  bool doubtful_ = false;
  uint64_t last_incarnation_ = 0;
  uint64_t last_arrival_ = 0;
  Changes changes_;
};

}  // namespace ipd::kernel

#endif
