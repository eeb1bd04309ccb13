// SPDX-License-Identifier: Apache-2.0
// What ipd publishes, and when a reader sees it.
//
// Structure. The segment "/rsw/shm/ip" holds the root at a fixed place, the list of contexts, each context's tree of
// local addresses, and one record per interface with its list of addresses; the interface table in "/rsw/shm/im" leads
// from an iod to the interface's record. The publisher keeps its own picture of all this (picture.h), compares each
// setter's argument with it, and stores what differs.
//
// Invariant. Every answer was true at some time. Each record is complete before the one release store that shows it;
// each question looks at one list or one tree and finds it before or after a change, never amid one. The steps of a
// change that touches several structures stand, in order, with each setter. Nothing is half done: what can fail for
// lack of storage is allocated before the first visible step, or undone by the steps in reverse; a refused change can
// be tried again. The one thing a reader may have seen of a refused address is the address itself, which the kernel
// has.
//
// When. Once the first commit has been made, a change is visible as soon as its setter returns. commit() then adds what
// is computed once per batch, the router ids, counts the generation so that who waits for news looks again, and reports
// memory.
//
// Life. Before the first commit everything is built out of sight: trees that no context points to, interface records
// that no extension word points to, contexts that are not in the list. On a new segment nobody is there to see anything
// anyway; after a take-over, clients are attached and go on with what the previous ipd left, whole and unchanged, until
// the first commit swings each context's tree word and each interface's extension word to the new state, one after the
// other. Only the interface table is kept up at once: it is the same table, an interface that is in it keeps its iod,
// and the new iods are needed for the elements of the trees. Then the first commit removes the contexts and interfaces
// that nobody set again, and lets go of all memory that it did not adopt, which is everything but the context records
// and the statistics blocks: counters go on from where they stood (publisher_multicast.cc). The exception is a window
// without room for that: then readers find contexts and interfaces without addresses until the first commit
// (sm/make_room.h).
//
// The publisher's destructor touches nothing: a stopped ipd leaves its state for its clients, as a killed one does.
#include "ipd/publish/publisher.h"

#include "ipd/publish/segment_publisher.h"
#include "mtrack/mtrack_writer.h"
#include "probe.h"
#include "sm/make_room.h"

namespace ipd {

std::unique_ptr<Publisher> Publisher::open(std::string *reason, std::chrono::milliseconds quarantine) {
  auto own_epochs = rsw::Epochs::open(reason);
  if (own_epochs == nullptr) return nullptr;
  // A name of its own: arguments are evaluated in no particular order, and the move may come first.
  rsw::Epochs &epochs = *own_epochs;
  return SegmentPublisher::open(epochs, std::move(own_epochs), reason, quarantine);
}

std::unique_ptr<Publisher> Publisher::open(rsw::Epochs &epochs, std::string *reason,
                                           std::chrono::milliseconds quarantine) {
  return SegmentPublisher::open(epochs, nullptr, reason, quarantine);
}

std::unique_ptr<Publisher> SegmentPublisher::open(rsw::Epochs &epochs, std::unique_ptr<rsw::Epochs> own_epochs,
                                                  std::string *reason, std::chrono::milliseconds quarantine) {
  auto segment = rsw::SegmentMap::create(rsw::segment_ip, reason);
  if (segment == nullptr) return nullptr;
  const uint32_t base = segment->header()->base;
  if (!segment->grow(base + arena_offset, reason)) return nullptr;

  std::vector<rsw::RecordTypeInfo> types(record_types.begin(), record_types.end());
  for (const rsw::RecordTypeInfo &type : rsw::pt_types(memory_local_address)) types.push_back(type);
  const rsw::ArenaLimits limits{.quarantine = quarantine};
  auto arena = rsw::Arena::open(segment, epochs, rsw::Domain::database, arena_offset, types, limits, reason);
  if (arena == nullptr) return nullptr;
  auto interface_table = rsw::ImWriter::open(epochs, reason);
  if (interface_table == nullptr) return nullptr;
  auto publisher = std::make_unique<SegmentPublisher>(std::move(own_epochs), std::move(segment), std::move(arena),
                                                      std::move(interface_table));
  publisher->make_room(limits);
  return publisher;
}

SegmentPublisher::SegmentPublisher(std::unique_ptr<rsw::Epochs> own_epochs, std::shared_ptr<rsw::SegmentMap> segment,
                                   std::unique_ptr<rsw::Arena> arena, std::unique_ptr<rsw::ImWriter> interface_table)
    : own_epochs_(std::move(own_epochs)),
      segment_(std::move(segment)),
      arena_(std::move(arena)),
      interface_table_(std::move(interface_table)),
      root_(reinterpret_cast<ip_root *>(static_cast<uintptr_t>(segment_->header()->base + root_offset))),
      context_list_(root_) {
  if (segment_->took_over()) {
    context_list_.adopt(*arena_);
    inherit_counters();
  }
  // Release: whoever finds the root through the header finds it initialised; partner: the load in sm_open.
  store_shared(segment_->header()->root, segment_->header()->base + root_offset);
}

void SegmentPublisher::make_room(const rsw::ArenaLimits &limits) {
  rsw::make_room(*segment_, *arena_, limits, "no addresses are served", [this] { withdraw_unadopted(); });
}

// Contexts, interfaces and counters stay for readers, and for the next publisher if this one does not get to its first
// commit; words that lead to anything else become 0. Release (in the assignments), as all of these words.
void SegmentPublisher::withdraw_unadopted() {
  for (const uint32_t previous_iod : interface_table_->iods()) {
    const auto position = inherited_.find(interface_table_->get(previous_iod)->ifindex);
    if (position == inherited_.end()) {
      interface_table_->set_extension(previous_iod, IP_COMPONENT, nullptr);
      continue;
    }
    ip_iftype &record = *position->second.record;
    record.addr_list = nullptr;
    record.group_list = nullptr;
    record.unnum_data = nullptr;
    store_shared(record.unnum_src_iod, 0);
    store_shared(record.vaddr_count, 0);
    record.stats = reinterpret_cast<uint8_t *>(position->second.statistics);
  }
  for (const uint32_t id : context_list_.ids()) context_list_.find(id)->local_pt = nullptr;
}

Interface *SegmentPublisher::find_interface(uint32_t ifindex) {
  const auto position = interfaces_.find(ifindex);
  return position == interfaces_.end() ? nullptr : &position->second;
}

Context *SegmentPublisher::find_context(uint32_t id) {
  const auto position = contexts_.find(id);
  return position == contexts_.end() ? nullptr : &position->second;
}

uint32_t SegmentPublisher::iod(uint32_t ifindex) const {
  const auto position = interfaces_.find(ifindex);
  return position == interfaces_.end() ? 0 : position->second.iod;
}

bool SegmentPublisher::commit() {
  RSW_PROBE(ipd, publish_begin);
  const bool done = commit_changes();
  RSW_PROBE3(ipd, publish_end, segment_->header()->generation, interfaces_.size(), contexts_.size());
  return done;
}

bool SegmentPublisher::commit_changes() {
  for (Context *context : router_ids_due_) choose_router_id(*context);
  router_ids_due_.clear();
  if (!live_) {
    first_commit();
    std::string reason;
    // The interface table first: who finds the database finds the table as well.
    if (!interface_table_->publish_name(&reason)) return refuse("interface table: ", reason);
    if (!segment_->publish_name(&reason)) return refuse("database: ", reason);
    forget_inherited();
    arena_->retire_unadopted();
    live_ = true;
    changed_ = true;
  }
  if (changed_) {
    segment_->publish_generation();
    interface_table_->publish_generation();
    report_memory();
    changed_ = false;
  }
  return true;
}

// May be repeated when the names could not be published.
void SegmentPublisher::first_commit() {
  for (const uint32_t id : context_list_.ids()) {
    if (contexts_.contains(id)) continue;
    ip_api_context_type *record = context_list_.find(id);
    context_list_.remove(id);
    record->local_pt = nullptr;
    arena_->retire(context_record, record);
  }
  for (auto &[id, context] : contexts_) commit_context(context);
  publish_load_share();

  for (auto &[ifindex, interface] : interfaces_) {
    interface_table_->set_extension(interface.iod, IP_COMPONENT, interface.record);
    interface.published = true;
  }
  for (const uint32_t iod_of_previous : interface_table_->iods()) {
    const uint32_t ifindex = interface_table_->get(iod_of_previous)->ifindex;
    if (interfaces_.contains(ifindex)) continue;
    interface_table_->set_extension(iod_of_previous, IP_COMPONENT, nullptr);
    interface_table_->remove(iod_of_previous);
  }
}

// Into the list, or the new state into the record that is there.
void SegmentPublisher::commit_context(Context &context) {
  context.tree->publish();
  ip_api_context_type *inherited = context_list_.find(context.state.id);
  if (inherited == context.record) return;
  if (inherited == nullptr) {
    context_list_.insert(context.record);
    return;
  }
  if (context.state.name != inherited->name) {
    context_list_.replace(context.record);
    arena_->retire(context_record, inherited);
    return;
  }
  store_shared(inherited->table_id, context.record->table_id);
  store_shared(inherited->router_id, context.record->router_id);
  store_shared(inherited->router_id_iod, context.record->router_id_iod);
  // Release (in the assignment): publishes the whole tree; partner: a question's load of local_pt.
  inherited->local_pt = context.record->local_pt.get();
  arena_->give_back(context_record, context.record);
  context.record = inherited;
}

void SegmentPublisher::tick(std::chrono::steady_clock::time_point now) {
  arena_->tick(now);
  for (auto &[id, context] : contexts_) {
    if (!context.abandoned.empty()) bury_abandoned(*arena_, context);
  }
  interface_table_->tick(now);
}

// Records in use, by the memory types that the IP component registers; records that rest before their next use are the
// arena's, not the component's.
void SegmentPublisher::report_memory() {
  std::array<uint64_t, memory_types> blocks{};
  std::array<uint64_t, memory_types> bytes{};
  for (const rsw::RecordTypeUse &use : arena_->use()) {
    blocks[use.info.memory_type] += use.live;
    bytes[use.info.memory_type] += use.live * use.info.size;
  }
  for (uint32_t type = 0; type < memory_types; ++type) {
    if (blocks[type] == reported_blocks_[type]) continue;
    reported_blocks_[type] = blocks[type];
    rsw::mtrack_shared_set(IP_COMPONENT, type, blocks[type], bytes[type]);
  }
}

PublisherUse SegmentPublisher::use() const {
  const rsw::SegmentHeader *header = segment_->header();
  uint64_t segment_bytes = header->used_end - header->base;
  for (const rsw::RecordTypeUse &use : interface_table_->use()) {
    segment_bytes += (use.live + use.retired + use.free) * use.info.size;
  }
  return PublisherUse{.contexts = static_cast<uint32_t>(contexts_.size()),
                      .interfaces = static_cast<uint32_t>(interfaces_.size()),
                      .addresses = address_count_,
                      .segment_bytes = segment_bytes};
}

}  // namespace ipd
