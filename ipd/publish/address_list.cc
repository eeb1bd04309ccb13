// SPDX-License-Identifier: Apache-2.0
// An interface's addresses as readers walk them: from ip_iftype.addr_list along `next`, the primary address first.
//
// Order. Primaries stand before secondaries. A new primary goes behind the last primary whose scope value is at least
// its own, which is the kernel's rule: so primaries stand in descending order of scope value (host, link, global),
// equals in order of arrival. Secondaries stand in order of arrival. One 64-bit number says it all (address_place), and
// an ordered map of these numbers gives the neighbours of any place in O(log n).
//
// Every change is one store. Insertion: the new record's `next` is filled in first, then the word that leads to it is
// stored. Removal: the word that leads to the record is stored over it; the record's own `next` stays, since a reader
// may stand on it and has to find its way on. So a walk finds each address that is there throughout; one that is taken
// away behind the walk and added again in front of it is met twice, which only a count could tell. Moving an address
// (the kernel promoted a secondary) must show the address at every moment and exactly once: the records between the old
// and the new place are copied in their new order, with the moved one among them, and the word before them is swung to
// the copies. That costs the distance moved, in records of 16 bytes, and is the one change of an address that is not
// O(log n).
#include "ipd/publish/address_list.h"

#include <algorithm>
#include <vector>

namespace ipd {
namespace {

constexpr uint64_t secondary_bit = uint64_t{1} << 63;
constexpr unsigned scope_shift = 55;

// The word that leads to the address behind `before`: the head of the list, or the `next` of the one in front.
ip_shm_ptr<ip_addrtype> &word_before(Interface &interface, std::map<uint64_t, Address *>::iterator position) {
  if (position == interface.list.begin()) return interface.record->addr_list;
  return std::prev(position)->second->record->next;
}

}  // namespace

uint64_t address_place(const AddressState &state, uint64_t arrival) {
  const uint64_t sequence = arrival & ((uint64_t{1} << scope_shift) - 1);
  if (state.secondary) return secondary_bit | sequence;
  return (uint64_t{255u - state.scope} << scope_shift) | sequence;
}

void fill_address(ip_addrtype &record, const AddressState &state) {
  // Relaxed, but atomic: a walk that takes no lock may stand on a record of this memory that was retired long ago; it
  // reads the old word or the new one. Who gets here by the list is served by the release store that links the record.
  __atomic_store_n(&record.addr, state.addr, __ATOMIC_RELAXED);
  __atomic_store_n(&record.mask_len, state.mask_len, __ATOMIC_RELAXED);
}

void link_address(Interface &interface, Address &address) {
  const auto position = interface.list.emplace(address.place, &address).first;
  const auto behind = std::next(position);
  address.record->next = behind == interface.list.end() ? nullptr : behind->second->record;
  // Release (in the assignment): publishes the record with its `next`; partner: the walk's load of this word.
  word_before(interface, position) = address.record;
}

void unlink_address(Interface &interface, Address &address) {
  const auto position = interface.list.find(address.place);
  const auto behind = std::next(position);
  word_before(interface, position) = behind == interface.list.end() ? nullptr : behind->second->record;
  interface.list.erase(position);
}

bool move_address(rsw::Arena &arena, Interface &interface, Address &address, uint64_t place) {
  const auto here = interface.list.find(address.place);
  const auto there = interface.list.lower_bound(place);  // the first behind the new place
  if (there == here || there == std::next(here)) {
    interface.list.erase(here);
    address.place = place;
    interface.list.emplace(place, &address);
    return true;
  }

  const bool forward = place < address.place;  // towards the head
  const auto first = forward ? there : here;
  const auto end = forward ? std::next(here) : there;
  std::vector<Address *> span;
  for (auto each = first; each != end; ++each) span.push_back(each->second);
  std::vector<ip_addrtype *> copies;
  for (size_t i = 0; i < span.size(); ++i) {
    auto *copy = static_cast<ip_addrtype *>(arena.allocate(address_record));
    if (copy == nullptr) {
      for (ip_addrtype *unused : copies) arena.give_back(address_record, unused);
      return false;
    }
    copies.push_back(copy);
  }
  if (forward) {
    std::rotate(span.begin(), span.end() - 1, span.end());
  } else {
    std::rotate(span.begin(), span.begin() + 1, span.end());
  }
  for (size_t i = 0; i < span.size(); ++i) {
    fill_address(*copies[i], span[i]->state);
    if (i > 0) copies[i - 1]->next = copies[i];
  }
  copies.back()->next = end == interface.list.end() ? nullptr : end->second->record;
  // Release (in the assignment): publishes the copies, one for each record that they stand for; partner: as above.
  word_before(interface, first) = copies.front();

  for (size_t i = 0; i < span.size(); ++i) {
    arena.retire(address_record, span[i]->record);
    span[i]->record = copies[i];
  }
  interface.list.erase(here);
  address.place = place;
  interface.list.emplace(place, &address);
  return true;
}

}  // namespace ipd
