// SPDX-License-Identifier: Apache-2.0
// The nodes of a context's local-address tree and the interfaces that hold them.
//
// Which nodes. Each local address has a node of 32 bits; each subnet of a connected prefix shorter than 32 bits has a
// node of its length. A node is there exactly as long as at least one interface claims it. An interface claims a subnet
// once for each of its addresses in it, and an address once for each mask length that it has it with and once for a
// virtual address, so claims count; the shared list names the interface once.
//
// Shared form. node -> info {iod_list, vip} -> element {iod, next} -> ... in order of arrival: the first element is the
// answer to most questions. The first element of a list always lies inside its info, and the first info of a node lies
// inside the node's record, all in one cache line.
//
// Changes, one store each, so that no question sees half of one:
//   first claim      the node is complete before the tree shows it;
//   one more holder  the last element's `next`;
//   a holder less    the `next` of the element in front;
//   the first holder less   a new info with a copy of the second element and the new vip word is built aside, and the
//                    node's info word is swung to it. Old info and second element rest until no reader is left on them.
//                    The elements behind belong to the old list and to the new one alike;
//   vip              the word itself. When a claim brings both a holder and the first virtual address, the holder comes
//                    first (nobody looks behind the first element for an answer), when it takes both away, it goes
//                    last, or with the new info;
//   last claim       the tree drops the node. Should there be no storage for that, the node loses its info, which is
//   the
//                    same to every question, and is taken out later (bury_abandoned).
//
// Beside it stands what a router id may be taken from: the addresses of a context, outside 127/8, that at least one
// interface has configured (a virtual address does not count), and among them those of loopback interfaces, as ordered
// sets.
#include "ipd/publish/prefix_claims.h"

namespace ipd {
namespace {

constexpr bool counts_for_router_id(uint64_t key) {
  return key_len(key) == 32 && (key_network(key) >> 24) != 127 && key_network(key) != 0;
}

void note_configured(Context &context, Prefix &prefix, const Interface &interface, bool add) {
  const uint32_t step = add ? 1 : ~0u;
  prefix.configured += step;
  if (interface.state.loopback) prefix.configured_loopback += step;
  if (!counts_for_router_id(prefix.key)) return;
  const uint32_t addr = key_network(prefix.key);
  if (prefix.configured == 0) {
    context.addresses.erase(addr);
  } else {
    context.addresses.insert(addr);
  }
  if (prefix.configured_loopback == 0) {
    context.loopback_addresses.erase(addr);
  } else {
    context.loopback_addresses.insert(addr);
  }
}

// The vip word follows the count of claims; untouched when it says so already (readers have the line in their caches).
void update_vip(Prefix &prefix) {
  const uint32_t vip = prefix.vips != 0 ? 1 : 0;
  if (prefix.info->info.vip != vip) store_shared(prefix.info->info.vip, vip);
}

// An info that nobody sees yet: its own element first, then `rest`.
void fill_info(PrefixInfo &info, uint32_t iod, IodElement *rest, bool vip) {
  info.first.element.iod = iod;
  info.first.next = rest;
  info.info.vip = vip ? 1 : 0;
  info.info.iod_list = &info.first.element;
}

// The tree's node for a prefix that nobody held so far. Null: no storage.
Prefix *make_prefix(rsw::Arena &arena, Context &context, uint64_t key, uint32_t iod, bool vip) {
  auto *record = static_cast<PrefixRecord *>(arena.allocate(prefix_record(key_len(key))));
  if (record == nullptr) return nullptr;
  fill_info(record->own, iod, nullptr, vip);
  record->node.info = &record->own.info;
  if (!context.tree->insert(record, key_network(key), key_len(key))) {
    arena.give_back(prefix_record(key_len(key)), record);
    return nullptr;
  }
  Prefix &prefix = context.prefixes[key];
  prefix = Prefix{.key = key,
                  .record = record,
                  .info = &record->own,
                  .first = nullptr,
                  .last = nullptr,
                  .vips = 0,
                  .configured = 0,
                  .configured_loopback = 0};
  return &prefix;
}

// An abandoned node speaks again; its own info may still have readers. False: no storage, nothing changed.
bool revive(rsw::Arena &arena, Context &context, Prefix &prefix, uint32_t iod, bool vip) {
  auto *info = static_cast<PrefixInfo *>(arena.allocate(info_record));
  if (info == nullptr) return false;
  fill_info(*info, iod, nullptr, vip);
  // Release (in the assignment): publishes the info; partner: the reader's load of node.info.
  prefix.record->node.info = &info->info;
  prefix.info = info;
  context.abandoned.erase(prefix.key);
  return true;
}

void append_claim(Prefix &prefix, Claim &claim) {
  claim.prefix = &prefix;
  claim.previous = prefix.last;
  claim.next = nullptr;
  (prefix.last == nullptr ? prefix.first : prefix.last->next) = &claim;
  prefix.last = &claim;
}

void unlink_claim(Prefix &prefix, Claim &claim) {
  (claim.previous == nullptr ? prefix.first : claim.previous->next) = claim.next;
  (claim.next == nullptr ? prefix.last : claim.next->previous) = claim.previous;
}

void retire_info(rsw::Arena &arena, Prefix &prefix) {
  // The info inside the record goes with the record.
  if (prefix.info != nullptr && prefix.info != &prefix.record->own) arena.retire(info_record, prefix.info);
}

// Nobody holds the prefix any more. A tree needs storage to lose a node; without it the node stays and says nothing.
void take_out(rsw::Arena &arena, Context &context, Prefix &prefix) {
  const uint64_t key = prefix.key;
  if (context.tree->erase(key_network(key), key_len(key)) != nullptr) {
    retire_info(arena, prefix);
    arena.retire(prefix_record(key_len(key)), prefix.record);
    context.abandoned.erase(key);
    context.prefixes.erase(key);
    return;
  }
  // Release (in the assignment); partner: the reader's load of node.info.
  prefix.record->node.info = nullptr;
  retire_info(arena, prefix);
  prefix.info = nullptr;
  context.abandoned.insert(key);
}

// The interface's last hold on the prefix is gone.
void drop_claim(rsw::Arena &arena, Context &context, Claims &claims, Claims::iterator position) {
  Claim &claim = position->second;
  Prefix &prefix = *claim.prefix;
  if (claim.previous == nullptr && claim.next == nullptr) {
    claims.erase(position);
    prefix.first = prefix.last = nullptr;
    take_out(arena, context, prefix);
    return;
  }
  if (claim.previous != nullptr) {
    update_vip(prefix);
    // Release (in the assignment); partner: a walk of the list.
    claim.previous->element->next = claim.element->next.get();
    arena.retire(iod_record, claim.element);
  } else {
    Claim &second = *claim.next;
    auto *info = static_cast<PrefixInfo *>(arena.allocate(info_record));
    if (info != nullptr) {
      fill_info(*info, second.element->element.iod, second.element->next.get(), prefix.vips != 0);
      // Release (in the assignment): publishes the new info with its first element; partner: the reader's load of
      // node.info.
      prefix.record->node.info = &info->info;
      retire_info(arena, prefix);
      prefix.info = info;
      arena.retire(iod_record, second.element);
      second.element = &info->first;
    } else {
      // No storage for the new info. The iod word of the first element becomes the second's, so that the answer is
      // right; the list shows the second holder twice until its own element is unlinked by the next store.
      store_shared(claim.element->element.iod, second.element->element.iod);
      update_vip(prefix);
      claim.element->next = second.element->next.get();
      arena.retire(iod_record, second.element);
      second.element = claim.element;
    }
  }
  unlink_claim(prefix, claim);
  claims.erase(position);
}

}  // namespace

bool claim_prefix(rsw::Arena &arena, Context &context, Interface &interface, Claims &claims, uint64_t key,
                  ClaimKind kind) {
  const bool vip = kind == ClaimKind::vip;
  auto position = claims.find(key);
  if (position == claims.end()) {
    Claim claim{.prefix = nullptr,
                .holder = &interface,
                .addresses = 0,
                .vips = 0,
                .element = nullptr,
                .previous = nullptr,
                .next = nullptr};
    const auto known = context.prefixes.find(key);
    Prefix *prefix = known == context.prefixes.end() ? nullptr : &known->second;
    if (prefix == nullptr) {
      prefix = make_prefix(arena, context, key, interface.iod, vip);
      if (prefix == nullptr) return false;
      claim.element = &prefix->record->own.first;
    } else if (prefix->first == nullptr) {
      if (!revive(arena, context, *prefix, interface.iod, vip)) return false;
      claim.element = &prefix->info->first;
    } else {
      claim.element = static_cast<IodElement *>(arena.allocate(iod_record));
      if (claim.element == nullptr) return false;
      claim.element->element.iod = interface.iod;
      // Release (in the assignment): publishes the element; partner: a walk of the list.
      prefix->last->element->next = claim.element;
    }
    position = claims.emplace(key, claim).first;
    append_claim(*prefix, position->second);
  }
  Claim &claim = position->second;
  Prefix &prefix = *claim.prefix;
  if (vip) {
    if (claim.vips++ == 0) ++prefix.vips;
    update_vip(prefix);
  } else if (claim.addresses++ == 0) {
    note_configured(context, prefix, interface, true);
  }
  return true;
}

void release_prefix(rsw::Arena &arena, Context &context, Claims &claims, uint64_t key, ClaimKind kind) {
  const auto position = claims.find(key);
  if (position == claims.end()) return;
  Claim &claim = position->second;
  Prefix &prefix = *claim.prefix;
  if (kind == ClaimKind::vip) {
    if (--claim.vips == 0) --prefix.vips;
  } else if (--claim.addresses == 0) {
    note_configured(context, prefix, *claim.holder, false);
  }
  if (claim.addresses == 0 && claim.vips == 0) {
    drop_claim(arena, context, claims, position);
  } else {
    update_vip(prefix);
  }
}

void bury_abandoned(rsw::Arena &arena, Context &context) {
  const std::set<uint64_t> keys = context.abandoned;
  for (const uint64_t key : keys) take_out(arena, context, context.prefixes.at(key));
}

void release_all_prefixes(rsw::Arena &arena, Context &context, Claims &claims) {
  while (!claims.empty()) {
    const auto position = claims.begin();
    Claim &claim = position->second;
    if (claim.vips != 0) --claim.prefix->vips;
    if (claim.addresses != 0) note_configured(context, *claim.prefix, *claim.holder, false);
    drop_claim(arena, context, claims, position);
  }
}

bool claim_address(rsw::Arena &arena, Context &context, Interface &interface, Claims &claims,
                   const AddressState &address) {
  const uint64_t host = prefix_key(address.addr, 32);
  if (!claim_prefix(arena, context, interface, claims, host, ClaimKind::address)) return false;
  if (address.mask_len == 32) return true;
  const uint64_t subnet = prefix_key(network_of(address.addr, address.mask_len), address.mask_len);
  if (claim_prefix(arena, context, interface, claims, subnet, ClaimKind::address)) return true;
  release_prefix(arena, context, claims, host, ClaimKind::address);
  return false;
}

void release_address(rsw::Arena &arena, Context &context, Claims &claims, const AddressState &address) {
  if (address.mask_len < 32) {
    const uint64_t subnet = prefix_key(network_of(address.addr, address.mask_len), address.mask_len);
    release_prefix(arena, context, claims, subnet, ClaimKind::address);
  }
  release_prefix(arena, context, claims, prefix_key(address.addr, 32), ClaimKind::address);
}

void count_loopback_claims(Context &context, Interface &interface, bool add) {
  for (auto &[key, claim] : interface.claims) {
    if (claim.addresses != 0) note_configured(context, *claim.prefix, interface, add);
  }
}

}  // namespace ipd
