// SPDX-License-Identifier: Apache-2.0
// Frames to neighbours, whose link-layer addresses the kernel knows or finds out.
#ifndef IPD_PACKET_NEIGHBOR_OUTPUT_H
#define IPD_PACKET_NEIGHBOR_OUTPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "ipd/kernel/neighbors.h"
#include "ipd/kernel/packet_output.h"
#include "ipd/packet/outcome.h"

namespace ipd::packet {

// What became of frames that had to wait.
struct WaitingCounts {
  uint64_t waited = 0;    // all that ever did
  uint64_t sent = 0;      // in the end
  uint64_t dropped = 0;   // the neighbour did not answer, or not in time
  uint64_t not_sent = 0;  // the interface did not take them
  bool operator==(const WaitingCounts &) const = default;
};

class NeighborOutput {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t most_per_neighbor = 64;  // the longest packet has 45 fragments of 1500 bytes
  static constexpr size_t most = 256;
  static constexpr auto patience = std::chrono::seconds(3);

  // Both outlive it.
  NeighborOutput(kernel::Neighbors &neighbors, kernel::PacketOutput &frames) : neighbors_(neighbors), frames_(frames) {}

  // Sends the frame, whose destination is filled in here, or keeps a copy until the neighbour has answered: both are
  // `done`. A neighbour that did not answer is asked again. queue_full: enough frames wait. no_privilege: the kernel
  // may not be made to ask.
  Outcome send(const kernel::NeighborId &id, std::span<std::byte> frame, Clock::time_point now);

  // The kernel's news.
  void changed(const kernel::Neighbor &neighbor);
  // News were lost, or cannot be had.
  void look_again();
  // A few times per second.
  void tick(Clock::time_point now);

  [[nodiscard]] size_t waiting() const { return waiting_; }
  [[nodiscard]] const WaitingCounts &counts() const { return counts_; }

 private:
  struct Frame {
    std::vector<std::byte> bytes;
    Clock::time_point since;
  };
  using Queue = std::deque<Frame>;

  Outcome keep(const kernel::NeighborId &id, std::span<const std::byte> frame, Clock::time_point now);

  kernel::Neighbors &neighbors_;
  kernel::PacketOutput &frames_;
  std::map<kernel::NeighborId, Queue> queues_;  // none is empty
  size_t waiting_ = 0;                          // frames in all of them
  WaitingCounts counts_;
};

}  // namespace ipd::packet

#endif
