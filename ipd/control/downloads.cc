// SPDX-License-Identifier: Apache-2.0
// Telling receivers of interfaces.
//
// The interfaces are followed while there are downloads, and forgotten with the last one. Each download knows what its
// receiver lacks; a message leaves when there is something to tell and counts as told only when it was taken. A
// receiver without room is left alone for a while, the longer the more often it had none: what it lacks is collected
// meanwhile and costs no message.
//
// A round of messages has a budget, so that a change that a thousand receivers want to know of, or a full set of a
// hundred thousand interfaces, does not keep ipd from the kernel's events. What is left goes out at the next tick.
//
// A SAP is given again when its queue is gone. So information goes only to the SAP that it was asked from, while the
// process that asked has it; and a download ends with the queue that asked, with its process, or with the first message
// that cannot be delivered.
#include "ipd/control/downloads.h"

#include <algorithm>
#include <cerrno>

namespace ipd::control {
namespace {

constexpr auto first_pause = std::chrono::milliseconds(200);
constexpr auto longest_pause = std::chrono::seconds(2);
// What a round may cost, in entries; a message costs some by itself.
constexpr size_t round_budget = 32768;
constexpr size_t message_cost = 32;

// The same message may be taken later. After anything else, it will not.
bool is_passing(int error) {
  return error == EAGAIN || error == ENOMEM || error == ENOBUFS || error == EMFILE || error == ENFILE;
}

}  // namespace

template <class Predicate>
void Downloads::end_if(Predicate predicate) {
  std::erase_if(receivers_, predicate);
  tidy();
}

// What nobody has to be told of any more need not be known.
void Downloads::tidy() {
  if (receivers_.empty()) return interfaces_.clear();
  const bool owed =
      std::ranges::any_of(receivers_, [](const auto &each) { return each.second.download.owes_changes(); });
  if (!owed) interfaces_.forget_gone();
}

Refusal Downloads::handle(const Request &request) {
  const auto asked = request.as<ip_msg_download>();
  if (asked.node != IP_NODE_LOCAL || asked.sap == 0 || asked.sap != request.sender.sap) return Refusal::bad_field;
  const Key key{asked.sap, asked.cookie};
  switch (asked.mode) {
    case IP_DOWNLOAD_FOLLOW:
    case IP_DOWNLOAD_ONCE:
      return begin(key, request.sender, asked.mode == IP_DOWNLOAD_FOLLOW);
    case IP_DOWNLOAD_END: {
      const bool was_there = receivers_.erase(key) != 0;
      tidy();
      return was_there ? Refusal::none : Refusal::not_registered;
    }
    default:
      return Refusal::bad_field;
  }
}

Refusal Downloads::begin(Key key, const Sender &sender, bool follow) {
  const auto same = receivers_.find(key);
  // One that another process began under that SAP has lost its queue.
  if (same == receivers_.end() || same->second.asked_by.pid != sender.pid) {
    const auto held =
        std::ranges::count_if(receivers_, [&](const auto &each) { return each.second.asked_by.pid == sender.pid; });
    if (static_cast<size_t>(held) >= most_of_a_process) return Refusal::limit;
    if (same == receivers_.end() && receivers_.size() >= most_of_all) return Refusal::limit;
  }
  if (receivers_.empty()) interfaces_.read();
  Receiver &receiver =
      receivers_.insert_or_assign(key, Receiver{.asked_by = sender, .download = Download(follow)}).first->second;
  size_t budget = round_budget;
  const bool over = tell(receiver, budget) == Outcome::over;
  const bool undelivered = over && !receiver.download.over();
  if (over) receivers_.erase(key);
  tidy();
  return undelivered ? Refusal::no_answer : Refusal::none;
}

Downloads::Outcome Downloads::tell(Receiver &receiver, size_t &budget) {
  for (;;) {
    const auto batch = receiver.download.next(interfaces_);
    if (!batch) return receiver.download.over() ? Outcome::over : Outcome::done;
    const size_t cost = message_cost + batch->entries.size();
    if (cost > budget) return Outcome::later;
    budget -= cost;
    const auto message = encode_(batch->entries);
    const int error = message ? transport_.send(receiver.asked_by, IP_OPCODE_IF_INFO, *message) : ENOMEM;
    if (error != 0) {
      if (!is_passing(error)) return Outcome::over;
      receiver.pause = std::clamp<Clock::duration>(2 * receiver.pause, first_pause, longest_pause);
      receiver.next_try = now_ + receiver.pause;
      return Outcome::later;
    }
    receiver.download.sent(*batch);
    receiver.pause = {};
    receiver.next_try = {};
  }
}

// One round over all receivers that may be tried, from behind the one that was served last.
void Downloads::tell_all() {
  size_t budget = round_budget;
  std::vector<Key> keys;
  keys.reserve(receivers_.size());
  for (const auto &each : receivers_) keys.push_back(each.first);
  std::rotate(keys.begin(), std::upper_bound(keys.begin(), keys.end(), served_), keys.end());
  for (const Key &key : keys) {
    if (budget < message_cost) break;
    const auto at = receivers_.find(key);
    if (at->second.next_try > now_) continue;
    const size_t before = budget;
    if (tell(at->second, budget) == Outcome::over) receivers_.erase(at);
    if (budget != before) served_ = key;
  }
  tidy();
}

void Downloads::process_gone(int32_t pid) {
  end_if([pid](const auto &each) { return each.second.asked_by.pid == pid; });
}

void Downloads::add_holdings(int32_t pid, Holdings &held) const {
  const auto count =
      std::ranges::count_if(receivers_, [pid](const auto &each) { return each.second.asked_by.pid == pid; });
  held.downloads += static_cast<uint32_t>(count);
}

void Downloads::queue_gone(const Sender &sender) {
  end_if([&](const auto &each) { return each.second.asked_by.pid == sender.pid && each.first.first == sender.sap; });
}

void Downloads::interfaces_changed(const std::set<uint32_t> &ifindexes) {
  if (receivers_.empty()) return;
  const std::set<uint32_t> news = interfaces_.compare(ifindexes);
  if (news.empty()) return;
  for (auto &[key, receiver] : receivers_) receiver.download.changed(news, interfaces_);
  tell_all();
}

void Downloads::tick(Clock::time_point now) {
  now_ = now;
  if (!receivers_.empty()) tell_all();
}

}  // namespace ipd::control
