// SPDX-License-Identifier: Apache-2.0
// A membership is held by processes, each once however often it joined, and is in the kernel as long as somebody holds
// it. There are three kinds per interface, and none knows of the others: a group from any source, a group from one
// source, and every group.
//
// What is held outlives the interface: an interface that goes leaves its memberships under its name, and the interface
// that next has that name, new, renamed or moved, takes them over, under another iod then. Until then a leave may name
// the iod that was. An interface without IPv4 state (an MTU below 68) is there, but the kernel has forgotten what was
// joined on it; it is joined again when that state is back. Down and up is the kernel's business: it keeps memberships.
//
// A join that the kernel has no room for, or no interface, is kept and tried again, since nobody tells the client; one
// that it refuses for another reason is not.
#include "ipd/control/memberships.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "ip_msg.h"
#include "ipd/process/log.h"

namespace ipd::control {
namespace {

constexpr uint32_t least_mtu = 68;  // below, Linux has no IPv4 on an interface

bool has_ipv4(const InterfaceFacts &facts) {
  return facts.state.mtu >= least_mtu;
}

bool is_group(uint32_t addr) {
  return addr >> 28 == 0xe;
}

// Neither a group nor of what lies above groups.
bool is_source(uint32_t addr) {
  return addr >> 28 < 0xe;
}

bool is_for_want_of_room(int error) {
  return error == ENOBUFS || error == ENOMEM || error == EMFILE || error == ENFILE;
}

std::string text_of(uint32_t addr) {
  char text[INET_ADDRSTRLEN] = "";
  const in_addr net{.s_addr = htonl(addr)};
  inet_ntop(AF_INET, &net, text, sizeof text);
  return text;
}

}  // namespace

Refusal Memberships::handle(const Request &request) {
  const auto message = request.as<ip_msg_group>();
  Subject subject{message.group, message.source};
  if (message.group == 0) {
    subject.second = 0;  // not defined then
  } else if (!is_group(message.group) || !is_source(message.source)) {
    return Refusal::bad_field;
  }
  return request.minor == IP_MSG_JOIN_GROUP ? join(request.sender.pid, message.iod, subject)
                                            : leave(request.sender.pid, message.iod, subject);
}

Refusal Memberships::join(int32_t pid, uint32_t iod, const Subject &subject) {
  const auto facts = box_.interface(iod);
  if (!facts) return Refusal::no_interface;
  const auto known = interfaces_.find(iod);
  if (known != interfaces_.end()) {
    const auto member = known->second.members.find(subject);
    if (member != known->second.members.end() && member->second.pids.contains(pid)) return Refusal::none;
  }
  if (held_by(pid) >= most_per_process || all_held_ >= most) return Refusal::limit;

  Interface &interface = known != interfaces_.end() ? known->second : interfaces_[iod];
  if (known == interfaces_.end()) {
    interface.name = facts->state.name;
    interface.iod = iod;
    interface.ifindex = facts->state.ifindex;
    interface.has_ipv4 = has_ipv4(*facts);
    iods_[interface.ifindex] = iod;
  }
  const auto member = interface.members.try_emplace(subject).first;
  member->second.pids.insert(pid);
  ++held_[pid];
  ++all_held_;
  if (member->second.joined || !interface.has_ipv4) return Refusal::none;
  const int error = join_in_kernel(interface, *member);
  if (error == 0) return Refusal::none;
  if (error == ENODEV || is_for_want_of_room(error)) return error == ENODEV ? Refusal::none : Refusal::kernel;
  (void)release(interface, member, pid);
  drop_if_empty(iod);
  return Refusal::kernel;
}

// 0, or why it is still to be joined.
int Memberships::join_in_kernel(const Interface &interface, Members::value_type &member) {
  const int error =
      sockets_.join({.ifindex = interface.ifindex, .group = member.first.first, .source = member.first.second});
  member.second.joined = error == 0;
  if (error == 0) return 0;
  missing_ = true;
  if (error != ENODEV) say("join", interface, member.first, error);
  return error;
}

Refusal Memberships::leave(int32_t pid, uint32_t iod, const Subject &subject) {
  const auto member_in = [&](Interface &interface) {
    const auto member = interface.members.find(subject);
    return member != interface.members.end() && member->second.pids.contains(pid) ? member : interface.members.end();
  };
  if (const auto known = interfaces_.find(iod); known != interfaces_.end()) {
    const auto member = member_in(known->second);
    if (member == known->second.members.end()) return Refusal::not_registered;
    const int error = release(known->second, member, pid);
    drop_if_empty(iod);
    return error == 0 ? Refusal::none : Refusal::kernel;
  }
  if (box_.interface(iod)) return Refusal::not_registered;
  for (auto &[name, interface] : absent_) {
    const auto member = interface.iod == iod ? member_in(interface) : interface.members.end();
    if (member == interface.members.end()) continue;
    (void)release(interface, member, pid);
    if (interface.members.empty()) absent_.erase(name);
    return Refusal::none;
  }
  return Refusal::no_interface;
}

// The process does not hold it any more. Results: 0, or why the kernel did not let go of it.
int Memberships::release(Interface &interface, Members::iterator member, int32_t pid) {
  count_down(pid);
  Membership &membership = member->second;
  membership.pids.erase(pid);
  if (!membership.pids.empty()) return 0;
  const Subject subject = member->first;
  const bool was_joined = membership.joined;
  interface.members.erase(member);
  if (!was_joined) return 0;
  const int error = sockets_.leave({.ifindex = interface.ifindex, .group = subject.first, .source = subject.second});
  if (error == 0 || error == ENODEV || error == EADDRNOTAVAIL) return 0;  // it is not there
  say("leave", interface, subject, error);
  return error;
}

void Memberships::count_down(int32_t pid) {
  --all_held_;
  const auto held = held_.find(pid);
  if (--held->second == 0) held_.erase(held);
}

void Memberships::drop_if_empty(uint32_t iod) {
  const auto known = interfaces_.find(iod);
  if (known == interfaces_.end() || !known->second.members.empty()) return;
  iods_.erase(known->second.ifindex);
  interfaces_.erase(known);
}

void Memberships::release_all(Interface &interface, int32_t pid) {
  for (auto next = interface.members.begin(); next != interface.members.end();) {
    const auto member = next++;
    if (member->second.pids.contains(pid)) (void)release(interface, member, pid);
  }
}

void Memberships::process_gone(int32_t pid) {
  if (!held_.contains(pid)) return;
  for (auto next = interfaces_.begin(); next != interfaces_.end();) {
    const uint32_t iod = next->first;
    release_all((next++)->second, pid);
    drop_if_empty(iod);
  }
  for (auto &[name, interface] : absent_) release_all(interface, pid);
  std::erase_if(absent_, [](const auto &each) { return each.second.members.empty(); });
}

// What went is let go of before anything comes back: a new interface may have the ifindex of an old one, or the name.
void Memberships::interfaces_changed(const std::set<uint32_t> &ifindexes) {
  for (const uint32_t ifindex : ifindexes) {
    if (const auto known = iods_.find(ifindex); known != iods_.end()) look_at(known->second);
  }
  if (absent_.empty()) return;
  for (const uint32_t ifindex : ifindexes) {
    const auto facts = box_.interface_by_ifindex(ifindex);
    if (facts) come_back(*facts);
  }
}

// One that memberships are held on.
void Memberships::look_at(uint32_t iod) {
  Interface &interface = interfaces_.at(iod);
  const auto facts = box_.interface(iod);
  if (!facts || facts->state.ifindex != interface.ifindex) {
    forget(interface);
    iods_.erase(interface.ifindex);
    interface.ifindex = 0;
    Interface gone = std::move(interface);
    interfaces_.erase(iod);
    Interface &absent = absent_[gone.name];
    take_over(gone, absent);
    absent.name = gone.name;
    absent.iod = iod;
    return;
  }
  interface.name = facts->state.name;
  if (interface.has_ipv4 == has_ipv4(*facts)) return;
  interface.has_ipv4 = has_ipv4(*facts);
  if (interface.has_ipv4) {
    (void)join_missing(interface);
  } else {
    forget(interface);
  }
}

void Memberships::forget(Interface &interface) {
  sockets_.forget(interface.ifindex);
  for (auto &[subject, membership] : interface.members) membership.joined = false;
}

void Memberships::come_back(const InterfaceFacts &facts) {
  const auto waiting = absent_.find(facts.state.name);
  if (waiting == absent_.end()) return;
  Interface &interface = interfaces_[facts.iod];
  interface.name = facts.state.name;
  interface.iod = facts.iod;
  interface.ifindex = facts.state.ifindex;
  interface.has_ipv4 = has_ipv4(facts);
  iods_[interface.ifindex] = facts.iod;
  take_over(waiting->second, interface);
  absent_.erase(waiting);
  if (interface.has_ipv4) (void)join_missing(interface);
}

// Nothing of `from` is joined.
void Memberships::take_over(Interface &from, Interface &to) {
  for (auto &[subject, membership] : from.members) {
    std::set<int32_t> &pids = to.members[subject].pids;
    for (const int32_t pid : membership.pids) {
      if (!pids.insert(pid).second) count_down(pid);  // held on both
    }
  }
  from.members.clear();
}

// False: there is no room for more.
bool Memberships::join_missing(Interface &interface) {
  return std::all_of(interface.members.begin(), interface.members.end(), [&](Members::value_type &member) {
    return member.second.joined || !is_for_want_of_room(join_in_kernel(interface, member));
  });
}

void Memberships::tick(Clock::time_point now) {
  if (!missing_ || now < next_retry_) return;
  next_retry_ = now + retry_period;
  missing_ = false;
  for (auto &[iod, interface] : interfaces_) {
    if (interface.has_ipv4 && !join_missing(interface)) return;
  }
}

size_t Memberships::held_by(int32_t pid) const {
  const auto held = held_.find(pid);
  return held == held_.end() ? 0 : held->second;
}

bool Memberships::wants(const Interface &interface, int32_t pid, uint32_t group, uint32_t source) {
  return std::ranges::any_of(std::array<Subject, 3>{{{group, 0}, {group, source}, {0, 0}}},
                             [&](const Subject &subject) {
                               const auto member = interface.members.find(subject);
                               return member != interface.members.end() && member->second.pids.contains(pid);
                             });
}

bool Memberships::wants(int32_t pid, uint32_t iod, uint32_t group, uint32_t source) const {
  if (!held_.contains(pid)) return false;
  if (iod == 0) {
    return std::ranges::any_of(interfaces_, [&](const auto &each) { return wants(each.second, pid, group, source); });
  }
  const auto known = interfaces_.find(iod);
  return known != interfaces_.end() && wants(known->second, pid, group, source);
}

std::vector<uint32_t> Memberships::interfaces_with(uint32_t group, uint32_t source) const {
  std::vector<uint32_t> found;
  for (const auto &[iod, interface] : interfaces_) {
    if (interface.members.contains({group, 0}) || interface.members.contains({group, source})) found.push_back(iod);
  }
  return found;
}

void Memberships::add_holdings(int32_t pid, Holdings &held) const {
  held.memberships += static_cast<uint32_t>(held_by(pid));
}

// Often enough to be seen, not as often as it happens.
void Memberships::say(const char *what, const Interface &interface, const Subject &subject, int error) {
  if (++failures_ > 10 && failures_ % 1000 != 0) return;
  std::string who = subject.first == 0 ? "every group" : "group " + text_of(subject.first);
  if (subject.second != 0) who += " of source " + text_of(subject.second);
  log_line(LOG_WARNING, "cannot %s %s on %s: %s", what, who.c_str(), interface.name.c_str(), strerror(error));
}

}  // namespace ipd::control
