// SPDX-License-Identifier: Apache-2.0
// What answers of listings have in common: pages of entries, texts and counts in them.
#ifndef IPD_CONTROL_SHOW_PAGE_H
#define IPD_CONTROL_SHOW_PAGE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "ip_show.h"
#include "ipd/control/reply.h"
#include "ipd/control/request.h"
#include "ipd/control/transport.h"

namespace ipd::control {

inline constexpr size_t show_room = IP_MAX_IPC_PAYLOAD - sizeof(ip_msg_show_reply);

// The field is all zeros, and keeps one.
template <size_t Size>
void copy_show_text(char (&field)[Size], std::string_view text) {
  std::memcpy(field, text.data(), std::min(text.size(), Size - 1));
}

inline void set_show_count(uint32_t (&field)[2], uint64_t count) {
  field[0] = static_cast<uint32_t>(count);
  field[1] = static_cast<uint32_t>(count >> 32);
}

// One entry more than fits says that there are more.
template <class Entry>
Refusal answer_page(Transport &transport, const Request &request, const std::vector<Entry> &entries) {
  const size_t count = std::min(entries.size(), show_room / sizeof(Entry));
  ip_msg_show_reply reply{};
  reply.header = reply_header(request.minor);
  reply.count = static_cast<uint32_t>(count);
  reply.entry_size = sizeof(Entry);
  reply.more = entries.size() > count ? 1 : 0;
  std::vector<std::byte> message(sizeof reply + count * sizeof(Entry));
  std::memcpy(message.data(), &reply, sizeof reply);
  if (count != 0) std::memcpy(message.data() + sizeof reply, entries.data(), count * sizeof(Entry));
  return transport.answer(request, message) == 0 ? Refusal::none : Refusal::no_answer;
}

}  // namespace ipd::control

#endif
