// SPDX-License-Identifier: Apache-2.0
// Contexts as readers walk them: from ip_root.contexts along `next`, in ascending order of id, so that "default", which
// has id 1 and gets most of the questions, comes first.
//
// A client may keep the address of a context record (the lookups hand it out), so a record stays where it is for the
// life of its context, whatever restarts of ipd lie in between: a new ipd adopts the list that it finds. A rename is
// the one exception: 36 characters cannot be changed by one store, so a renamed context gets a new record in the old
// one's place.
//
// Like everywhere, a change is one store of the word that leads to the record, and a removed record keeps its `next`
// for the readers that stand on it.
#include "ipd/publish/context_list.h"

#include <cstring>
#include <iterator>

namespace ipd {

void ContextList::adopt(rsw::Arena &arena) {
  uint32_t previous_id = 0;
  ip_shm_ptr<ip_api_context_type> *word = &root_->contexts;
  while (ip_api_context_type *record = word->get()) {
    // adopt() comes first: it says whether this is the address of a context record at all.
    if (!arena.adopt(context_record, record) || record->context_id <= previous_id ||
        std::memchr(record->name, 0, sizeof record->name) == nullptr) {
      *word = nullptr;
      return;
    }
    previous_id = record->context_id;
    records_.emplace(previous_id, record);
    word = &record->next;
  }
}

ip_api_context_type *ContextList::find(uint32_t id) const {
  const auto position = records_.find(id);
  return position == records_.end() ? nullptr : position->second;
}

std::vector<uint32_t> ContextList::ids() const {
  std::vector<uint32_t> result;
  for (const auto &[id, record] : records_) result.push_back(id);
  return result;
}

void ContextList::insert(ip_api_context_type *record) {
  const auto position = records_.emplace(record->context_id, record).first;
  record->next = record_behind(records_, position);
  // Release (in the assignment): publishes the record; partner: the load of this word in a walk. The same below.
  word_before(position) = record;
}

void ContextList::replace(ip_api_context_type *record) {
  const auto position = records_.find(record->context_id);
  record->next = record_behind(records_, position);
  position->second = record;
  word_before(position) = record;
}

void ContextList::remove(uint32_t id) {
  const auto position = records_.find(id);
  word_before(position) = record_behind(records_, position);
  records_.erase(position);
}

ip_shm_ptr<ip_api_context_type> &ContextList::word_before(Records::iterator position) {
  return position == records_.begin() ? root_->contexts : std::prev(position)->second->next;
}

ip_api_context_type *ContextList::record_behind(const Records &records, Records::iterator position) {
  const auto behind = std::next(position);
  return behind == records.end() ? nullptr : behind->second;
}

}  // namespace ipd
