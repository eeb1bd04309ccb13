// SPDX-License-Identifier: Apache-2.0
// A socket holds so many groups (net.ipv4.igmp_max_memberships, 20 by default), and of each so many sources
// (net.ipv4.igmp_max_msf, 10 by default): a join that one socket has no room for goes to another one. The settings are
// not read; a socket that says ENOBUFS counts as full until something leaves it. A socket without groups is closed.
//
// An entry is a group on an interface in one socket: from any source, or from some. A socket takes one of these for a
// group and not both, so a group with more sources than a socket takes, or one that is wanted in both ways, has entries
// in several sockets. The kernel puts together what all sockets want.
//
// A socket keeps its entries when their interface goes, and gives them back, by ifindex, when it is closed: by then
// another interface may have the ifindex, and would lose memberships of somebody else's. forget() takes them out first.
//
// All of multicast is a membership of a packet socket, which receives nothing itself: unlike the interface's flag, it
// is counted beside others who want the same, and ends with the process however that ends. IFF_MULTICAST is a flag and
// nothing else; it is set where it was not, and then taken back.
//
// No socket here is bound to a port or protocol, so none ever has a packet.
#include "ipd/kernel/membership_sockets.h"

#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "ipd/kernel/link_flags.h"

namespace ipd::kernel {
namespace {

sockaddr_storage address_of(uint32_t addr) {
  sockaddr_storage storage{};
  auto *address = reinterpret_cast<sockaddr_in *>(&storage);
  address->sin_family = AF_INET;
  address->sin_addr.s_addr = htonl(addr);
  return storage;
}

int change_group(int socket, int option, const Membership &membership) {
  group_req request{};
  request.gr_interface = membership.ifindex;
  request.gr_group = address_of(membership.group);
  return setsockopt(socket, IPPROTO_IP, option, &request, sizeof request) == 0 ? 0 : errno;
}

int change_source(int socket, int option, const Membership &membership) {
  group_source_req request{};
  request.gsr_interface = membership.ifindex;
  request.gsr_group = address_of(membership.group);
  request.gsr_source = address_of(membership.source);
  return setsockopt(socket, IPPROTO_IP, option, &request, sizeof request) == 0 ? 0 : errno;
}

// Joins in a socket where the group has no entry; nothing of it is left when that fails.
int enter(int socket, const Membership &membership) {
  if (membership.source == 0) return change_group(socket, MCAST_JOIN_GROUP, membership);
  const int error = change_source(socket, MCAST_JOIN_SOURCE_GROUP, membership);
  // The kernel may have made the entry and then have had no room for the source.
  if (error != 0) (void)change_group(socket, MCAST_LEAVE_GROUP, membership);
  return error;
}

class Sockets final : public MembershipSockets {
 public:
  Sockets() = default;
  ~Sockets() override;
  Sockets(const Sockets &) = delete;
  Sockets &operator=(const Sockets &) = delete;

  int join(const Membership &membership) override;
  int leave(const Membership &membership) override;
  void forget(uint32_t ifindex) override;

 private:
  struct Entry {
    int socket;
    std::set<uint32_t> sources;  // empty: any
    bool full = false;           // no more sources
  };
  using Entries = std::vector<Entry>;
  using Place = std::pair<uint32_t, uint32_t>;  // ifindex, group

  int join_in_new_entry(Entries &entries, const Membership &membership);
  void added(Entries &entries, int socket, const Membership &membership);
  void removed(int socket);
  int join_all(uint32_t ifindex);
  int leave_all(uint32_t ifindex);
  int change_all(uint32_t ifindex, int option) const;

  std::map<Place, Entries> places_;
  std::map<int, size_t> sockets_;  // how many entries each has; never 0
  std::set<int> roomy_;            // those that are not known to be full
  int packet_socket_ = -1;
  std::map<uint32_t, bool> all_;  // ifindexes that take in every group; whether the flag was set for that
};

Sockets::~Sockets() {
  for (const auto &[ifindex, flag_set] : all_) {
    if (flag_set) (void)change_link_flags(ifindex, 0, IFF_MULTICAST);
  }
  if (packet_socket_ >= 0) close(packet_socket_);
  for (const auto &[socket, entries] : sockets_) close(socket);
}

int Sockets::join(const Membership &membership) {
  if (membership.group == 0) return join_all(membership.ifindex);
  const Place place{membership.ifindex, membership.group};
  Entries &entries = places_[place];
  for (Entry &entry : entries) {
    if (membership.source == 0 || entry.sources.empty() || entry.full) continue;
    const int error = change_source(entry.socket, MCAST_JOIN_SOURCE_GROUP, membership);
    if (error == 0) entry.sources.insert(membership.source);
    if (error != ENOBUFS) return error;
    entry.full = true;
  }
  const int error = join_in_new_entry(entries, membership);
  if (entries.empty()) places_.erase(place);
  return error;
}

int Sockets::join_in_new_entry(Entries &entries, const Membership &membership) {
  for (auto next = roomy_.begin(); next != roomy_.end();) {
    const int socket = *next++;
    if (std::any_of(entries.begin(), entries.end(), [&](const Entry &entry) { return entry.socket == socket; })) {
      continue;
    }
    const int error = enter(socket, membership);
    if (error == 0) added(entries, socket, membership);
    if (error != ENOBUFS) return error;
    roomy_.erase(socket);
  }
  const int fresh = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fresh < 0) return errno;
  const int error = enter(fresh, membership);
  if (error == 0) {
    added(entries, fresh, membership);
  } else {
    close(fresh);
  }
  return error;
}

void Sockets::added(Entries &entries, int socket, const Membership &membership) {
  Entry entry{.socket = socket, .sources = {}};
  if (membership.source != 0) entry.sources.insert(membership.source);
  entries.push_back(std::move(entry));
  ++sockets_[socket];
  roomy_.insert(socket);
}

void Sockets::removed(int socket) {
  roomy_.insert(socket);
  const auto known = sockets_.find(socket);
  if (--known->second != 0) return;
  sockets_.erase(known);
  roomy_.erase(socket);
  close(socket);
}

int Sockets::leave(const Membership &membership) {
  if (membership.group == 0) return leave_all(membership.ifindex);
  const auto place = places_.find({membership.ifindex, membership.group});
  if (place == places_.end()) return EADDRNOTAVAIL;
  Entries &entries = place->second;
  const auto entry = std::find_if(entries.begin(), entries.end(), [&](const Entry &each) {
    return membership.source == 0 ? each.sources.empty() : each.sources.contains(membership.source);
  });
  if (entry == entries.end()) return EADDRNOTAVAIL;
  int error = 0;
  if (entry->sources.size() > 1) {
    error = change_source(entry->socket, MCAST_LEAVE_SOURCE_GROUP, membership);
    entry->sources.erase(membership.source);
    entry->full = false;
    return error;
  }
  // With its last source an entry goes as a whole.
  error = change_group(entry->socket, MCAST_LEAVE_GROUP, membership);
  removed(entry->socket);
  entries.erase(entry);
  if (entries.empty()) places_.erase(place);
  return error;
}

void Sockets::forget(uint32_t ifindex) {
  all_.erase(ifindex);
  if (packet_socket_ >= 0) (void)change_all(ifindex, PACKET_DROP_MEMBERSHIP);
  const auto begin = places_.lower_bound({ifindex, 0});
  const auto end = places_.upper_bound({ifindex, UINT32_MAX});
  for (auto place = begin; place != end; ++place) {
    for (const Entry &entry : place->second) {
      (void)change_group(entry.socket, MCAST_LEAVE_GROUP, {.ifindex = ifindex, .group = place->first.second});
      removed(entry.socket);
    }
  }
  places_.erase(begin, end);
}

int Sockets::change_all(uint32_t ifindex, int option) const {
  packet_mreq request{};
  request.mr_ifindex = static_cast<int>(ifindex);
  request.mr_type = PACKET_MR_ALLMULTI;
  return setsockopt(packet_socket_, SOL_PACKET, option, &request, sizeof request) == 0 ? 0 : errno;
}

int Sockets::join_all(uint32_t ifindex) {
  if (packet_socket_ < 0) packet_socket_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (packet_socket_ < 0) return errno;
  if (const int error = change_all(ifindex, PACKET_ADD_MEMBERSHIP); error != 0) return error;
  uint32_t flags = 0;
  int error = read_link_flags(ifindex, &flags);
  const bool set_flag = error == 0 && (flags & IFF_MULTICAST) == 0;
  if (set_flag) error = change_link_flags(ifindex, IFF_MULTICAST, IFF_MULTICAST);
  if (error != 0) {
    (void)change_all(ifindex, PACKET_DROP_MEMBERSHIP);
    return error;
  }
  all_[ifindex] = set_flag;
  return 0;
}

int Sockets::leave_all(uint32_t ifindex) {
  const auto known = all_.find(ifindex);
  if (known == all_.end()) return EADDRNOTAVAIL;
  const bool flag_set = known->second;
  all_.erase(known);
  const int error = change_all(ifindex, PACKET_DROP_MEMBERSHIP);
  const int flag_error = flag_set ? change_link_flags(ifindex, 0, IFF_MULTICAST) : 0;
  return error != 0 ? error : flag_error;
}

}  // namespace

std::unique_ptr<MembershipSockets> MembershipSockets::make() {
  return std::make_unique<Sockets>();
}

}  // namespace ipd::kernel
