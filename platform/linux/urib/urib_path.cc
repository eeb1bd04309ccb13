// SPDX-License-Identifier: Apache-2.0
// The way of a destination: from route to route until one names the interface.
//
// At each step the longest match is taken that has a live next hop, or says that there is none for good; a route all of
// whose next hops are inactive gives way to the next shorter one. Among several next hops the destination decides, so
// that all of its packets go one way, and other destinations another. A way that has not ended after 16 steps never
// will.
#include <syslog.h>

#include "urib.h"
#include "urib/attachment.h"
#include "urib/hops.h"

namespace rsw::urib {
namespace {

// Neighbouring destinations differ in few bits; all of them shall count.
uint32_t hash_of(uint32_t addr) {
  uint32_t hash = addr * 0x9e3779b1u;
  hash = (hash ^ hash >> 15) * 0x85ebca6bu;
  return hash ^ hash >> 13;
}

// The step from (table, addr); attributes null: nothing matches.
Step step_from(const Body &body, uint32_t table, uint32_t addr, uint32_t selector) {
  for (uint32_t most = 32;; --most) {
    const Match match = best_match(body, body.unicast, addr, most);
    const Attributes *attributes = attributes_at(match.word);
    if (attributes == nullptr || load_action(*attributes) == RouteAction::pass_on) return {table, addr, {}, {}, {}, {}};
    const NextHops *hops = next_hops_of(*attributes);
    const NextHop *hop = hops == nullptr ? nullptr : pick(*hops, selector, true);
    if (hop != nullptr || hops == nullptr) return {table, addr, match, attributes, hops, hop};
    if (match.len == 0) return {table, addr, {}, {}, {}, {}};
    most = match.len;
  }
}

}  // namespace

const NextHop *pick(const NextHops &hops, uint32_t selector, bool only_live) {
  const uint32_t count = load_count(hops);
  uint32_t total = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (!only_live || is_live(hops.hop[i])) total += load_weight(hops.hop[i]);
  }
  if (total == 0) return nullptr;
  uint32_t left = selector % total;
  for (uint32_t i = 0; i < count; ++i) {
    if (only_live && !is_live(hops.hop[i])) continue;
    const uint32_t weight = load_weight(hops.hop[i]);
    if (left < weight) return &hops.hop[i];
    left -= weight;
  }
  return nullptr;  // the words changed meanwhile: damaged memory
}

uint32_t resolve(uint32_t table, uint32_t addr, Step (&steps)[most_path_steps]) {
  const uint32_t selector = hash_of(addr);
  uint32_t count = 0;
  while (count < most_path_steps) {
    const Body *body = body_of(table);
    if (body == nullptr) break;
    const Step step = step_from(*body, table, addr, selector);
    if (step.attributes == nullptr) break;
    steps[count++] = step;
    if (step.hop == nullptr || load_word(step.hop->iod) != 0) break;
    if (const uint32_t other = load_word(step.hop->table); other != 0) table = other;
    if (const uint32_t gateway = load_word(step.hop->addr); gateway != 0) addr = gateway;
  }
  return count;
}

}  // namespace rsw::urib

uint32_t urib_get_path_v2(uint32_t table, uint32_t addr, uint32_t, uint32_t, uint32_t, struct urib_path *path,
                          uint32_t *r1, uint32_t *r2, uint32_t) {
  using namespace rsw;
  using namespace rsw::urib;
  Step steps[most_path_steps];
  urib_acquire_rdlock();
  const uint32_t count = resolve(table, addr, steps);
  const Step *last = count == 0 ? nullptr : &steps[count - 1];
  const NextHop *hop = last == nullptr ? nullptr : last->hop;
  const uint32_t iod = hop == nullptr ? 0 : load_word(hop->iod);
  if (iod != 0) {
    const uint32_t gateway = load_word(hop->addr);
    path->iod = iod;
    path->table_id = last->table;
    // A neighbour that an earlier step named is the next hop, when the last route says only which subnet it is on.
    path->next_hop = gateway != 0 || last->addr == addr ? gateway : last->addr;
    *r1 = count;
    *r2 = static_cast<uint32_t>(load_kind(*last->attributes));
  }
  urib_release_rdlock();
  return iod != 0 ? 1 : 0;
}
