// SPDX-License-Identifier: Apache-2.0
// Nothing in a message is believed before it was compared: first how long it is and what it claims to be, then whether
// its sender may send such a thing. The sender is whom the kernel names; what the header says about that is not read.
//
// Whoever waits for an answer gets one. Requests of the transport are rejected here when nobody answered them; for the
// few messages that are answered by a message of their own, the handler is told of those that never reached it.
//
// A process that sends nonsense costs one line of the log for each kind of nonsense.
#include "ipd/control/service.h"

#include <algorithm>

#include "ip_msg.h"
#include "ipd/process/log.h"

namespace ipd::control {

Service::Service(Transport &transport, Processes &processes, const Rights &rights)
    : transport_(transport), processes_(processes), rights_(rights) {
  counts_[0];
  for (const MessageKind &kind : message_kinds()) counts_[kind.minor];
  processes_.on_gone([this](int32_t pid) { process_gone(pid); });
}

void Service::add(Handler &handler, std::initializer_list<uint16_t> minors) {
  for (const uint16_t minor : minors) by_minor_[minor] = &handler;
  if (std::ranges::find(handlers_, &handler) == handlers_.end()) handlers_.push_back(&handler);
}

Refusal Service::serve(const Request &request, Refusal form, const MessageKind *kind) {
  const auto found = kind == nullptr ? by_minor_.end() : by_minor_.find(kind->minor);
  if (found == by_minor_.end()) return form == Refusal::none ? Refusal::unknown_minor : form;
  Refusal refusal = form;
  // Nobody holds anything whose end cannot be seen.
  const bool known = request.sender.pid > 0;
  if (refusal == Refusal::none && (!known || !rights_.allows(request, kind->right))) refusal = Refusal::not_allowed;
  if (refusal == Refusal::none) return found->second->handle(request);
  found->second->refused(request, refusal);
  return refusal;
}

void Service::receive(Request request) {
  if (request.sender.pid > 0) processes_.note(request.sender.pid);
  const MessageKind *kind = nullptr;
  const Refusal form = check_form(request.bytes, request.opcode, &kind);
  request.minor = kind == nullptr ? uint16_t{0} : kind->minor;
  const Refusal refusal = serve(request, form, kind);
  // Answered ones are past that: the transport knows them.
  if (request.wants_answer) transport_.reject(request);
  count(request, refusal);
  if (refusal != Refusal::none) log_refusal(request, kind, refusal);
}

void Service::count(const Request &request, Refusal refusal) {
  MessageCounts &counts = counts_[request.minor];
  ++counts.received;
  ++counts.by_outcome[static_cast<size_t>(refusal)];
  if (request.sender.pid <= 0) return;
  SenderCounts &sender = senders_[request.sender.pid];
  sender.uid = request.sender.uid;
  ++sender.received;
  if (refusal != Refusal::none) ++sender.refused;
}

Holdings Service::holdings(int32_t pid) const {
  Holdings held;
  for (const Handler *handler : handlers_) handler->add_holdings(pid, held);
  return held;
}

void Service::log_refusal(const Request &request, const MessageKind *kind, Refusal refusal) {
  const Sender &sender = request.sender;
  if (!logged_.emplace(sender.pid, refusal).second) return;
  log_line(LOG_WARNING, "refused from process %d (user %u, SAP %u): %s, %zu bytes: %s", sender.pid, sender.uid,
           sender.sap, kind == nullptr ? "a message" : kind->name, request.bytes.size(), refusal_text(refusal));
}

void Service::process_gone(int32_t pid) {
  for (Handler *handler : handlers_) handler->process_gone(pid);
  senders_.erase(pid);
  std::erase_if(logged_, [pid](const auto &line) { return line.first == pid; });
}

void Service::queue_gone(const Sender &sender) {
  for (Handler *handler : handlers_) handler->queue_gone(sender);
}

void Service::interfaces_changed(const std::set<uint32_t> &ifindexes) {
  for (Handler *handler : handlers_) handler->interfaces_changed(ifindexes);
}

void Service::tick(Handler::Clock::time_point now) {
  for (Handler *handler : handlers_) handler->tick(now);
}

}  // namespace ipd::control
