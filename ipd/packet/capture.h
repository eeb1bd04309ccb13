// SPDX-License-Identifier: Apache-2.0
// Copies of the packets that pass the packet service, for people who look for a fault: to the queues that asked on the
// control SAP. Never waits for a queue: what has no room is counted, and told with the next that has.
#ifndef IPD_PACKET_CAPTURE_H
#define IPD_PACKET_CAPTURE_H

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "ip_show.h"
#include "ipd/control/handler.h"
#include "ipd/control/transport.h"
#include "ipd/packet/tap.h"

namespace ipd::packet {

class Capture final : public control::Handler, public Tap {
 public:
  static constexpr size_t most_captures = 16;

  // The transport outlives it.
  explicit Capture(control::Transport &transport) : transport_(transport) {}

  // IP_MSG_CAPTURE.
  control::Refusal handle(const control::Request &request) override;
  void process_gone(int32_t pid) override;
  void queue_gone(const control::Sender &sender) override;

  void passed(const Passed &what, std::span<const std::byte> packet) override;
  [[nodiscard]] bool wants() const override { return !captures_.empty(); }

 private:
  struct Wanted {
    int32_t pid = 0;  // who asked
    uint32_t snap_len = 0;
    uint32_t directions = 0;
    uint32_t iod = 0;
    uint32_t protocol = 0;
    uint32_t client = 0;
    uint32_t dropped = 0;  // since the last record
  };
  uint32_t begin(const control::Sender &sender, const ip_msg_capture &message);
  static bool wanted(const Wanted &capture, const Passed &what, std::span<const std::byte> packet);
  // False: the queue is there no more.
  bool tell(uint32_t sap, Wanted &capture, const Passed &what, const timespec &now, std::span<const std::byte> packet);

  control::Transport &transport_;
  std::map<uint32_t, Wanted> captures_;  // by SAP
  std::vector<std::byte> record_;
};

}  // namespace ipd::packet

#endif
