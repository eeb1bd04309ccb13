// SPDX-License-Identifier: Apache-2.0
// Keeps a picture equal to the kernel's state: asks for dumps, tells their messages from events, and starts over when
// something was missed. There is one mirror of links, addresses and settings, and one of routes. Knows no socket: bytes
// come in through parse(), requests go out through Requests.
#ifndef IPD_KERNEL_MIRROR_H
#define IPD_KERNEL_MIRROR_H

#include <array>
#include <chrono>
#include <cstdint>

#include "ipd/kernel/parse.h"
#include "ipd/kernel/picture.h"
#include "ipd/kernel/route_picture.h"

namespace ipd::kernel {

enum class DumpOf : uint8_t { links, addresses, settings, nexthops, routes };

// What the mirror asks of its socket.
class Requests {
 public:
  // Sends a dump request with that sequence number. False: it could not be sent; the mirror tries again at a tick.
  virtual bool request_dump(DumpOf what, uint32_t sequence) = 0;
  // Asks for the system-wide settings alone: one message answers, under netconf_all.
  virtual bool request_system_settings(uint32_t sequence) = 0;

 protected:
  ~Requests() = default;
};

struct MirrorCounts {
  uint64_t messages = 0;     // taken in
  uint64_t dumps = 0;        // whole cycles
  uint64_t overruns = 0;     // times that events were lost
  uint64_t interrupted = 0;  // cycles that the kernel called interrupted
  uint64_t failed = 0;       // requests that the kernel refused
  std::array<uint64_t, refusal_count> refused{};
};

class Mirror final : public Sink {
 public:
  using Clock = std::chrono::steady_clock;

  // `port` is the socket's own netlink port: what bears it and a sequence number of ours answers a request.
  Mirror(Picture &picture, Requests &requests) : picture_(picture), requests_(requests) {}
  // Of routes, with the links and addresses that they stand on.
  Mirror(RoutePicture &routes, Requests &requests)
      : picture_(routes.devices()), routes_(&routes), requests_(requests) {}
  void set_port(uint32_t port) { port_ = port; }

  // Begins the first dump; the socket must be subscribed already.
  void start(Clock::time_point now);
  // Events were lost (ENOBUFS).
  void overrun();
  // Nothing is left to read. A dump that has to be made again is requested here and not earlier: see mirror.cc.
  void drained(Clock::time_point now);
  // A few times a second: tries again what could not be requested or was never answered, and looks at the settings that
  // the kernel changes without an event.
  void tick(Clock::time_point now);

  // True once a first dump is complete: the picture is whole.
  [[nodiscard]] bool complete() const { return complete_; }
  // No dump is running or due.
  [[nodiscard]] bool settled() const { return complete_ && !running_ && !again_; }
  [[nodiscard]] const MirrorCounts &counts() const { return counts_; }

  void link(const Origin &origin, const LinkMessage &message) override;
  void address(const Origin &origin, const AddressMessage &message) override;
  void netconf(const Origin &origin, const NetconfMessage &message) override;
  void route(const Origin &origin, const RouteMessage &message) override;
  void nexthop(const Origin &origin, const NexthopMessage &message) override;
  void end_of_dump(const Origin &origin, int error) override;
  void request_failed(const Origin &origin, int error) override;
  void events_lost() override { overrun(); }
  void refused(Refusal refusal, uint16_t type) override;

 private:
  [[nodiscard]] bool is_dump(const Origin &origin) const;
  [[nodiscard]] bool is_poll(const Origin &origin) const;
  void poll(Clock::time_point now);
  void note_interruption(const Origin &origin);
  void begin(Clock::time_point now);
  void ask(DumpOf what);
  void finish();
  void end_picture(bool whole);
  void note_doubt();

  Picture &picture_;
  RoutePicture *routes_ = nullptr;
  Requests &requests_;
  uint32_t port_ = 0;
  uint32_t sequence_ = 0;
  DumpOf asked_ = DumpOf::links;
  bool running_ = false;      // a request is out and its end has not come
  bool unsent_ = false;       // the request could not be sent or was refused
  bool again_ = false;        // another cycle is due
  bool lost_ = false;         // events were lost during this cycle
  bool interrupted_ = false;  // the kernel called this cycle interrupted
  bool complete_ = false;
  uint32_t interruptions_in_a_row_ = 0;
  uint32_t poll_sequence_ = 0;  // 0: no poll is out
  bool poll_is_dump_ = false;
  bool doubtful_ = false;  // the routes are to be read again at verify_at_
  Clock::time_point began_{};
  Clock::time_point verify_at_{};
  Clock::time_point verify_latest_{};
  Clock::time_point verify_earliest_{};
  Clock::time_point last_progress_{};
  Clock::time_point not_before_{};
  Clock::time_point next_poll_{};
  Clock::time_point now_{};
  MirrorCounts counts_;
};

}  // namespace ipd::kernel

#endif
