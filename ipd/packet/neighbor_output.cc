// SPDX-License-Identifier: Apache-2.0
// The kernel keeps the neighbours, asks them, and forgets them: we have no cache of our own that could be wrong. A
// frame whose neighbour is not known waits here; the kernel's news of the neighbour send it or drop it, and the clock
// drops what has waited too long. Since news may be lost, what waits is also looked up with each tick.
//
// Frames to one neighbour keep their order: while some wait, further ones go behind them.
#include "ipd/packet/neighbor_output.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "ipd/packet/ethernet.h"

namespace ipd::packet {
namespace {

using kernel::Neighbor;
using kernel::NeighborId;
using kernel::NeighborState;

bool has_address(const Neighbor &neighbor) {
  return neighbor.state == NeighborState::usable || neighbor.state == NeighborState::stale;
}

Outcome outcome_of(int error) {
  switch (error) {
    case 0:
      return Outcome::done;
    case EPERM:
      return Outcome::no_privilege;
    case ENODEV:
      return Outcome::no_interface;
    case ENETDOWN:
      return Outcome::interface_down;
    case ENOBUFS:
      return Outcome::no_memory;
    case ENOMEM:
      return Outcome::no_memory;
    default:
      return Outcome::kernel;
  }
}

}  // namespace

Outcome NeighborOutput::send(const NeighborId &id, std::span<std::byte> frame, Clock::time_point now) {
  if (queues_.contains(id)) return keep(id, frame, now);
  Neighbor neighbor;
  if (const int error = neighbors_.find(id, &neighbor); error != 0) return outcome_of(error);
  // One that is stale is asked by the kernel when it is used, which we have to say.
  const int error = neighbor.state == NeighborState::usable ? 0 : neighbors_.resolve(id);
  if (has_address(neighbor)) {
    ethernet::write_destination(frame, neighbor.address);
    return frames_.send(id.ifindex, frame);
  }
  return error != 0 ? outcome_of(error) : keep(id, frame, now);
}

Outcome NeighborOutput::keep(const NeighborId &id, std::span<const std::byte> frame, Clock::time_point now) {
  const auto known = queues_.find(id);
  if (waiting_ == most || (known != queues_.end() && known->second.size() == most_per_neighbor)) {
    return Outcome::queue_full;
  }
  queues_[id].push_back({.bytes = {frame.begin(), frame.end()}, .since = now});
  ++waiting_;
  ++counts_.waited;
  return Outcome::done;
}

void NeighborOutput::changed(const Neighbor &neighbor) {
  const auto known = queues_.find(neighbor.id);
  if (known == queues_.end()) return;
  if (!has_address(neighbor) && neighbor.state != NeighborState::failed) return;
  Queue queue = std::move(known->second);
  queues_.erase(known);
  waiting_ -= queue.size();
  for (Frame &frame : queue) {
    if (!has_address(neighbor)) {
      ++counts_.dropped;
      continue;
    }
    ethernet::write_destination(frame.bytes, neighbor.address);
    ++(frames_.send(neighbor.id.ifindex, frame.bytes) == Outcome::done ? counts_.sent : counts_.not_sent);
  }
}

void NeighborOutput::look_again() {
  std::vector<NeighborId> ids;
  for (const auto &[id, queue] : queues_) ids.push_back(id);
  for (const NeighborId &id : ids) {
    Neighbor neighbor;
    if (neighbors_.find(id, &neighbor) == 0) changed(neighbor);
  }
}

void NeighborOutput::tick(Clock::time_point now) {
  look_again();
  for (auto next = queues_.begin(); next != queues_.end();) {
    Queue &queue = next->second;
    while (!queue.empty() && now - queue.front().since >= patience) {
      queue.pop_front();
      --waiting_;
      ++counts_.dropped;
    }
    next = queue.empty() ? queues_.erase(next) : std::next(next);
  }
}

}  // namespace ipd::packet
