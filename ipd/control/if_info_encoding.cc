// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/if_info_encoding.h"

#include <cstring>
#include <memory>

#include "ip_api.h"

namespace ipd::control {
namespace {

struct Released {
  void operator()(void *buffer) const { ip_free_if_info_tlv(buffer, 0); }
};

// The record that the tables describe: a count and the entries behind it, all of them words or characters.
std::vector<uint32_t> record_of(std::span<const ip_if_info_msg_entry> entries) {
  static_assert(sizeof(ip_if_info_msg) == sizeof(uint32_t) && sizeof(ip_if_info_msg_entry) % sizeof(uint32_t) == 0);
  std::vector<uint32_t> record(1 + entries.size_bytes() / sizeof(uint32_t));
  record[0] = static_cast<uint32_t>(entries.size());
  if (!entries.empty()) std::memcpy(&record[1], entries.data(), entries.size_bytes());
  return record;
}

}  // namespace

// Not by the conversion of a whole notification: that one releases the notification when it finds no memory, and its
// result does not say so.
std::optional<std::vector<std::byte>> encode_if_info(std::span<const ip_if_info_msg_entry> entries) {
  const std::vector<uint32_t> record = record_of(entries);
  void *encoded = nullptr;
  uint32_t size = 0;
  if (ip_if_info_msg_to_tlv(record.data(), &encoded, &size, 0, 0, 0) != 0) return std::nullopt;
  const std::unique_ptr<void, Released> owned(encoded);
  if (encoded == nullptr || size == 0) return std::nullopt;
  const auto *bytes = static_cast<const std::byte *>(encoded);
  return std::vector<std::byte>(bytes, bytes + size);
}

}  // namespace ipd::control
