// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/link_local.h"

#include "ip_msg.h"

namespace ipd::control {

Refusal LinkLocal::handle(const Request &request) {
  const auto asked = request.as<ip_msg_link_local>();
  if (asked.ref == 0) return Refusal::bad_field;
  Reports &reports = reports_[request.sender.pid];
  if (reports.size() >= most_of_a_process && !reports.contains(asked.ref)) return Refusal::limit;
  reports[asked.ref] = asked.value;
  return Refusal::none;
}

void LinkLocal::add_holdings(int32_t pid, Holdings &held) const {
  const auto found = reports_.find(pid);
  if (found == reports_.end() || found->second.empty()) return;
  held.link_local_reports += static_cast<uint32_t>(found->second.size());
  held.link_local_ref = found->second.rbegin()->first;
  held.link_local_value = found->second.rbegin()->second;
}

}  // namespace ipd::control
