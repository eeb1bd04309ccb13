// SPDX-License-Identifier: Apache-2.0
// Questions about routes: the lookups, and what is read out of a route.
//
// A handle is the address of a RouteWord. Lookups hand out what a search found unread, so that a lookup costs no more
// than the search; who reads out of a handle checks it, as each word on the way to it.
#include "urib.h"

#include "urib/attachment.h"
#include "urib/hops.h"

namespace {

using namespace rsw;
using namespace rsw::urib;

void *handle_of(uint32_t word) {
  return at_address<void>(word);
}

// Null for null, for a damaged handle, and for what never was one.
const Attributes *attributes_of(void *route) {
  const auto address = reinterpret_cast<uintptr_t>(route);
  return address > UINT32_MAX ? nullptr : attributes_at(static_cast<uint32_t>(address));
}

bool is_of_kind(void *route, RouteKind kind) {
  const Attributes *attributes = attributes_of(route);
  return attributes != nullptr && load_kind(*attributes) == kind;
}

// The next hop that a selector picks; null: none.
const NextHop *picked(void *route, uint32_t selector) {
  const Attributes *attributes = attributes_of(route);
  const NextHops *hops = attributes == nullptr ? nullptr : next_hops_of(*attributes);
  return hops == nullptr ? nullptr : pick(*hops, selector, false);
}

// The longest match by the shortcut that a word leads to, at the moment at which the slot, the place or `above` was
// read: a node that was replaced meanwhile says what was true when that happened. Where one word or byte does not say
// it all, what the other search answers.
template <class Otherwise>
void *quick(uint32_t shortcut, uint32_t addr, Otherwise otherwise) {
  if (!leads_to<Regions, 64>(shortcut)) [[unlikely]]
    return otherwise();
  // Acquire, as at each swung word: what it leads to; partner: TrieWriter's stores.
  const uint32_t block = observe_word(at_address<const Regions>(shortcut)->region[addr >> (32 - region_bits)].block);
  if (!leads_to<Block, 64>(block)) return otherwise();
  const uint32_t slot =
      observe_word(at_address<const Block>(block)->slot[addr >> (32 - direct_level) & (block_slots - 1)]);
  uint32_t named = slot ^ slot_route;
  if ((slot & slot_route) == 0) [[likely]] {
    if (!leads_to<DirectNode, node_align>(slot)) return otherwise();
    const auto *node = at_address<const DirectNode>(slot);
    const uint8_t place = __atomic_load_n(&node->place[bits_at(addr, direct_level)], __ATOMIC_ACQUIRE);
    if (place < place_ask_tree) [[likely]]
      return handle_of(slot + static_cast<uint32_t>(offsetof(DirectNode, row)) + 4u * place);
    if (place == place_ask_tree) return otherwise();
    named = observe_word(node->node.above);
  }
  return named != 0 && (named & ask_tree) == 0 ? handle_of(named) : otherwise();
}

// Beside the short way, so that this one needs no frame.
[[gnu::noinline]] void *best_of_tree(uint32_t table, uint32_t addr) {
  const Body *body = body_of(table);
  return body == nullptr ? nullptr : handle_of(answered(*body, best_word(*body, body->unicast, addr)));
}

}  // namespace

extern "C" {

void *urib_get_best_route(uint32_t table, uint32_t addr, uint32_t, uint32_t) {
  return quick(shortcut_of(table), addr, [table, addr] { return best_of_tree(table, addr); });
}

void *urib_get_best_direct_route(uint32_t table, uint32_t addr) {
  const Body *body = body_of(table);
  if (body == nullptr) return nullptr;
  return quick(observe_word(body->direct.regions), addr,
               [body, addr] { return handle_of(best_word(*body, body->direct, addr)); });
}

void *urib_get_route(uint32_t table, uint32_t addr, uint32_t len) {
  if (len > 32 || (addr & ~mask_of(len)) != 0) return nullptr;
  const Body *body = body_of(table);
  return body == nullptr ? nullptr : handle_of(answered(*body, exact_word(body->unicast, addr, len)));
}

void *urib_get_mbest_route_for_prefix(uint32_t table, uint32_t addr, uint32_t len, uint32_t, uint32_t) {
  if (len > 32) return nullptr;
  const Body *body = body_of(table);
  return body == nullptr ? nullptr : handle_of(answered(*body, best_rpf_match(*body, addr, len).word));
}

uint32_t urib_is_route_attached(void *route) {
  return is_of_kind(route, RouteKind::attached) ? 1 : 0;
}

uint32_t urib_is_route_local(void *route) {
  return is_of_kind(route, RouteKind::local) ? 1 : 0;
}

uint32_t urib_is_route_mstatic(void *route) {
  return is_of_kind(route, RouteKind::multicast_static) ? 1 : 0;
}

uint32_t urib_route_first_bnh_iod_get(void *route) {
  const Attributes *attributes = attributes_of(route);
  return attributes == nullptr ? 0 : load_word(attributes->first_iod);
}

uint32_t urib_route_first_bnh_nib_data_get(void *route) {
  const Attributes *attributes = attributes_of(route);
  return attributes == nullptr ? 0 : load_word(attributes->first_data);
}

uint32_t urib_route_mbnh_iod_get(void *route, uint32_t selector) {
  const NextHop *hop = picked(route, selector);
  return hop == nullptr ? 0 : load_word(hop->iod);
}

uint32_t urib_route_mbnh_addr_get(void *route, uint32_t selector) {
  const NextHop *hop = picked(route, selector);
  return hop == nullptr ? 0 : load_word(hop->addr);
}

}  // extern "C"
