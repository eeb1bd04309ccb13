// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/show.h"

#include <algorithm>
#include <vector>

#include "ip_show.h"
#include "ipd/control/show_page.h"

namespace ipd::control {
namespace {

constexpr size_t room = show_room;

static_assert(refusal_count == IP_SHOW_OUTCOMES);
static_assert(static_cast<uint32_t>(Refusal::none) == IP_SHOW_DONE);
static_assert(static_cast<uint32_t>(Refusal::too_short) == IP_SHOW_TOO_SHORT);
static_assert(static_cast<uint32_t>(Refusal::too_long) == IP_SHOW_TOO_LONG);
static_assert(static_cast<uint32_t>(Refusal::wrong_major) == IP_SHOW_WRONG_MAJOR);
static_assert(static_cast<uint32_t>(Refusal::unknown_minor) == IP_SHOW_UNKNOWN_MINOR);
static_assert(static_cast<uint32_t>(Refusal::wrong_opcode) == IP_SHOW_WRONG_OPCODE);
static_assert(static_cast<uint32_t>(Refusal::bad_field) == IP_SHOW_BAD_FIELD);
static_assert(static_cast<uint32_t>(Refusal::no_interface) == IP_SHOW_NO_INTERFACE);
static_assert(static_cast<uint32_t>(Refusal::not_allowed) == IP_SHOW_NOT_ALLOWED);
static_assert(static_cast<uint32_t>(Refusal::name_taken) == IP_SHOW_NAME_TAKEN);
static_assert(static_cast<uint32_t>(Refusal::not_registered) == IP_SHOW_NOT_REGISTERED);
static_assert(static_cast<uint32_t>(Refusal::limit) == IP_SHOW_LIMIT);
static_assert(static_cast<uint32_t>(Refusal::kernel) == IP_SHOW_KERNEL);
static_assert(static_cast<uint32_t>(Refusal::no_answer) == IP_SHOW_NO_ANSWER);

std::vector<ip_show_client> clients_after(const Service &service, uint32_t after) {
  std::vector<ip_show_client> entries;
  const auto &senders = service.senders();
  const auto behind = senders.upper_bound(static_cast<int32_t>(std::min<uint32_t>(after, INT32_MAX)));
  for (auto each = behind; each != senders.end() && entries.size() <= room / sizeof(ip_show_client); ++each) {
    const auto &[pid, sender] = *each;
    const Holdings held = service.holdings(pid);
    entries.push_back({.pid = static_cast<uint32_t>(pid),
                       .uid = sender.uid,
                       .received = sender.received,
                       .refused = sender.refused,
                       .registrations = held.registrations,
                       .memberships = held.memberships,
                       .loans = held.loans,
                       .downloads = held.downloads,
                       .link_local_reports = held.link_local_reports,
                       .link_local_ref = held.link_local_ref,
                       .link_local_value = held.link_local_value,
                       .reserved44 = 0});
  }
  return entries;
}

std::vector<ip_show_registration> registrations_after(const Clients &clients, uint32_t after) {
  std::vector<ip_show_registration> entries;
  for (const Registration &registration : clients.after(after, room / sizeof(ip_show_registration) + 1)) {
    ip_show_registration entry{};
    entry.serial = registration.serial;
    entry.pid = static_cast<uint32_t>(registration.pid);
    entry.uid = registration.uid;
    entry.reg_mode = registration.mode;
    entry.reg_arg1 = registration.arg1;
    entry.reg_arg2 = registration.arg2;
    entry.data_sap = registration.data_sap;
    entry.flags = registration.flags;
    entry.reg_key = registration.key;
    copy_show_text(entry.name, registration.name);
    copy_show_text(entry.recv_fn, registration.receive_function);
    entries.push_back(entry);
  }
  return entries;
}

std::vector<ip_show_message> messages_after(const Service &service, uint32_t after) {
  std::vector<ip_show_message> entries;
  for (const auto &[minor, counts] : service.counts()) {
    ip_show_message entry{};
    entry.order = uint32_t{minor} + 1;
    if (entry.order <= after) continue;
    entry.minor = minor;
    const MessageKind *kind = find_message(minor);
    copy_show_text(entry.name, kind == nullptr ? "others" : kind->name);
    for (size_t i = 0; i < refusal_count; ++i) set_show_count(entry.counts[i], counts.by_outcome[i]);
    entries.push_back(entry);
  }
  return entries;
}

}  // namespace

Refusal Show::handle(const Request &request) {
  // Nobody could receive it.
  if (!request.wants_answer) return Refusal::bad_field;
  const uint32_t after = request.as<ip_msg_show>().after;
  switch (request.minor) {
    case IP_MSG_SHOW_CLIENTS:
      return answer_page(transport_, request, clients_after(service_, after));
    case IP_MSG_SHOW_REGISTRATIONS:
      return answer_page(transport_, request, registrations_after(clients_, after));
    default:
      return answer_page(transport_, request, messages_after(service_, after));
  }
}

}  // namespace ipd::control
