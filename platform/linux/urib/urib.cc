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

}  // namespace

extern "C" {

void *urib_get_best_route(uint32_t table, uint32_t addr, uint32_t, uint32_t) {
  const Body *body = body_of(table);
  return body == nullptr ? nullptr : handle_of(answered(*body, best_word(*body, body->unicast, addr)));
}

void *urib_get_best_direct_route(uint32_t table, uint32_t addr) {
  const Body *body = body_of(table);
  return body == nullptr ? nullptr : handle_of(best_word(*body, body->direct, addr));
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
