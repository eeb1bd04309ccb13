// SPDX-License-Identifier: Apache-2.0
// The interface table, the reader's side.
//
// One word of the table says everything about an interface: the address of an immutable record that the writer replaces
// by one store. So each answer is of one moment, with no lock; the record a reader is looking at rests for at least the
// arena's quarantine after it was replaced.
//
// Order: a list through the `next` words, in ascending `order` words. A removed iod keeps both, so a walk that stands
// on it goes on: its `next` names what stood behind it when it was removed. That may have been removed as well by now,
// and given to another interface, with another place. Hence the rule of a step: the answer's order is greater than that
// of the iod the caller came from. When the `next` word does not lead to such an iod, the step looks for the place from
// the front of the list. Every loop over the steps is strictly ascending and therefore ends, on damaged memory too.
#include "im.h"

#include <algorithm>
#include <cstring>

#include "im/attachment.h"
#include "im/im_table.h"
#include "im/im_writer.h"

namespace rsw::im {
namespace {

uint32_t flags_of(uint32_t iod) {
  const Record *record = record_of(attached_table(), iod);
  return record != nullptr ? load_word(record->flags) : 0;
}

// The first present iod behind `previous` in order that is wanted(iod); 0: none.
template <class Wanted>
uint32_t step(const Table &table, uint32_t previous, Wanted wanted) {
  if (previous >= iod_limit) return 0;
  const uint32_t start = load_word(table.order[previous]);
  if (previous != 0 && start == 0) return 0;  // never was an interface
  uint32_t iod = previous;
  uint32_t order = start;
  bool from_front = false;
  for (uint32_t steps = 0; steps < 2 * iod_limit; ++steps) {
    // Acquire: the words of the iod that it names; partner: the writer's store that links it in.
    const uint32_t next = observe_word(table.next[iod]);
    if (next == 0) return 0;
    if (next >= iod_limit) return 0;
    const uint32_t next_order = load_word(table.order[next]);
    if (next_order <= order) {  // the iod was given to an interface in another place
      if (from_front) return 0;
      from_front = true;
      iod = 0;
      order = 0;
      continue;
    }
    iod = next;
    order = next_order;
    if (order > start && record_of(&table, iod) != nullptr && wanted(iod)) return iod;
  }
  return 0;
}

}  // namespace
}  // namespace rsw::im

using namespace rsw;

void *lcache_im_get_extension1(uint32_t iod, uint32_t component) {
  const im::Table *table = im::attached_table();
  if (table == nullptr || iod >= im::iod_limit) return nullptr;
  const uint32_t slot = im::slot_of(*table, component);
  if (slot == im::extension_slots) return nullptr;
  // Acquire: the component's record; partner: the store in ImWriter::set_extension.
  const uint32_t address = observe_word(table->extension[slot][iod]);
  return is_readable(address) ? at_address<void>(address & ~3u) : nullptr;
}

uint32_t lcache_im_get_if_mtu(uint32_t iod) {
  const im::Record *record = im::record_of(im::attached_table(), iod);
  return record != nullptr ? load_word(record->mtu) : 0;
}

uint32_t im_get_iod_frm_ifindex(uint32_t ifindex, uint32_t *iod) {
  const im::Table *table = im::attached_table();
  if (table == nullptr || ifindex == 0) return 1;
  // Acquire: the array behind the word; partner: the store of a fresh array in WordIndexWriter.
  const uint32_t value = word_index_find(observe_word(table->index), ifindex, 0);
  uint32_t found = value / 4;
  if (value == word_index_not_known) {
    // Not every entry has a place in the index; the records say it all.
    const uint32_t end = std::min(load_word(table->iods_used), im::iod_limit);
    for (found = 1; found < end; ++found) {
      const im::Record *record = im::record_of(table, found);
      if (record != nullptr && load_word(record->ifindex) == ifindex) break;
    }
    if (found >= end) return 1;
  }
  if (found == 0 || found >= im::iod_limit) return 1;
  *iod = found;
  return 0;
}

uint32_t im_get_next_ext_if(uint32_t prev, uint32_t component) {
  const im::Table *table = im::attached_table();
  if (table == nullptr) return 0;
  const uint32_t slot = im::slot_of(*table, component);
  if (slot == im::extension_slots) return 0;
  return im::step(*table, prev, [&](uint32_t iod) { return load_word(table->extension[slot][iod]) != 0; });
}

uint32_t im_is_if_up(uint32_t iod) {
  return (im::flags_of(iod) & im::flag_up) != 0 ? 1 : 0;
}

uint32_t im_is_adminup(uint32_t iod) {
  return (im::flags_of(iod) & im::flag_admin_up) != 0 ? 1 : 0;
}

const char *im_get_if_name(uint32_t iod) {
  const im::Record *record = im::record_of(im::attached_table(), iod);
  if (record == nullptr) return nullptr;
  const char *name = reinterpret_cast<const char *>(record->name);
  return __atomic_load_n(&name[im::name_size - 1], __ATOMIC_RELAXED) == 0 ? name : nullptr;
}

namespace rsw {

bool im_view(uint32_t iod, ImView *view) {
  const im::Record *record = im::record_of(im::attached_table(), iod);
  if (record == nullptr) return false;
  const uint32_t flags = load_word(record->flags);
  view->iod = iod;
  view->ifindex = load_word(record->ifindex);
  view->up = (flags & im::flag_up) != 0;
  view->admin_up = (flags & im::flag_admin_up) != 0;
  view->loopback = (flags & im::flag_loopback) != 0;
  view->mtu = load_word(record->mtu);
  view->context_id = load_word(record->context_id);
  view->table_id = load_word(record->table_id);
  for (uint32_t i = 0; i < im::name_size / 4; ++i) {
    const uint32_t word = load_word(record->name[i]);
    memcpy(view->name + 4 * i, &word, sizeof word);
  }
  view->name[im::name_size - 1] = 0;
  return true;
}

uint32_t im_next_iod(uint32_t previous) {
  const im::Table *table = im::attached_table();
  if (table == nullptr) return 0;
  return im::step(*table, previous, [](uint32_t) { return true; });
}

}  // namespace rsw
