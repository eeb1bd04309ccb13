// SPDX-License-Identifier: Apache-2.0
// The interface table, the writer's side.
//
// An interface is known by its ifindex; it keeps its iod for as long as it stays, and a rename or any other change is
// one store of its record word. A new interface becomes visible in the order record, order word, ifindex index, list;
// it goes in the order list, index, extensions, record, so whoever still holds its iod finds nothing there.
//
// An iod that was removed waits until every reader that could hold it has left the lock and a minute has passed; then
// it is given again before any fresh number, the lowest first, so that iods stay small. Only when the fresh numbers
// have run out, the minute is waived for the one that waits longest.
//
// A writer that takes the table over trusts the records and nothing else: the previous one may have died between two
// stores. It keeps the records, builds the ifindex index anew, and mends the list from its end to its front, so that a
// reader on its way loses nothing. Extension words stay: the components' own records are theirs to judge.
#include "im/im_writer.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <set>

#include "im/im_table.h"
#include "pt/word_index_writer.h"
#include "sm/make_room.h"

namespace rsw {
namespace {

using im::Record;
using im::Table;
using Clock = std::chrono::steady_clock;

constexpr RecordType record_type = 1;
constexpr RecordType first_index_type = 2;
constexpr uint32_t most_index_log2 = 18;
constexpr std::chrono::seconds iod_rest{60};

std::vector<RecordTypeInfo> record_types() {
  std::vector<RecordTypeInfo> types = {
      {.type = record_type, .size = sizeof(Record), .align = 64, .memory_type = 0, .name = "interface record"}};
  const std::vector<RecordTypeInfo> index = word_index_types(first_index_type, most_index_log2, 0);
  types.insert(types.end(), index.begin(), index.end());
  return types;
}

void fill(Record &record, const ImInterface &interface) {
  const uint32_t flags = (interface.up ? im::flag_up : 0) | (interface.admin_up ? im::flag_admin_up : 0) |
                         (interface.loopback ? im::flag_loopback : 0);
  char name[im::name_size] = {};
  memcpy(name, interface.name.data(), std::min<size_t>(interface.name.size(), im::name_size - 1));
  fill_word(record.ifindex, interface.ifindex);
  fill_word(record.flags, flags);
  fill_word(record.mtu, interface.mtu);
  fill_word(record.context_id, interface.context_id);
  fill_word(record.table_id, interface.table_id);
  for (uint32_t i = 0; i < im::name_size / 4; ++i) {
    uint32_t word;
    memcpy(&word, name + 4 * i, sizeof word);
    fill_word(record.name[i], word);
  }
}

ImInterface read(const Record &record) {
  const char *name = reinterpret_cast<const char *>(record.name);
  return {.ifindex = record.ifindex,
          .name = std::string(name, strnlen(name, im::name_size - 1)),
          .up = (record.flags & im::flag_up) != 0,
          .admin_up = (record.flags & im::flag_admin_up) != 0,
          .loopback = (record.flags & im::flag_loopback) != 0,
          .mtu = record.mtu,
          .context_id = record.context_id,
          .table_id = record.table_id};
}

class Writer final : public ImWriter {
 public:
  Writer(Epochs &epochs, std::shared_ptr<SegmentMap> segment, std::unique_ptr<Arena> arena, Table *table)
      : epochs_(epochs),
        segment_(std::move(segment)),
        arena_(std::move(arena)),
        table_(table),
        index_(*arena_, first_index_type, most_index_log2, &table->index,
               [this](const WordIndexWriter::Sink &sink) {
                 for (const auto &[ifindex, iod] : iods_) sink(ifindex, 0, iod * 4);
               }),
        now_(Clock::now()) {
    if (table_->iods_used == 0) fill_word(table_->iods_used, 1);
  }

  void take_over(const ArenaLimits &limits);

  uint32_t set(const ImInterface &interface) override;
  void remove(uint32_t iod) override;
  [[nodiscard]] uint32_t find(uint32_t ifindex) const override {
    const auto found = iods_.find(ifindex);
    return found != iods_.end() ? found->second : 0;
  }
  [[nodiscard]] const ImInterface *get(uint32_t iod) const override {
    const auto found = interfaces_.find(iod);
    return found != interfaces_.end() ? &found->second : nullptr;
  }
  [[nodiscard]] std::vector<uint32_t> iods() const override {
    std::vector<uint32_t> result;
    for (const auto &[order, iod] : order_) result.push_back(iod);
    return result;
  }
  void set_extension(uint32_t iod, uint32_t component, void *record) override;
  [[nodiscard]] void *extension(uint32_t iod, uint32_t component) const override;
  bool publish_name(std::string *reason) override { return segment_->publish_name(reason); }
  void publish_generation() override { segment_->publish_generation(); }
  void tick(Clock::time_point now) override;
  [[nodiscard]] std::vector<RecordTypeUse> use() const override { return arena_->use(); }

 private:
  struct Resting {
    uint32_t iod;
    uint32_t epoch;
    Clock::time_point since;
  };

  uint32_t take_iod();
  bool swing_record(uint32_t iod, const ImInterface &interface);
  void link(uint32_t iod, uint32_t order);
  void unlink(uint32_t order);
  [[nodiscard]] uint32_t in_front_of(uint32_t order) const;

  Epochs &epochs_;
  std::shared_ptr<SegmentMap> segment_;
  std::unique_ptr<Arena> arena_;
  Table *table_;
  std::map<uint32_t, uint32_t> iods_;           // by ifindex
  std::map<uint32_t, ImInterface> interfaces_;  // by iod
  std::map<uint32_t, uint32_t> order_;          // order word -> iod
  std::deque<Resting> resting_;                 // oldest first
  std::set<uint32_t> free_;                     // rested
  WordIndexWriter index_;
  Clock::time_point now_;
};

void Writer::take_over(const ArenaLimits &limits) {
  const uint32_t end = std::min(table_->iods_used, im::iod_limit);
  publish_word(table_->index, 0);  // until the new one stands, readers look through the records
  const uint32_t epoch = epochs_.advance(Domain::database);
  for (uint32_t iod = 1; iod < end; ++iod) {
    const uint32_t address = table_->record[iod];
    Record *record = at_address<Record>(address);
    const bool keep =
        address != 0 && arena_->adopt(record_type, record) && record->ifindex != 0 && !iods_.contains(record->ifindex);
    if (!keep) {
      for (auto &extension : table_->extension) publish_word(extension[iod], 0);
      publish_word(table_->record[iod], 0);
      if (table_->order[iod] != 0) resting_.push_back({iod, epoch, now_});
      if (table_->order[iod] == 0) free_.insert(iod);
      continue;
    }
    ImInterface interface = read(*record);
    const uint32_t order = im::order_of(interface.ifindex, interface.loopback);
    publish_word(table_->order[iod], order);
    order_.emplace(order, iod);
    iods_.emplace(interface.ifindex, iod);
    interfaces_.emplace(iod, std::move(interface));
  }
  uint32_t behind = 0;
  for (auto entry = order_.rbegin(); entry != order_.rend(); ++entry) {
    if (table_->next[entry->second] != behind) publish_word(table_->next[entry->second], behind);
    behind = entry->second;
  }
  if (table_->next[0] != behind) publish_word(table_->next[0], behind);
  // Readers have been led away already: to the records, by the index's word.
  make_room(*segment_, *arena_, limits, "interfaces are found by a search", [] {});
  index_.fill();
  arena_->retire_unadopted();
}

uint32_t Writer::take_iod() {
  if (!free_.empty()) return free_.extract(free_.begin()).value();
  const uint32_t fresh = table_->iods_used;
  if (fresh < im::iod_limit) {
    publish_word(table_->iods_used, fresh + 1);
    return fresh;
  }
  if (resting_.empty() || !epochs_.passed(Domain::database, resting_.front().epoch)) return 0;
  const uint32_t iod = resting_.front().iod;
  resting_.pop_front();
  return iod;
}

bool Writer::swing_record(uint32_t iod, const ImInterface &interface) {
  Record *record = static_cast<Record *>(arena_->allocate(record_type));
  if (record == nullptr) return false;
  fill(*record, interface);
  Record *old = at_address<Record>(table_->record[iod]);
  // Release: the record's words stand before its address does; partner: record_of.
  publish_word(table_->record[iod], address_of(record));
  if (old != nullptr) arena_->retire(record_type, old);
  return true;
}

// The iod behind which that order word comes; 0: the front.
uint32_t Writer::in_front_of(uint32_t order) const {
  const auto behind = order_.lower_bound(order);
  return behind == order_.begin() ? 0 : std::prev(behind)->second;
}

void Writer::link(uint32_t iod, uint32_t order) {
  const uint32_t previous = in_front_of(order);
  fill_word(table_->order[iod], order);
  fill_word(table_->next[iod], table_->next[previous]);
  // Release: the iod's own words stand before the list leads there; partner: step() in im.cc.
  publish_word(table_->next[previous], iod);
  order_.emplace(order, iod);
}

void Writer::unlink(uint32_t order) {
  const auto found = order_.find(order);
  const uint32_t iod = found->second;
  order_.erase(found);
  publish_word(table_->next[in_front_of(order)], table_->next[iod]);
}

uint32_t Writer::set(const ImInterface &interface) {
  if (interface.ifindex == 0 || interface.ifindex >= im::order_not_loopback) return 0;
  ImInterface wanted = interface;
  if (wanted.name.size() >= im::name_size) wanted.name.resize(im::name_size - 1);
  const uint32_t order = im::order_of(wanted.ifindex, wanted.loopback);
  if (const uint32_t known = find(wanted.ifindex)) {
    ImInterface &present = interfaces_.at(known);
    if (present == wanted) return known;
    if (!swing_record(known, wanted)) return 0;
    if (present.loopback != wanted.loopback) {
      unlink(im::order_of(present.ifindex, present.loopback));
      link(known, order);
    }
    present = std::move(wanted);
    return known;
  }
  const uint32_t iod = take_iod();
  if (iod == 0) return 0;
  if (!swing_record(iod, wanted)) {
    free_.insert(iod);
    return 0;
  }
  iods_.emplace(wanted.ifindex, iod);
  fill_word(table_->order[iod], order);
  index_.insert(wanted.ifindex, 0, iod * 4);
  link(iod, order);
  interfaces_.emplace(iod, std::move(wanted));
  return iod;
}

void Writer::remove(uint32_t iod) {
  const auto found = interfaces_.find(iod);
  if (found == interfaces_.end()) return;
  const ImInterface &interface = found->second;
  unlink(im::order_of(interface.ifindex, interface.loopback));
  iods_.erase(interface.ifindex);
  index_.erase(interface.ifindex, 0);
  for (auto &extension : table_->extension) {
    if (extension[iod] != 0) publish_word(extension[iod], 0);
  }
  Record *record = at_address<Record>(table_->record[iod]);
  publish_word(table_->record[iod], 0);
  arena_->retire(record_type, record);
  interfaces_.erase(found);
  resting_.push_back({iod, epochs_.advance(Domain::database), now_});
}

void Writer::set_extension(uint32_t iod, uint32_t component, void *record) {
  if (!interfaces_.contains(iod) || component == 0) return;
  uint32_t slot = im::slot_of(*table_, component);
  if (slot == im::extension_slots) {
    for (uint32_t i = 0; i < im::extension_slots && slot == im::extension_slots; ++i) {
      const uint32_t candidate = (component + i) % im::extension_slots;
      if (table_->components[candidate] == 0) slot = candidate;
    }
    if (slot == im::extension_slots) return;
    publish_word(table_->components[slot], component);
  }
  // Release: the component's record stands before its address does; partner: lcache_im_get_extension1.
  publish_word(table_->extension[slot][iod], address_of(record));
}

void *Writer::extension(uint32_t iod, uint32_t component) const {
  const uint32_t slot = im::slot_of(*table_, component);
  if (!interfaces_.contains(iod) || component == 0 || slot == im::extension_slots) return nullptr;
  return at_address<void>(table_->extension[slot][iod]);
}

void Writer::tick(Clock::time_point now) {
  now_ = std::max(now_, now);
  while (!resting_.empty() && now_ - resting_.front().since >= iod_rest &&
         epochs_.passed(Domain::database, resting_.front().epoch)) {
    free_.insert(resting_.front().iod);
    resting_.pop_front();
  }
  arena_->tick(now);
}

}  // namespace

std::unique_ptr<ImWriter> ImWriter::open(Epochs &epochs, std::string *reason, ArenaLimits limits) {
  std::shared_ptr<SegmentMap> segment = SegmentMap::create(segment_im, reason);
  if (segment == nullptr) return nullptr;
  const uint32_t base = segment->layout().base;
  if (!segment->grow(base + im::arena_offset, reason)) return nullptr;
  const std::vector<RecordTypeInfo> types = record_types();
  std::unique_ptr<Arena> arena =
      Arena::open(segment, epochs, Domain::database, im::arena_offset, types, limits, reason);
  if (arena == nullptr) return nullptr;
  Table *table = at_address<Table>(base + im::table_offset);
  auto writer = std::make_unique<Writer>(epochs, segment, std::move(arena), table);
  if (segment->took_over()) writer->take_over(limits);
  publish_word(segment->header()->root, base + im::table_offset);
  return writer;
}

}  // namespace rsw
