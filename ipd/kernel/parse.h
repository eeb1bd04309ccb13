// SPDX-License-Identifier: Apache-2.0
// From the bytes of an rtnetlink datagram to what they say. A pure function: no socket, no state, no allocation beyond
// short strings; whatever the bytes are, it returns, and nothing outside the span is read.
#ifndef IPD_KERNEL_PARSE_H
#define IPD_KERNEL_PARSE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ipd::kernel {

// Where a message comes from: a dump that we asked for (our port, the request's sequence number) or an event.
struct Origin {
  uint32_t port;
  uint32_t sequence;
  bool interrupted;  // the kernel's word that a list changed under the dump
};

struct LinkMessage {
  uint32_t ifindex = 0;  // never 0
  bool removed = false;
  std::string name;    // 1 to 15 characters; may be empty when removed
  uint32_t flags = 0;  // IFF_*
  uint16_t hardware_type = 0;
  // A message without an MTU tells about flags and name only: master, kind and hardware address say nothing then.
  std::optional<uint32_t> mtu;
  uint32_t master = 0;     // ifindex; 0: none
  std::string kind;        // "vrf", "bridge"; empty for a plain device
  uint32_t vrf_table = 0;  // of a "vrf"
  std::array<uint8_t, 32> hardware_address{};
  uint8_t hardware_address_len = 0;
};

struct AddressMessage {
  uint32_t ifindex = 0;  // never 0
  bool removed = false;
  uint32_t local = 0;      // host order
  uint32_t peer = 0;       // host order; equals `local` when there is no peer
  uint8_t prefix_len = 0;  // of the peer's prefix when there is a peer; at most 32
  uint8_t scope = 0;
  bool secondary = false;
  bool operator==(const AddressMessage &) const = default;
};

inline constexpr int32_t netconf_all = -1;
inline constexpr int32_t netconf_default = -2;

struct NetconfMessage {
  int32_t ifindex = 0;  // or netconf_all, netconf_default
  bool removed = false;
  std::optional<bool> forwarding = {};
  std::optional<bool> directed_broadcast = {};
};

// One next hop of a route.
struct RouteHop {
  uint32_t ifindex = 0;   // 0: the device is gone
  uint32_t gateway = 0;   // host order; 0: none, or one of another family
  bool via_ipv6 = false;  // the gateway has an IPv6 address:
  std::array<uint8_t, 16> gateway_ipv6{};
  uint32_t weight = 1;
  bool operator==(const RouteHop &) const = default;
};

// Where a new route stands among those of the same table, prefix, type of service and metric. The kernel uses the
// first.
enum class RoutePlace : uint8_t {
  alone,    // there was none
  first,    // before the others
  last,     // behind the others
  instead,  // in the place of the first
  unsaid,   // told again for another reason
};

struct RouteMessage {
  bool removed = false;
  RoutePlace place = RoutePlace::unsaid;  // of events; a dump tells them in their order
  uint32_t table = 0;                     // never 0
  uint32_t addr = 0;                      // host order, no bits beyond `len`
  uint8_t len = 0;
  uint8_t tos = 0;
  uint8_t type = 0;      // RTN_*
  uint8_t scope = 0;     // RT_SCOPE_*
  uint8_t protocol = 0;  // RTPROT_*
  uint32_t metric = 0;
  uint32_t pref_src = 0;       // host order; 0: none
  uint32_t nexthop_id = 0;     // of the nexthop object; `hops` is empty then. 0: none
  std::vector<RouteHop> hops;  // none for a route that drops
  std::vector<bool> dead;      // as many: the kernel does not use this one now
};

// A nexthop object; those of a bridge's forwarding database are passed over.
struct NexthopMessage {
  struct Member {
    uint32_t id;
    uint32_t weight;
    bool operator==(const Member &) const = default;
  };
  bool removed = false;
  uint32_t id = 0;  // never 0
  bool blackhole = false;
  RouteHop hop;                 // of a single one
  std::vector<Member> members;  // of a group; empty: not a group
};

// Why a message was skipped.
enum class Refusal : uint8_t {
  short_header,          // fewer bytes left than a message header has
  lying_length,          // the header's length is below a header's or beyond the datagram's
  short_body,            // no room for the fixed part of this type
  lying_attribute,       // an attribute's length is below its header's or beyond its message's
  wrong_attribute_size,  // an attribute that must be a number or an address has another size
  missing_attribute,     // the message means nothing without it
  bad_value,             // an ifindex of 0, a prefix longer than 32, a name that is empty, too long or not terminated
};
inline constexpr size_t refusal_count = 7;
[[nodiscard]] const char *refusal_text(Refusal refusal);

// Takes what parse() finds. Messages of other types or address families are passed over silently: they are not ours.
class Sink {
 public:
  virtual void link(const Origin &origin, const LinkMessage &message) = 0;
  virtual void address(const Origin &origin, const AddressMessage &message) = 0;
  virtual void netconf(const Origin &origin, const NetconfMessage &message) = 0;
  virtual void route(const Origin &origin, const RouteMessage &message) = 0;
  virtual void nexthop(const Origin &origin, const NexthopMessage &message) = 0;
  virtual void end_of_dump(const Origin &origin, int error) = 0;     // error: an errno, 0 for a whole dump
  virtual void request_failed(const Origin &origin, int error) = 0;  // error: an errno; 0 is an acknowledgement
  virtual void events_lost() = 0;                                    // NLMSG_OVERRUN
  virtual void refused(Refusal refusal, uint16_t type) = 0;

 protected:
  ~Sink() = default;
};

// Each message goes to `sink` in order. After a message whose own length cannot be trusted the rest of the datagram is
// dropped (one refusal); any other malformed message is skipped alone.
void parse(std::span<const std::byte> datagram, Sink &sink);

}  // namespace ipd::kernel

#endif
