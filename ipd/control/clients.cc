// SPDX-License-Identifier: Apache-2.0
// A registration is known by name and key, for the whole system: of two processes that want the same one, the first has
// it until it leaves or dies. The same process may register again; what it said last holds.
//
// The reply goes to the queue that the registration came from, and to no other: what a message says about that could
// make us send to somebody who asked for nothing. A registration whose reply cannot be delivered is none, because its
// client does not know of it.
#include "ipd/control/clients.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "ipd/control/reply.h"
#include "ipd/process/log.h"

namespace ipd::control {
namespace {

constexpr uint32_t highest_sap = 65535;

bool printable(std::string_view text) {
  return std::ranges::none_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

template <size_t Size>
std::string_view text_of(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

// Nothing: it is not terminated, or holds what does not belong into a line of text.
template <size_t Size>
std::optional<std::string> name_of(const char (&field)[Size]) {
  const std::string_view text = text_of(field);
  if (text.size() == Size || !printable(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace

Clients::Id Clients::id_of(const Request &request, const std::string &name, uint8_t key) {
  return {name, key, name.empty() ? request.sender.pid : 0};
}

int Clients::reply(const Request &request, bool accepted) {
  const ip_msg_header header = reply_header(IP_MSG_REGISTER_REPLY);
  ip_msg_register_reply message{};
  std::memcpy(&message, &header, offsetof(ip_msg_register_reply, result));
  message.result = accepted ? 1 : 0;
  const int error = transport_.send(request.sender, IP_OPCODE_CLIENT, std::as_bytes(std::span(&message, 1)));
  // A client waits for this reply without end; whoever is gone does not.
  if (error != 0 && error != ECONNREFUSED && error != ECONNRESET) transport_.hang_up(request);
  return error;
}

Refusal Clients::handle(const Request &request) {
  if (request.minor == IP_MSG_DEREGISTER) return remove(request);
  const Refusal refusal = enter(request);
  const bool wants_reply = (request.as<ip_msg_register>().flags & IP_CLIENT_NO_ACK) == 0;
  if (refusal != Refusal::none && refusal != Refusal::no_answer && wants_reply) reply(request, false);
  return refusal;
}

void Clients::refused(const Request &request, Refusal) {
  const bool wants_reply = (request.as<ip_msg_register>().flags & IP_CLIENT_NO_ACK) == 0;
  if (request.minor == IP_MSG_REGISTER && wants_reply) reply(request, false);
}

Refusal Clients::enter(const Request &request) {
  const auto message = request.as<ip_msg_register>();
  const auto name = name_of(message.name);
  const std::string_view receive_function = text_of(message.recv_fn);
  const bool good_reply_sap =
      message.reply_sap == 0 || request.sender.sap == 0 || message.reply_sap == request.sender.sap;
  if (!name || !printable(receive_function) || !good_reply_sap || message.data_sap > highest_sap) {
    return Refusal::bad_field;
  }
  const Id id = id_of(request, *name, message.reg_key);
  auto found = by_id_.find(id);
  const int32_t pid = request.sender.pid;
  const int32_t holder = found == by_id_.end() ? 0 : found->second.pid;
  if (holder != 0 && holder != pid && processes_.alive(holder)) return Refusal::name_taken;
  if (holder != pid && held_.contains(pid) && held_[pid] >= most_per_process) return Refusal::limit;
  if ((message.flags & IP_CLIENT_NO_ACK) == 0 && reply(request, true) != 0) return Refusal::no_answer;

  std::optional<Registration> replaced;
  if (found != by_id_.end()) {
    replaced = found->second;
    count_down(replaced->pid);
  }
  ++held_[pid];
  Registration &entered = by_id_[id];
  entered = {.serial = ++last_serial_,
             .pid = pid,
             .uid = request.sender.uid,
             .name = *name,
             .key = message.reg_key,
             .mode = message.reg_mode,
             .arg1 = message.reg_arg1,
             .arg2 = message.reg_arg2,
             .data_sap = message.data_sap,
             .flags = message.flags,
             .receive_function = std::string(receive_function)};
  log_line(LOG_INFO, "process %d (user %u) registered as \"%s\", key %u", pid, request.sender.uid, name->c_str(),
           message.reg_key);
  if (changed_) changed_(entered, &request);
  if (changed_ && replaced) changed_(*replaced, nullptr);
  return Refusal::none;
}

Refusal Clients::remove(const Request &request) {
  const auto message = request.as<ip_msg_deregister>();
  const auto name = name_of(message.name);
  if (!name) return Refusal::bad_field;
  const auto found = by_id_.find(id_of(request, *name, message.reg_key));
  if (found == by_id_.end()) return Refusal::not_registered;
  if (found->second.pid != request.sender.pid) return Refusal::not_allowed;
  erase(found);
  return Refusal::none;
}

void Clients::count_down(int32_t pid) {
  const auto holder = held_.find(pid);
  if (--holder->second == 0) held_.erase(holder);
}

void Clients::erase(std::map<Id, Registration>::iterator place) {
  const Registration gone = std::move(place->second);
  count_down(gone.pid);
  by_id_.erase(place);
  if (changed_) changed_(gone, nullptr);
}

void Clients::process_gone(int32_t pid) {
  if (!held_.contains(pid)) return;
  for (auto each = by_id_.begin(); each != by_id_.end();) {
    const auto next = std::next(each);
    if (each->second.pid == pid) erase(each);
    each = next;
  }
}

void Clients::add_holdings(int32_t pid, Holdings &held) const {
  const auto found = held_.find(pid);
  if (found != held_.end()) held.registrations += static_cast<uint32_t>(found->second);
}

std::vector<Registration> Clients::after(uint32_t serial, size_t most) const {
  std::vector<Registration> found;
  for (const auto &[id, registration] : by_id_) {
    if (registration.serial > serial) found.push_back(registration);
  }
  std::ranges::sort(found, {}, &Registration::serial);
  if (found.size() > most) found.resize(most);
  return found;
}

}  // namespace ipd::control
