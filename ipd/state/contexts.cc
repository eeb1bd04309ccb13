// SPDX-License-Identifier: Apache-2.0
// Contexts come from three sides: "default" is always there; every VRF device of the kernel is one, under the device's
// name and with its table; and a rule of the configuration that has interface patterns is one even where the kernel
// knows nothing of it. A rule without patterns only says more (id, router id) about the VRF device of its name.
//
// The name is a context's identity: a VRF device that is renamed is another context. What the kernel says about a table
// beats what a rule says.
#include "ipd/state/contexts.h"

#include <fnmatch.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ipd {
namespace {

const ContextRule *rule_of(const Configuration &configuration, const std::string &name) {
  for (const ContextRule &rule : configuration.contexts) {
    if (rule.name == name) return &rule;
  }
  return nullptr;
}

void add(ContextPlan &plan, ContextState context) {
  plan.ids[context.name] = context.id;
  plan.contexts[context.id] = std::move(context);
}

std::set<uint32_t> configured_ids(const Configuration &configuration) {
  std::set<uint32_t> ids{default_context_id};
  for (const ContextRule &rule : configuration.contexts) ids.insert(rule.id);
  return ids;
}

bool matches(const ContextRule &rule, const std::string &interface) {
  for (const std::string &pattern : rule.interfaces) {
    if (fnmatch(pattern.c_str(), interface.c_str(), 0) == 0) return true;
  }
  return false;
}

}  // namespace

void ContextIds::load() {
  FILE *stream = file_.empty() ? nullptr : fopen(file_.c_str(), "re");
  if (stream == nullptr) return;
  uint32_t id = 0;
  char name[36];
  std::set<uint32_t> used;
  while (fscanf(stream, "%u %35s", &id, name) == 2) {
    if (id > default_context_id && id <= 0x7fffffffu && used.insert(id).second) ids_.try_emplace(name, id);
  }
  fclose(stream);
}

uint32_t ContextIds::allot(const std::string &name, const std::set<uint32_t> &reserved) {
  const auto known = ids_.find(name);
  if (known != ids_.end() && !reserved.contains(known->second)) return known->second;
  std::set<uint32_t> taken = reserved;
  for (const auto &[other, id] : ids_) taken.insert(id);
  uint32_t id = default_context_id + 1;
  while (taken.contains(id)) ++id;
  ids_[name] = id;
  changed_ = true;
  return id;
}

bool ContextIds::save(std::string *reason) {
  if (!changed_ || file_.empty()) return true;
  const std::string fresh = file_ + ".new";
  FILE *stream = fopen(fresh.c_str(), "we");
  bool written = stream != nullptr;
  if (written) {
    for (const auto &[name, id] : ids_) written = written && fprintf(stream, "%u %s\n", id, name.c_str()) > 0;
    written = fclose(stream) == 0 && written;
  }
  if (!written || rename(fresh.c_str(), file_.c_str()) != 0) {
    *reason = file_ + ": " + strerror(errno);
    unlink(fresh.c_str());
    return false;
  }
  changed_ = false;
  return true;
}

ContextPlan plan_contexts(const Configuration &configuration, const std::map<uint32_t, kernel::LinkMessage> &vrfs,
                          ContextIds &ids) {
  ContextPlan plan;
  const std::set<uint32_t> reserved = configured_ids(configuration);
  const ContextRule *default_rule = rule_of(configuration, default_context_name);
  uint32_t router_id = configuration.router_id;
  if (default_rule != nullptr && default_rule->router_id != 0) router_id = default_rule->router_id;
  add(plan, {.id = default_context_id, .name = default_context_name, .table_id = main_table, .router_id = router_id});

  for (const ContextRule &rule : configuration.contexts) {
    if (rule.interfaces.empty()) continue;
    const uint32_t id = rule.id != 0 ? rule.id : ids.allot(rule.name, reserved);
    add(plan, {.id = id, .name = rule.name, .table_id = rule.table, .router_id = rule.router_id});
  }
  for (const auto &[ifindex, link] : vrfs) {
    const auto known = plan.ids.find(link.name);
    if (known != plan.ids.end()) {
      plan.of_vrf[ifindex] = known->second;
      if (known->second != default_context_id) plan.contexts[known->second].table_id = link.vrf_table;
      continue;
    }
    const ContextRule *rule = rule_of(configuration, link.name);
    const uint32_t id = rule != nullptr && rule->id != 0 ? rule->id : ids.allot(link.name, reserved);
    if (rule != nullptr && rule->table != 0 && rule->table != link.vrf_table) {
      plan.remarks.push_back("context " + link.name + ": the VRF device has table " + std::to_string(link.vrf_table) +
                             ", which is used instead of the configured " + std::to_string(rule->table));
    }
    add(plan,
        {.id = id, .name = link.name, .table_id = link.vrf_table, .router_id = rule == nullptr ? 0 : rule->router_id});
    plan.of_vrf[ifindex] = id;
  }
  return plan;
}

uint32_t context_of(const kernel::LinkMessage &link, const ContextPlan &plan, const Configuration &configuration) {
  if (const auto own = plan.of_vrf.find(link.ifindex); own != plan.of_vrf.end()) return own->second;
  if (const auto vrf = plan.of_vrf.find(link.master); vrf != plan.of_vrf.end()) return vrf->second;
  for (const ContextRule &rule : configuration.contexts) {
    if (matches(rule, link.name)) return plan.ids.at(rule.name);
  }
  return default_context_id;
}

}  // namespace ipd
