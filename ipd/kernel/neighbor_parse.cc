// SPDX-License-Identifier: Apache-2.0
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>

#include "ipd/kernel/attributes.h"
#include "ipd/kernel/neighbors.h"

namespace ipd::kernel {
namespace {

// The kernel's states (NUD_...), one bit each. A probe, and the delay before it, goes on with the old address.
NeighborState state_of(uint16_t state, bool has_address) {
  if ((state & NUD_FAILED) != 0) return NeighborState::failed;
  if ((state & NUD_INCOMPLETE) != 0) return NeighborState::resolving;
  if (!has_address) return NeighborState::unknown;
  if ((state & NUD_STALE) != 0) return NeighborState::stale;
  const bool has_valid = (state & (NUD_REACHABLE | NUD_DELAY | NUD_PROBE | NUD_NOARP | NUD_PERMANENT)) != 0;
  return has_valid ? NeighborState::usable : NeighborState::unknown;
}

}  // namespace

std::optional<Neighbor> parse_neighbor(Bytes message) {
  constexpr size_t before = sizeof(nlmsghdr) + sizeof(ndmsg);
  if (message.size() < before) return std::nullopt;
  const auto header = copy_out<nlmsghdr>(message);
  if (header.nlmsg_type != RTM_NEWNEIGH && header.nlmsg_type != RTM_DELNEIGH) return std::nullopt;
  if (header.nlmsg_len < before || header.nlmsg_len > message.size()) return std::nullopt;
  const auto fixed = copy_out<ndmsg>(message.subspan(sizeof(nlmsghdr)));
  if (fixed.ndm_family != AF_INET || fixed.ndm_ifindex <= 0) return std::nullopt;

  Neighbor neighbor{.id = {.ifindex = static_cast<uint32_t>(fixed.ndm_ifindex)}};
  bool has_address = false;
  Attributes attributes(message.subspan(before, header.nlmsg_len - before));
  uint16_t type = 0;
  for (Bytes payload; attributes.next(type, payload);) {
    if (type == NDA_DST) neighbor.id.addr = attributes.address(payload);
    if (type != NDA_LLADDR || payload.size() != neighbor.address.size()) continue;
    std::ranges::transform(payload, neighbor.address.begin(), [](std::byte b) { return std::to_integer<uint8_t>(b); });
    has_address = true;
  }
  if (attributes.refusal() || neighbor.id.addr == 0) return std::nullopt;
  const bool is_removed = header.nlmsg_type == RTM_DELNEIGH;
  neighbor.state = is_removed ? NeighborState::unknown : state_of(fixed.ndm_state, has_address);
  return neighbor;
}

}  // namespace ipd::kernel
