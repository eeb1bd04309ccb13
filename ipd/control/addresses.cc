// SPDX-License-Identifier: Apache-2.0
// A request is compared with what is published, handed to the kernel, and answered when what the kernel did is
// published: whoever is told "done" finds the address with the next question.
//
//   bad mask length -> malformed; martian; no interface; too many wait -> busy; another interface has the prefix ->
//   overlap; the kernel refuses -> no privilege, or its error
//
// An address that is there already is done. Requests that wait count as if they were published, so two for the same
// prefix on two interfaces cannot both get through.
//
// A removal goes the same way: it is done when the address is not published any more. Of the refusals it has those that
// can be: whom an address overlaps, and what address it is, does not matter to its end.
//
// Waiting ends with the publication, with the interface, or after some seconds. A caller that is gone gets no answer;
// the address stays, as one that was configured by hand would. An answer that finds no room in the caller's queue is
// tried again as long as that.
#include "ipd/control/addresses.h"

#include <algorithm>
#include <cerrno>

#include "ipd/control/reply.h"

namespace ipd::control {
namespace {

constexpr uint32_t mask_of(uint8_t len) {
  return len == 0 ? 0 : 0xffffffffu << (32 - len);
}

bool share(uint32_t a, uint8_t a_len, uint32_t b, uint8_t b_len) {
  // Without a mask length an address is on no subnet: it is only itself.
  const uint8_t len = std::min(a_len == 0 ? uint8_t{32} : a_len, b_len);
  return ((a ^ b) & mask_of(len)) == 0;
}

// No host may have it: 0/8, 127/8, groups, 255.255.255.255, or the subnet itself or its broadcast address.
bool is_martian(uint32_t addr, uint8_t mask_len) {
  const uint32_t top = addr >> 24;
  if (top == 0 || top == 127 || addr >> 28 == 0xe || addr == 0xffffffffu) return true;
  if (mask_len >= 31) return false;
  const uint32_t host = addr & ~mask_of(mask_len);
  return host == 0 || host == ~mask_of(mask_len);
}

bool has_address(const InterfaceFacts &facts, uint32_t addr, uint8_t mask_len) {
  return std::ranges::any_of(facts.addresses, [&](const AddressState &address) {
    return address.addr == addr && address.mask_len == mask_len;
  });
}

// What the kernel's refusal is to the client.
uint8_t status_of(int error) {
  return error == EPERM || error == EACCES ? IP_CONFIG_STATUS_NO_PRIVILEGE : IP_CONFIG_STATUS_KERNEL;
}

Refusal refusal_of(uint8_t status) {
  switch (status) {
    case IP_CONFIG_STATUS_DONE:
      return Refusal::none;
    case IP_CONFIG_STATUS_NO_INTERFACE:
      return Refusal::no_interface;
    case IP_CONFIG_STATUS_BUSY:
      return Refusal::limit;
    case IP_CONFIG_STATUS_NO_PRIVILEGE:
    case IP_CONFIG_STATUS_KERNEL:
      return Refusal::kernel;
    default:
      return Refusal::bad_field;
  }
}

}  // namespace

bool Addresses::busy(int32_t pid) const {
  if (waiting_.size() >= most_waiting) return true;
  const auto own = std::ranges::count_if(waiting_, [pid](const Wait &wait) { return wait.sender.pid == pid; });
  return static_cast<size_t>(own) >= most_waiting_of_a_process;
}

// The iod of another interface of the context that has an address of the prefix, or whose prefix has the address; 0:
// none.
uint32_t Addresses::overlapping(const InterfaceFacts &facts, uint32_t addr, uint8_t mask_len) const {
  for (const Wait &wait : waiting_) {
    if (wait.answer || wait.removes || wait.iod == facts.iod || wait.context_id != facts.state.context_id) continue;
    if (share(wait.addr, wait.mask_len, addr, mask_len)) return wait.iod;
  }
  for (const auto &[iod, address] : box_.addresses_of_context(facts.state.context_id)) {
    if (iod != facts.iod && share(address.addr, address.mask_len, addr, mask_len)) return iod;
  }
  return 0;
}

std::optional<Addresses::Answer> Addresses::configure(const Request &request, const ip_msg_config_address &asked) {
  if (asked.mask_len == 0 || asked.mask_len > 32) return Answer{.status = IP_CONFIG_STATUS_MALFORMED};
  const bool removes = (asked.cfg_flags & IP_CONFIG_REMOVE) != 0;
  if (!removes && is_martian(asked.address, asked.mask_len)) return Answer{.status = IP_CONFIG_STATUS_MARTIAN};
  const auto facts = box_.interface(asked.iod);
  if (!facts) return Answer{.status = IP_CONFIG_STATUS_NO_INTERFACE};
  if (busy(request.sender.pid)) return Answer{.status = IP_CONFIG_STATUS_BUSY};
  const uint32_t other = removes ? 0 : overlapping(*facts, asked.address, asked.mask_len);
  if (other != 0) return Answer{.status = IP_CONFIG_STATUS_OVERLAP, .result = other};
  const uint32_t ifindex = facts->state.ifindex;
  const int error = removes ? kernel_.remove(ifindex, asked.address, asked.mask_len)
                            : kernel_.add(ifindex, asked.address, asked.mask_len);
  const bool was_so = error == (removes ? EADDRNOTAVAIL : EEXIST);
  if (was_so && has_address(*facts, asked.address, asked.mask_len) != removes) return Answer{};
  if (error == ENODEV) return Answer{.status = IP_CONFIG_STATUS_NO_INTERFACE};
  if (error != 0 && !was_so) return Answer{.status = status_of(error), .result = static_cast<uint32_t>(error)};
  if (error == 0 && !removes && announce_) announce_(ifindex, asked.address);
  waiting_.push_back({.sender = request.sender,
                      .wants_reply = (asked.cfg_flags & IP_CONFIG_NO_WAIT) == 0,
                      .removes = removes,
                      .iod = asked.iod,
                      .context_id = facts->state.context_id,
                      .addr = asked.address,
                      .mask_len = asked.mask_len,
                      .answer = std::nullopt,
                      .latest = std::nullopt});
  return std::nullopt;
}

Refusal Addresses::handle(const Request &request) {
  const auto asked = request.as<ip_msg_config_address>();
  const auto answer = configure(request, asked);
  if (!answer) return Refusal::none;
  const bool wants_reply = (asked.cfg_flags & IP_CONFIG_NO_WAIT) == 0;
  const bool delivered = !wants_reply || answer_now(request.sender, *answer);
  const Refusal refusal = refusal_of(answer->status);
  return refusal == Refusal::none && !delivered ? Refusal::no_answer : refusal;
}

void Addresses::refused(const Request &request, Refusal reason) {
  // What was sent under another opcode expects no answer under this one.
  if (reason == Refusal::wrong_opcode) return;
  if ((request.as<ip_msg_config_address>().cfg_flags & IP_CONFIG_NO_WAIT) != 0) return;
  const bool may_not = reason == Refusal::not_allowed;
  const uint32_t status = may_not ? IP_CONFIG_STATUS_NO_PRIVILEGE : IP_CONFIG_STATUS_MALFORMED;
  answer_now(request.sender, {.status = static_cast<uint8_t>(status)});
}

int Addresses::reply(const Sender &sender, const Answer &answer) {
  ip_msg_config_reply message{};
  message.header = reply_header(IP_MSG_CONFIG_ADDRESS);
  message.cfg_result = answer.result;
  message.status = answer.status;
  return transport_.send(sender, IP_OPCODE_CONFIGURE, std::as_bytes(std::span(&message, 1)));
}

// Now, or later when the caller has room. False: never.
bool Addresses::answer_now(const Sender &sender, const Answer &answer) {
  const int error = reply(sender, answer);
  if (error == 0) return true;
  if (!is_shortage(error) || busy(sender.pid)) return false;
  Wait wait;
  wait.sender = sender;
  wait.wants_reply = true;
  wait.answer = answer;
  waiting_.push_back(wait);
  return true;
}

// Nothing: not yet.
std::optional<Addresses::Answer> Addresses::outcome(const Wait &wait) const {
  if (wait.answer) return wait.answer;
  const auto facts = box_.interface(wait.iod);
  if (!facts) return wait.removes ? Answer{} : Answer{.status = IP_CONFIG_STATUS_NO_INTERFACE};
  if (has_address(*facts, wait.addr, wait.mask_len) != wait.removes) return Answer{};
  return std::nullopt;
}

void Addresses::settle() {
  for (auto wait = waiting_.begin(); wait != waiting_.end();) {
    wait->answer = outcome(*wait);
    const bool ends = wait->answer && (!wait->wants_reply || !is_shortage(reply(wait->sender, *wait->answer)));
    wait = ends ? waiting_.erase(wait) : std::next(wait);
  }
}

void Addresses::interfaces_changed(const std::set<uint32_t> & /*ifindexes*/) {
  settle();
}

void Addresses::tick(Clock::time_point now) {
  settle();
  for (auto wait = waiting_.begin(); wait != waiting_.end();) {
    if (!wait->latest) wait->latest = now + patience;
    if (now < *wait->latest) {
      ++wait;
      continue;
    }
    // The kernel did it and it was never seen: somebody undid it at once, or there is no room to publish it.
    if (!wait->answer && wait->wants_reply) {
      (void)reply(wait->sender, {.status = IP_CONFIG_STATUS_KERNEL, .result = ETIMEDOUT});
    }
    wait = waiting_.erase(wait);
  }
}

// The requests stay: their prefixes are taken until they are published.
void Addresses::process_gone(int32_t pid) {
  std::erase_if(waiting_, [pid](const Wait &wait) { return wait.sender.pid == pid && wait.answer; });
  for (Wait &wait : waiting_) {
    if (wait.sender.pid == pid) wait.wants_reply = false;
  }
}

void Addresses::queue_gone(const Sender &sender) {
  const auto sent = [&sender](const Wait &wait) {
    return wait.sender.pid == sender.pid && wait.sender.sap == sender.sap;
  };
  std::erase_if(waiting_, [&](const Wait &wait) { return sent(wait) && wait.answer; });
  for (Wait &wait : waiting_) {
    if (sent(wait)) wait.wants_reply = false;
  }
}

}  // namespace ipd::control
