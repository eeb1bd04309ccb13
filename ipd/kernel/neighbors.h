// SPDX-License-Identifier: Apache-2.0
// The kernel's neighbours: link-layer addresses of systems on a link.
#ifndef IPD_KERNEL_NEIGHBORS_H
#define IPD_KERNEL_NEIGHBORS_H

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace ipd::kernel {

struct NeighborId {
  uint32_t ifindex = 0;
  uint32_t addr = 0;  // host order
  auto operator<=>(const NeighborId &) const = default;
};

enum class NeighborState : uint8_t {
  unknown,    // nobody asked for it
  resolving,  // it was asked, and has not answered yet
  usable,     // it has this address
  stale,      // it had this address when it was last heard of; to be used, and to be asked again
  failed,     // it did not answer
};

struct Neighbor {
  NeighborId id;
  NeighborState state = NeighborState::unknown;
  std::array<uint8_t, 6> address{};
  bool operator==(const Neighbor &) const = default;
};

class Neighbors {
 public:
  // Over rtnetlink, in this process's network namespace. The sockets are opened when they are first needed.
  static std::unique_ptr<Neighbors> over_rtnetlink();
  virtual ~Neighbors() = default;

  // Results of both: 0, or an error number: EPERM: this process may not; ENODEV: no such interface; ETIMEDOUT: no
  // answer; else that of the kernel or the socket.
  virtual int find(const NeighborId &id, Neighbor *neighbor) = 0;
  // The kernel asks it, and tells what came of that.
  virtual int resolve(const NeighborId &id) = 0;

  // Whoever wants to be told of changes polls this one, non-blocking; -1: it cannot be had.
  virtual int descriptor() = 0;
  // Takes in what is there, at most a batch. False: something was lost.
  virtual bool read(const std::function<void(const Neighbor &)> &changed) = 0;
};

// A neighbour message of an IPv4 neighbour with addresses of Ethernet's length; a removed one is unknown. Nothing: it
// is another message, or malformed.
[[nodiscard]] std::optional<Neighbor> parse_neighbor(std::span<const std::byte> message);

}  // namespace ipd::kernel

#endif
