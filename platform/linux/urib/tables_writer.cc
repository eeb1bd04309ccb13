// SPDX-License-Identifier: Apache-2.0
// Tables come and go: the directory, the list and the index that lead to a table, and the shortcut that lookups begin
// at. Each is one store; what it led to before is retired afterwards.
#include "urib/tables_writer.h"

#include "urib/attachment.h"

namespace rsw::urib {

// The table, a new one if there is none. Null: no room.
TableWriter *TablesWriter::make_table(uint32_t id) {
  const auto present = tables_.find(id);
  if (present != tables_.end()) return &present->second;
  Change change(*arena_);
  auto *body = change.allocate<Body>(body_type);
  auto *table = change.allocate<Table>(table_type);
  if (table == nullptr) return nullptr;
  fill_word(table->id, id);
  fill_word(table->body, address_of(body));
  const auto entry = tables_.emplace(id, TableWriter(*arena_, table, body)).first;
  const auto next = std::next(entry);
  fill_word(table->next, next == tables_.end() ? 0 : address_of(next->second.table));
  // Release: the table stands before its address does; partner: body_at() and find_table().
  publish_word(entry == tables_.begin() ? directory_->first : std::prev(entry)->second.table->next, address_of(table));
  if (id < small_tables) {
    publish_word(directory_->small[id], address_of(table));
  } else {
    index_.insert(id, 0, address_of(table));
  }
  change.done();
  return &entry->second;
}

// What lookups look at first. Records that go with a shortcut are retired by then, and live on until the next tick.
void TablesWriter::publish_shortcut(uint32_t id, const TableWriter &table) {
  if (!committed_ || id >= small_tables || shortcuts().regions[id] == table.body->unicast.regions) return;
  // Release: the shortcut stands before its address does; partner: shortcut_of().
  publish_word(shortcuts().regions[id], table.body->unicast.regions);
}

void TablesWriter::unlink(uint32_t id) {
  const auto entry = tables_.find(id);
  TableWriter table = std::move(entry->second);
  const auto next = std::next(entry);
  publish_word(entry == tables_.begin() ? directory_->first : std::prev(entry)->second.table->next,
               next == tables_.end() ? 0 : address_of(next->second.table));
  tables_.erase(entry);
  if (id < small_tables) {
    if (committed_) publish_word(shortcuts().regions[id], 0);
    publish_word(directory_->small[id], 0);
  } else {
    index_.erase(id, 0);
  }
  drop_attributes(table);
  table.discard(true);
  arena_->retire(body_type, table.body);
  arena_->retire(table_type, table.table);
}

void TablesWriter::remove_if_empty(uint32_t id) {
  const TableWriter &table = tables_.at(id);
  if (table.unicast.size() == 0 && table.multicast.size() == 0) unlink(id);
}

bool TablesWriter::remove_table(uint32_t id) {
  if (tables_.contains(id)) unlink(id);
  return true;
}

bool TablesWriter::commit() {
  if (!committed_) {
    // Release: everything stands before the directory's address does; partner: directory() of attachment.h.
    publish_word(segment_->header()->root, address_of(directory_));
    for (uint32_t id = 0; id < small_tables; ++id) {
      const auto entry = tables_.find(id);
      publish_word(shortcuts().regions[id], entry == tables_.end() ? 0 : entry->second.body->unicast.regions);
    }
    if (!segment_->publish_name(&error_)) return false;
    arena_->retire_unadopted();
    committed_ = true;
  }
  segment_->publish_generation();
  return true;
}

UribUse TablesWriter::use() const {
  UribUse answer{.tables = static_cast<uint32_t>(tables_.size()),
                 .routes = 0,
                 .lookup_bytes = 0,
                 .route_bytes = 0,
                 .segment_bytes = segment_->header()->used_end - segment_->layout().base};
  for (const auto &[id, table] : tables_) answer.routes += table.unicast.size() + table.multicast.size();
  for (const RecordTypeUse &type : arena_->use()) {
    const uint64_t bytes = type.live * type.info.size;
    const Purpose purpose = purpose_of(type.info.type);
    if (purpose == Purpose::search) answer.lookup_bytes += bytes;
    if (purpose == Purpose::route) answer.route_bytes += bytes;
  }
  return answer;
}

}  // namespace rsw::urib
