// SPDX-License-Identifier: Apache-2.0
// Contexts: their records, their trees, their router ids.
#include <cstring>

#include "ipd/publish/segment_publisher.h"

namespace ipd {
namespace {

void set_name(ip_api_context_type &record, const std::string &name) {
  std::memset(record.name, 0, sizeof record.name);
  std::memcpy(record.name, name.data(), name.size());
}

}  // namespace

bool SegmentPublisher::set_context(const ContextState &state) {
  if (state.id == 0) return refuse("0 is not a context id");
  if (state.name.empty() || state.name.size() >= IP_CONTEXT_NAME_SIZE || state.name.find('\0') != std::string::npos) {
    return refuse("context name \"", state.name, "\" is not 1 to 35 characters long");
  }
  if (const auto taken = context_names_.find(state.name); taken != context_names_.end() && taken->second != state.id) {
    return refuse("context name ", state.name, " belongs to context ", std::to_string(taken->second));
  }
  Context *context = find_context(state.id);
  if (context == nullptr) return add_context(state);

  if (context->state.name != state.name && !rename_context(*context, state.name)) return false;
  if (context->state.table_id != state.table_id) change_table(*context, state.table_id);
  if (context->state.router_id != state.router_id) {
    context->state.router_id = state.router_id;
    router_ids_due_.insert(context);
    changed_ = true;
  }
  return true;
}

bool SegmentPublisher::add_context(const ContextState &state) {
  auto *record = static_cast<ip_api_context_type *>(arena_->allocate(context_record));
  if (record == nullptr) return refuse_for_storage("context " + state.name);
  auto tree = rsw::PtWriter::create(*arena_);
  if (tree == nullptr) {
    arena_->give_back(context_record, record);
    return refuse_for_storage("the addresses of context " + state.name);
  }
  if (!live_) tree->hold();  // nobody looks at it yet: loading leaves no garbage behind
  record->context_id = state.id;
  record->table_id = state.table_id;
  record->local_pt = tree->handle();
  set_name(*record, state.name);

  Context &context = contexts_[state.id];
  context.state = state;
  context.record = record;
  context.tree = std::move(tree);
  context_names_.emplace(state.name, state.id);
  choose_router_id(context);  // the configured one is there from the start
  if (live_) context_list_.insert(record);
  changed_ = true;
  return true;
}

bool SegmentPublisher::rename_context(Context &context, const std::string &name) {
  ip_api_context_type *old = context.record;
  if (context_list_.find(context.state.id) == old) {
    auto *record = static_cast<ip_api_context_type *>(arena_->allocate(context_record));
    if (record == nullptr) return refuse_for_storage("context " + name);
    record->context_id = old->context_id;
    record->table_id = old->table_id;
    record->local_pt = old->local_pt.get();
    record->router_id = old->router_id;
    record->router_id_iod = old->router_id_iod;
    set_name(*record, name);
    context_list_.replace(record);
    context.record = record;
    arena_->retire(context_record, old);
  } else {
    set_name(*old, name);  // nobody has seen it
  }
  context_names_.erase(context.state.name);
  context_names_.emplace(name, context.state.id);
  context.state.name = name;
  changed_ = true;
  return true;
}

void SegmentPublisher::change_table(Context &context, uint32_t table_id) {
  context.state.table_id = table_id;
  store_shared(context.record->table_id, table_id);
  for (const uint32_t ifindex : context.interfaces) set_in_table(interfaces_.at(ifindex).state, context);
  changed_ = true;
}

bool SegmentPublisher::remove_context(uint32_t id) {
  Context *context = find_context(id);
  if (context == nullptr) return true;
  if (!context->interfaces.empty()) {
    return refuse("context ", context->state.name, " has ", std::to_string(context->interfaces.size()), " interfaces");
  }
  if (context_list_.find(id) == context->record) {
    context_list_.remove(id);
    // A client may have kept the record's address: for it, the context has no addresses from now on.
    context->record->local_pt = nullptr;
    arena_->retire(context_record, context->record);
  } else {
    arena_->give_back(context_record, context->record);
  }
  bury_abandoned(*arena_, *context);
  for (const uint64_t key : context->abandoned)
    arena_->retire(prefix_record(key_len(key)), context->prefixes.at(key).record);
  context->tree->retire_all();
  context_names_.erase(context->state.name);
  router_ids_due_.erase(context);
  contexts_.erase(id);
  changed_ = true;
  return true;
}

// The configured router id, else the highest address of a loopback interface, else the highest address at all: never
// one in 127/8, never a virtual one, whatever the state of the interface, so that the router id does not change with a
// link.
void SegmentPublisher::choose_router_id(Context &context) {
  const bool configured = context.state.router_id != 0;
  const bool loopback = !configured && !context.loopback_addresses.empty();
  uint32_t router_id = 0;
  if (configured) {
    router_id = context.state.router_id;
  } else if (loopback) {
    router_id = *context.loopback_addresses.rbegin();
  } else if (!context.addresses.empty()) {
    router_id = *context.addresses.rbegin();
  }

  uint32_t iod = 0;
  const auto prefix = context.prefixes.find(prefix_key(router_id, 32));
  if (router_id != 0 && prefix != context.prefixes.end()) {
    for (const Claim *claim = prefix->second.first; claim != nullptr && iod == 0; claim = claim->next) {
      if (claim->addresses != 0 && (!loopback || claim->holder->state.loopback)) iod = claim->holder->iod;
    }
  }
  // Two words, two questions: no question reads both.
  store_shared(context.record->router_id, router_id);
  store_shared(context.record->router_id_iod, iod);
}

}  // namespace ipd
