// SPDX-License-Identifier: Apache-2.0
// What a client holds, it holds as a process: queues come and go within its life, and its number may be another
// process's a moment after its end.
//
// A process is watched from its first message on. It has ended when the kernel says so; it is gone when, besides, its
// last message has been handled: otherwise something that it sent before it died would be done after what it held was
// undone, and stay for ever. A message of a process that ended before it could be watched is handled too: who sends and
// exits at once meant what he sent. Then it is gone right after.
//
// Without a descriptor for it, a process is known by its number and its beginning, which is compared a few times a
// second.
#include "ipd/control/processes.h"

#include <cerrno>
#include <utility>

namespace ipd::control {

Processes::~Processes() {
  for (const auto &[pid, process] : noted_) {
    if (process.handle >= 0) watch_.forget(process.handle);
  }
}

bool Processes::has_ended(int32_t pid, Noted &process) {
  if (process.has_ended) return true;
  process.has_ended = process.handle >= 0 ? watch_.ended(process.handle) : watch_.start_time(pid) != process.start_time;
  return process.has_ended;
}

Processes::Noted Processes::begin(int32_t pid) {
  Noted process;
  process.handle = watch_.watch(pid);
  if (process.handle == -ESRCH) process.has_ended = true;
  if (process.handle >= 0 || process.has_ended) return process;
  process.start_time = watch_.start_time(pid);
  process.has_ended = process.start_time == 0;
  return process;
}

void Processes::leave(std::map<int32_t, Noted>::iterator place) {
  const int32_t pid = place->first;
  if (place->second.handle >= 0) watch_.forget(place->second.handle);
  noted_.erase(place);
  if (gone_) gone_(pid);
}

void Processes::note(int32_t pid) {
  const auto known = noted_.find(pid);
  if (known != noted_.end()) {
    if (!has_ended(pid, known->second)) return;
    // Either this is the last that it sent, or its number is in use again.
    const Noted next = begin(pid);
    if (next.has_ended) return;
    leave(known);
    noted_.emplace(pid, next);
    return;
  }
  noted_.emplace(pid, begin(pid));
}

bool Processes::alive(int32_t pid) {
  const auto known = noted_.find(pid);
  return known != noted_.end() && !has_ended(pid, known->second);
}

void Processes::look() {
  for (const int32_t pid : watch_.ended_processes()) {
    if (const auto known = noted_.find(pid); known != noted_.end()) has_ended(pid, known->second);
  }
}

void Processes::look_at_all() {
  look();
  for (auto &[pid, process] : noted_) {
    if (process.handle < 0) has_ended(pid, process);
  }
}

void Processes::settle() {
  std::vector<int32_t> over;
  for (const auto &[pid, process] : noted_) {
    if (process.has_ended) over.push_back(pid);
  }
  for (const int32_t pid : over) leave(noted_.find(pid));
}

}  // namespace ipd::control
