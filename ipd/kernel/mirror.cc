// SPDX-License-Identifier: Apache-2.0
// Dump, subscribe, and start over when something was missed.
//
// A cycle is three dumps on one socket: links, addresses, settings; or, for routes, links, addresses, nexthop objects,
// routes, where links and addresses are those that the order of events on this socket speaks of. The socket is
// subscribed before the first, so that nothing can fall between; the picture lays events over the dump (see
// picture.cc). One socket for both keeps dump messages and events in the kernel's order.
//
// Lost events. When the receive buffer is full, the kernel drops events, says ENOBUFS once, and goes on dropping
// silently until the queue has been read empty. So a new cycle must not begin at the ENOBUFS but when there is nothing
// left to read: drained(). A dump that runs at that moment is worthless, but it is read to its end first, since the
// kernel refuses a second dump on a socket (EBUSY); its last message is never lost, dumps wait for room instead.
//
// An interrupted dump. The kernel marks messages of a dump whose list changed under it: entries may be missing. The
// cycle is finished and then made again. On a busy system every cycle may be interrupted, and a picture must come out
// nevertheless: after a few in a row the result is taken without believing what is missing from it, and the next try
// waits a second.
//
// Not everything has an event: the kernel says nothing when net.ipv4.conf.*.bc_forwarding changes. The system-wide
// switch is asked for every two seconds, and only while it is on, which is rare, the interfaces' are too. Of these
// answers only that setting is taken: all others have events, and an answer may be older than an event that overtook
// it.
//
// Nor has every change of routes (see route_rules.cc). What the picture concludes by itself is verified by a new cycle,
// a fifth of a second after the last such conclusion but no later than a second after the first, and with a rest before
// it that grows with what a cycle takes: a table of a million routes is not read all the time.
//
// Every answer to a request bears our port and the request's number; a late answer to an older request matches nothing.
#include "ipd/kernel/mirror.h"

#include <algorithm>
#include <cerrno>

namespace ipd::kernel {
namespace {

constexpr uint32_t interruptions_borne = 5;
constexpr auto rest_after_interruptions = std::chrono::seconds(1);
constexpr auto answer_deadline = std::chrono::seconds(10);
constexpr auto poll_period = std::chrono::seconds(2);
constexpr auto verify_delay = std::chrono::milliseconds(200);
constexpr auto verify_patience = std::chrono::seconds(1);
constexpr int rest_per_cycle = 4;

}  // namespace

void Mirror::start(Clock::time_point now) {
  begin(now);
}

void Mirror::begin(Clock::time_point now) {
  now_ = last_progress_ = began_ = now;
  again_ = lost_ = interrupted_ = doubtful_ = false;
  picture_.begin_dump();
  if (routes_ != nullptr) routes_->begin_dump();
  ask(DumpOf::links);
}

void Mirror::ask(DumpOf what) {
  asked_ = what;
  running_ = true;
  unsent_ = !requests_.request_dump(what, ++sequence_);
}

void Mirror::overrun() {
  ++counts_.overruns;
  lost_ = again_ = true;
  not_before_ = {};
  picture_.doubt();
}

void Mirror::drained(Clock::time_point now) {
  now_ = now;
  const bool busy = running_ || (poll_sequence_ != 0 && poll_is_dump_);
  if (again_ && !busy && now >= not_before_) begin(now);
  note_doubt();
}

void Mirror::note_doubt() {
  if (routes_ == nullptr || running_ || !routes_->take_doubt()) return;
  if (!doubtful_) verify_latest_ = now_ + verify_patience;
  doubtful_ = true;
  verify_at_ = std::max(std::min(now_ + verify_delay, verify_latest_), verify_earliest_);
}

void Mirror::tick(Clock::time_point now) {
  now_ = now;
  if (running_ && unsent_) {
    last_progress_ = now;
    ask(asked_);
  } else if (running_ && now - last_progress_ > answer_deadline) {
    begin(now);
  } else if (again_ && !running_ && !lost_ && now >= not_before_) {
    begin(now);
  } else if (settled() && doubtful_ && now >= verify_at_) {
    begin(now);
  } else if (settled() && routes_ == nullptr && now >= next_poll_) {
    poll(now);
  }
  note_doubt();
}

void Mirror::poll(Clock::time_point now) {
  next_poll_ = now + poll_period;
  poll_is_dump_ = picture_.directed_broadcast_allowed();
  poll_sequence_ = ++sequence_;
  const bool sent = poll_is_dump_ ? requests_.request_dump(DumpOf::settings, poll_sequence_)
                                  : requests_.request_system_settings(poll_sequence_);
  if (!sent) poll_sequence_ = 0;
}

bool Mirror::is_poll(const Origin &origin) const {
  return poll_sequence_ != 0 && origin.port == port_ && origin.sequence == poll_sequence_;
}

bool Mirror::is_dump(const Origin &origin) const {
  return running_ && origin.port == port_ && origin.sequence == sequence_;
}

void Mirror::note_interruption(const Origin &origin) {
  last_progress_ = now_;
  if (origin.interrupted) interrupted_ = true;
}

void Mirror::link(const Origin &origin, const LinkMessage &message) {
  ++counts_.messages;
  if (!is_dump(origin)) return routes_ != nullptr ? routes_->link(message) : picture_.link(message);
  note_interruption(origin);
  picture_.dump_link(message);
}

void Mirror::address(const Origin &origin, const AddressMessage &message) {
  ++counts_.messages;
  if (!is_dump(origin)) return routes_ != nullptr ? routes_->address(message) : picture_.address(message);
  note_interruption(origin);
  picture_.dump_address(message);
}

void Mirror::netconf(const Origin &origin, const NetconfMessage &message) {
  ++counts_.messages;
  if (is_poll(origin)) {
    NetconfMessage news = message;
    news.forwarding.reset();
    if (!poll_is_dump_) {
      poll_sequence_ = 0;
      if (news.directed_broadcast.value_or(false)) next_poll_ = {};  // now the interfaces' own matter
    }
    return picture_.netconf(news);
  }
  if (!is_dump(origin)) return picture_.netconf(message);
  note_interruption(origin);
  picture_.dump_netconf(message);
}

void Mirror::route(const Origin &origin, const RouteMessage &message) {
  if (routes_ == nullptr) return;
  ++counts_.messages;
  if (!is_dump(origin)) return routes_->route(message);
  note_interruption(origin);
  routes_->dump_route(message);
}

void Mirror::nexthop(const Origin &origin, const NexthopMessage &message) {
  if (routes_ == nullptr) return;
  ++counts_.messages;
  if (!is_dump(origin)) return routes_->nexthop(message);
  note_interruption(origin);
  routes_->dump_nexthop(message);
}

void Mirror::end_of_dump(const Origin &origin, int error) {
  if (is_poll(origin)) {
    poll_sequence_ = 0;
    return;
  }
  if (!is_dump(origin)) return;
  note_interruption(origin);
  if (error != 0) {
    // The kernel gave up in the middle: as good as interrupted.
    ++counts_.failed;
    interrupted_ = true;
  }
  if (lost_) {
    running_ = false;  // drained() begins anew
    return;
  }
  switch (asked_) {
    case DumpOf::links:
      return ask(DumpOf::addresses);
    case DumpOf::addresses:
      return ask(routes_ != nullptr ? DumpOf::nexthops : DumpOf::settings);
    case DumpOf::nexthops:
      return ask(DumpOf::routes);
    case DumpOf::settings:
    case DumpOf::routes:
      return finish();
  }
}

void Mirror::end_picture(bool whole) {
  picture_.end_dump(whole);
  if (routes_ != nullptr) routes_->end_dump(whole);
  complete_ = true;
}

void Mirror::finish() {
  running_ = false;
  verify_earliest_ = now_ + rest_per_cycle * (now_ - began_);
  if (!interrupted_) {
    interruptions_in_a_row_ = 0;
    ++counts_.dumps;
    end_picture(true);
    return;
  }
  ++counts_.interrupted;
  again_ = true;
  if (++interruptions_in_a_row_ < interruptions_borne) {
    not_before_ = {};
    return;
  }
  interruptions_in_a_row_ = 0;
  end_picture(false);
  not_before_ = now_ + rest_after_interruptions;
}

void Mirror::request_failed(const Origin &origin, int error) {
  if (is_poll(origin) && error != 0) poll_sequence_ = 0;
  if (!is_dump(origin) || error == 0) return;
  // A kernel without nexthop objects has none.
  if (asked_ == DumpOf::nexthops && error == EOPNOTSUPP) return ask(DumpOf::routes);
  ++counts_.failed;
  unsent_ = true;  // tick() asks again
}

void Mirror::refused(Refusal refusal, uint16_t type) {
  (void)type;
  ++counts_.refused[static_cast<size_t>(refusal)];
}

}  // namespace ipd::kernel
